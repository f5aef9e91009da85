// The five functions on one tag, called so that nothing but the library allocates meanwhile, and
// what the database then holds.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/AllocationFaults.h"
#include "tests/support/FaultyDriverManager/FaultyDriverManager.h"
#include "tests/support/SchedulerCalls.h"

namespace eas::test {

enum class Operation { initialize, generate, query, remove, select };

struct OperationRow {
    Operation operation;
    const char* name;
    int lowest_code;    ///< the documented codes go from there to 0
    int database_code;  ///< when the conversation with the database fails
};

inline constexpr OperationRow operation_rows[] = {
    {Operation::initialize, "initialize", EAS_THRESHOLDS_COMMENTED_OUT, EAS_NO_COEFFICIENTS},
    {Operation::generate, "generate", EAS_TAG_EXISTS, EAS_STORE_FAILED},
    {Operation::query, "query", EAS_QUERY_FAILED, EAS_QUERY_FAILED},
    {Operation::remove, "remove", EAS_REMOVE_FAILED, EAS_REMOVE_FAILED},
    {Operation::select, "select", EAS_NO_UNIQUE_TAG, EAS_NO_UNIQUE_TAG},
};

inline bool soak() {
    return std::getenv("EAS_SOAK") != nullptr;
}

inline std::ptrdiff_t open_descriptors() {
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

/// The tag of anna that the operations work on, beside one of bert that none may touch.
class OperationTest : public SchedulerTest {
  protected:
    using Rows = std::vector<PlainOdbc::Row>;

    /// Who cannot write now shall be told so soon.
    [[nodiscard]] std::map<std::string, std::string> keywords() const override {
        if (GetParam() == Engine::mariadb)
            return {};
        return {{"Timeout", "500"}};
    }

    void set_up_database() override {
        SchedulerTest::set_up_database();
        manager_.on_crossing(watch_elsewhere);
        ASSERT_EQ(initialize(), EAS_OK);
        ASSERT_EQ(generate("bert", "cfd"), EAS_OK);
        without_ = rows();
        plain().run("create table without as select * from TQVN_EnergyPolicyTag");
        ASSERT_EQ(generate("anna", "cfd"), EAS_OK);
        with_ = rows();
        plain().run("create table whole as select * from TQVN_EnergyPolicyTag");
        is_there_ = true;
    }

    /// Every row but for the time of its creation.
    Rows rows() {
        return plain().run(
            "select user_name, energy_tag_name, cluster_name, job_id, default_frequency, "
            "frequency, "
            "predict_power, energy_saving_pct, predict_elapse_time, perf_degrad_pct "
            "from TQVN_EnergyPolicyTag order by user_name, frequency");
    }

    /// Brings the tables into the state that the operation starts from.
    void prepare(Operation operation) {
        const bool wanted = operation != Operation::generate;
        if (is_there_ == wanted)
            return;
        plain().run("delete from TQVN_EnergyPolicyTag");
        plain().run(std::string("insert into TQVN_EnergyPolicyTag select * from ") +
                    (wanted ? "whole" : "without"));
        is_there_ = wanted;
    }

    /// The tag is there as a whole or not at all, and changed only where the operation succeeded.
    void expect_all_or_nothing(Operation operation, int code) {
        const Rows now = rows();
        const bool was_there = is_there_;
        EXPECT_TRUE(now == with_ || now == without_) << now.size() << " rows";
        is_there_ = now == with_;
        if (code != EAS_OK ||
            (operation != Operation::generate && operation != Operation::remove)) {
            EXPECT_EQ(is_there_, was_there);
        }
    }

    int run(Operation operation) {
        switch (operation) {
            case Operation::initialize: {
                const WatchAllocations watch;
                return eas_initialize(cluster_.data(), default_frequency, threshold_file_.data());
            }
            case Operation::generate: {
                double counters[] = {2e12, 1e12, 3e12};  // as the tags that it is held against
                const WatchAllocations watch;
                return eas_generate_tag(cluster_.data(), default_frequency, user_.data(),
                                        tag_.data(), counters, job_.data(), 1000, 200.0);
            }
            case Operation::query: {
                const WatchAllocations watch;
                return Tags(user_.c_str(), tag_.c_str()).status;
            }
            case Operation::remove: {
                const WatchAllocations watch;
                return remove();
            }
            case Operation::select:
                const WatchAllocations watch;
                int frequency = 0;
                double change = 0.0;
                return eas_auto_select_frequency(cluster_.data(), default_frequency, user_.data(),
                                                 tag_.data(), policy_.data(), &frequency, &change);
        }
        return 1;
    }

    /// After a fault: the library works again, and nothing of the fault is left.
    void expect_recovered(Operation operation) {
        if (operation == Operation::initialize) {
            EXPECT_EQ(run(Operation::initialize), EAS_OK);
        }
        EXPECT_EQ(run(Operation::query), EAS_OK);
    }

    FaultyDriverManager& manager_ = FaultyDriverManager::load();

  private:
    int remove() {
        int count = 0;
        char** users = nullptr;
        char** names = nullptr;
        const int code = eas_remove_tag(cluster_.data(), default_frequency, user_.data(),
                                        tag_.data(), &count, &users, &names);
        for (int i = 0; i < count; ++i) {
            std::free(users[i]);
            std::free(names[i]);
        }
        std::free(users);
        std::free(names);
        return code;
    }

    std::string cluster_ = "c1";
    std::string user_ = "anna";
    std::string tag_ = "cfd";
    std::string job_ = "42.0";
    std::string policy_ = "minimize_energy";
    Rows with_;
    Rows without_;
    bool is_there_ = false;
};

}  // namespace eas::test
