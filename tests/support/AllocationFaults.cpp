#include "tests/support/AllocationFaults.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "gtest/gtest.h"

namespace eas::test {
namespace {

thread_local int watched = 0;
thread_local int elsewhere = 0;

std::atomic<long> until_failure{0};  // 0: none will fail; negative: it has failed
std::atomic<bool> fail_for_good{false};
std::atomic<bool> has_failed{false};

/// Addresses of the watched blocks, by linear probing. A spin lock, since nothing here may
/// allocate.
class Blocks {
  public:
    void add(void* block) {
        const Lock lock(busy_);
        if (count_ + 1 >= slots_.size())
            std::abort();
        std::size_t at = home(block);
        while (slots_[at] != nullptr)
            at = next(at);
        slots_[at] = block;
        ++count_;
    }
    void remove(const void* block) {
        if (block == nullptr || count_ == 0)
            return;
        const Lock lock(busy_);
        std::size_t at = home(block);
        while (slots_[at] != block) {
            if (slots_[at] == nullptr)
                return;
            at = next(at);
        }
        slots_[at] = nullptr;
        --count_;
        close_gap(at);
    }
    [[nodiscard]] long count() const { return static_cast<long>(count_); }

  private:
    struct Lock {
        explicit Lock(std::atomic_flag& flag) : busy(flag) {
            while (busy.test_and_set(std::memory_order_acquire)) {
            }
        }
        ~Lock() { busy.clear(std::memory_order_release); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        std::atomic_flag& busy;
    };

    std::size_t home(const void* block) const {
        return (reinterpret_cast<std::uintptr_t>(block) >> 4U) * 0x9e3779b1U % slots_.size();
    }
    std::size_t next(std::size_t at) const { return (at + 1) % slots_.size(); }
    void close_gap(std::size_t gap) {
        for (std::size_t at = next(gap); slots_[at] != nullptr; at = next(at)) {
            const std::size_t wanted = home(slots_[at]);
            const bool between =
                gap < at ? gap < wanted && wanted <= at : gap < wanted || wanted <= at;
            if (between)
                continue;
            slots_[gap] = slots_[at];
            slots_[at] = nullptr;
            gap = at;
        }
    }

    std::array<void*, 1U << 16U> slots_{};
    std::atomic<std::size_t> count_{0};
    std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
};

Blocks blocks;

[[maybe_unused]] bool counts() {
    return watched > 0 && elsewhere == 0;
}

[[maybe_unused]] bool fails() {
    if (!counts() || until_failure == 0)
        return false;
    if (until_failure > 0 && --until_failure > 0)
        return false;
    if (until_failure == 0)
        until_failure = fail_for_good ? -1 : 0;
    has_failed = true;
    errno = ENOMEM;
    return true;
}

[[maybe_unused]] void* note(void* block) {
    if (block != nullptr && counts())
        blocks.add(block);
    return block;
}

}  // namespace

WatchAllocations::WatchAllocations() {
    ++watched;
}
WatchAllocations::~WatchAllocations() {
    --watched;
}

void watch_elsewhere(int step) {
    elsewhere += step;
}

void fail_allocation(long n, bool for_good) {
    fail_for_good = for_good;
    has_failed = has_failed && n == 0;
    until_failure = n;
}

bool allocation_failed() {
    return has_failed;
}

long fail_each_allocation(const std::function<void()>& run) {
    long failed = 0;
    for (const bool for_good : {false, true}) {
        bool met = true;
        for (long n = 1; met && !::testing::Test::HasFailure(); ++n) {
            const ::testing::ScopedTrace trace(
                __FILE__, __LINE__,
                "allocation " + std::to_string(n) + (for_good ? " and all later ones" : ""));
            const long blocks = live_blocks();
            fail_allocation(n, for_good);
            run();
            met = allocation_failed();
            fail_allocation(0, false);
            EXPECT_EQ(live_blocks(), blocks);
            failed += met ? 1 : 0;
        }
    }
    EXPECT_GT(failed, 1);
    return failed;
}

long live_blocks() {
    return blocks.count();
}

}  // namespace eas::test

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// glibc's own, under the names that it keeps for those who replace the others.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);

__attribute__((visibility("default"))) void* malloc(std::size_t size) {
    return eas::test::fails() ? nullptr : eas::test::note(__libc_malloc(size));
}

__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) {
    return eas::test::fails() ? nullptr : eas::test::note(__libc_calloc(count, size));
}

__attribute__((visibility("default"))) void* realloc(void* block, std::size_t size) {
    if (eas::test::fails())
        return nullptr;
    eas::test::blocks.remove(block);
    return eas::test::note(__libc_realloc(block, size));
}

__attribute__((visibility("default"))) void free(void* block) {
    eas::test::blocks.remove(block);
    __libc_free(block);
}
}

#endif
