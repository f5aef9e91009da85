// The state of the faulty driver manager. Any thread may call; faults are for one thread at a time.
#pragma once

#include <atomic>
#include <map>
#include <mutex>

#include "tests/support/FaultyDriverManager/FaultyDriverManager.h"

namespace eas::test {

class FaultyManager final : public FaultyDriverManager {
  public:
    static FaultyManager& instance();

    void inject(const std::vector<Fault>& faults) override;
    bool end_faults() override;
    std::vector<Call> calls() override;
    [[nodiscard]] int live_handles() const override;
    void free_left_overs() override;
    void on_crossing(void (*told)(int)) override { told_ = told; }

    /// The real entry point.
    void* real(const char* entry_point);
    /// Lists a call; the fault that it meets, or null.
    const Fault* meet(const char* entry_point, const std::string& said);
    void made(SQLHANDLE handle, SQLSMALLINT type, SQLHANDLE parent);
    void freed(SQLHANDLE handle);
    /// The real one frees the statements of a connection that is closed.
    void disconnected(SQLHANDLE connection);

    /// A thread's way through the driver manager.
    class Crossing {
      public:
        explicit Crossing(FaultyManager& manager) : told_(manager.told_) { tell(1); }
        ~Crossing() { tell(-1); }
        Crossing(const Crossing&) = delete;
        Crossing& operator=(const Crossing&) = delete;

      private:
        void tell(int step) const {
            if (told_ != nullptr)
                told_(step);
        }
        void (*told_)(int);
    };

  private:
    struct Handle {
        SQLSMALLINT type;
        SQLHANDLE parent;
    };

    FaultyManager();

    mutable std::mutex mutex_;
    void* library_;
    bool lists_calls_ = false;
    std::vector<Call> calls_;
    std::map<std::string, int> counts_;  ///< of each entry point in calls_
    std::map<SQLHANDLE, Handle> handles_;
    struct Injected {
        Fault fault;
        int calls = 0;  ///< of its entry point so far
    };
    std::vector<Injected> faults_;
    std::atomic<void (*)(int)> told_{nullptr};
};

}  // namespace eas::test
