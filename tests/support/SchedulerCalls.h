// The five functions as a scheduler calls them, and a database to call them on: cluster c1 with
// four frequencies.
#pragma once

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "interface/interface.h"
#include "tests/support/ScratchDatabase.h"

namespace eas::test {

inline constexpr int default_frequency = 2000000;

inline char* text(const std::string& s) {
    return const_cast<char*>(s.c_str());
}

/// What a query hands out, freed as the documentation says.
class Tags {
  public:
    Tags(const char* user, const char* tag, const char* cluster = "c1", int frequency = 2000000) {
        status = eas_query_tag(const_cast<char*>(cluster), frequency, const_cast<char*>(user),
                               const_cast<char*>(tag), &count, &records);
    }
    ~Tags() {
        for (int i = 0; i < count; ++i) {
            energyPolicyTag_t& tag = records[i];
            for (char* name : {tag.energy_tag_name, tag.job_id, tag.user_name, tag.cluster_name})
                std::free(name);
            std::free(tag.frequencies);
            std::free(tag.predict_power);
            std::free(tag.energy_saving_pct);
            std::free(tag.predict_elapse_time);
            std::free(tag.perf_degrad_pct);
        }
        std::free(records);
    }
    Tags(const Tags&) = delete;
    Tags& operator=(const Tags&) = delete;

    int status = 1;
    int count = -1;
    energyPolicyTag_t* records = nullptr;
};

struct Removed {
    int status;
    std::vector<std::string> names;  // "user/tag"
};

inline Removed remove_tags(const char* user, const char* tag) {
    int count = -1;
    char** users = nullptr;
    char** names = nullptr;
    Removed removed{eas_remove_tag(text("c1"), default_frequency, const_cast<char*>(user),
                                   const_cast<char*>(tag), &count, &users, &names),
                    {}};
    for (int i = 0; i < count; ++i) {
        removed.names.push_back(std::string(users[i]) + "/" + names[i]);
        std::free(users[i]);
        std::free(names[i]);
    }
    if (count <= 0) {
        EXPECT_EQ(users, nullptr);
        EXPECT_EQ(names, nullptr);
    }
    std::free(users);
    std::free(names);
    return removed;
}

inline int generate(const std::string& user, const std::string& tag, double power = 200.0,
                    int frequency = default_frequency, int elapsed = 1000) {
    double counters[] = {2e12, 1e12, 3e12};
    return eas_generate_tag(text("c1"), frequency, text(user), text(tag), counters, text("42.0"),
                            elapsed, power);
}

struct Selection {
    int status;
    int frequency = -7;
    double time_var = -7.0;
};

inline Selection select(const char* user, const char* tag, const char* policy) {
    Selection s{0};
    s.status = eas_auto_select_frequency(text("c1"), default_frequency, const_cast<char*>(user),
                                         const_cast<char*>(tag), const_cast<char*>(policy),
                                         &s.frequency, &s.time_var);
    return s;
}

/// The four working functions on one tag, whatever comes of it.
inline void call_all_on(const std::string& user, const char* tag) {
    generate(user, tag);
    Tags(user.c_str(), tag);
    select(user.c_str(), tag, "minimize_time");
    remove_tags(user.c_str(), tag);
}

/// Tries until it is done; 1 when it never is. SQLite lets one write at a time: who waits for it in
/// vain is told so, or his commit is refused, which is not reported. MariaDB may take one of two
/// that work beside each other back.
template <typename Try>
int never(const Try& done) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        if (done())
            return 0;
    }
    return 1;
}

class SchedulerTest : public DatabaseTest {
  protected:
    void set_up_database() override {
        const char* rows[] = {"1600000,2000000,?,0.5,0,10,0.88,0,0",
                              "1800000,2000000,?,0.75,320,5,0.9,0.64,0.03",
                              "2000000,2000000,?,0,0,0,0,0,0", "2400000,2000000,?,1.5,0,0,1,0,0"};
        for (const char* row : rows) {
            plain().run(std::string("insert into TQVN_EnergyCoEfficients values (") + row + ")",
                        {"c1"});
        }
        threshold_file_ = (database().folder() / "thresholds").string();
        write_thresholds(
            "Begin Min_Energy\nTHRESHOLD_RUNTIME_VAR = 5\nEnd Min_Energy\n"
            "Begin Min_Time\nCPU_FREQ RUNTIME_VAR\n2.4GHz -15\nEnd Min_Time\n");
    }

    void write_thresholds(const std::string& content) const {
        std::ofstream(threshold_file_) << content;
    }
    [[nodiscard]] int initialize(const char* cluster = "c1", int frequency = default_frequency) {
        return eas_initialize(const_cast<char*>(cluster), frequency, text(threshold_file_));
    }
    std::int64_t tag_rows() { return database().rows("TQVN_EnergyPolicyTag"); }

    std::string threshold_file_;
};

}  // namespace eas::test
