// libeasnode's frequencies on nodes of every kind of cpufreq driver: what is offered, what is
// written in which order, and that what stood there before comes back, whoever gives it back.
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <unistd.h>

#include <sstream>
#include <vector>

#include "node/frequency/SavedSettings.h"
#include "node/node.h"
#include "tests/node/Frequency.h"
#include "tests/node/NodeTest.h"
#include "tests/node/SmallNode.h"
#include "tests/support/ChildProcess.h"

namespace eas::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using PinningTest = NodeTest;

/// A node without a cpufreq driver.
NodeShape bare() {
    NodeShape shape = small_node("xeon2023");
    shape.files.erase(std::remove_if(shape.files.begin(), shape.files.end(),
                                     [](const fake::ShapeFile& file) {
                                         return file.path.find("policy") != file.path.npos;
                                     }),
                      shape.files.end());
    return shape;
}

/// What is set on the whole node.
std::string all_settings() {
    return Frequency().save();
}

/// As another process gives back.
int restore(const std::string& text, easnode_problem* problem = nullptr) {
    return easnode_frequency_restore(nullptr, text.data(), text.size(), problem);
}

/// The writes that fix CPU 1: "userspace min" stands for that governor and that limit.
std::vector<std::string> writes_of(const std::string& words, int khz) {
    std::vector<std::string> lines;
    std::istringstream in(words);
    for (std::string word; in >> word;) {
        const std::string number = "=" + std::to_string(khz);
        if (word == "userspace")
            lines.push_back("1 scaling_governor=userspace");
        else
            lines.push_back("1 scaling_" + word + (word == "setspeed" ? "" : "_freq") + number);
    }
    return lines;
}

TEST_F(PinningTest, EveryDriverIsFixedReadBackAndGivenBack) {
    const int limits = EASNODE_FREQUENCY_LIMITS, userspace = EASNODE_FREQUENCY_USERSPACE;
    const struct {
        const char* shape;
        int method, policies, nominal, source;
        size_t steps;
        int lowest_step;
        int khz;
        const char* writes;  // for CPU 1, in this order
    } rows[] = {
        {"xeon2023", limits, 8, 2000000, EASNODE_NOMINAL_BASE, 13, 800000, 1400000, "min max"},
        {"epyc2019", userspace, 4, 2300000, EASNODE_NOMINAL_TABLE, 3, 1500000, 2000000,
         "userspace min max setspeed"},
        {"epyc2023", limits, 8, 2750000, EASNODE_NOMINAL_CPPC, 17, 1210811, 1210811, "max"},
        {"epyc2023-passive", userspace, 8, 2750000, EASNODE_NOMINAL_CPPC, 17, 1210811, 2700000,
         "userspace min max setspeed"},
        {"hybrid", limits, 8, 1800000, EASNODE_NOMINAL_BASE, 11, 800000, 1800000, "min max"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.shape);
        FakeNode node(small_node(row.shape));
        inside(node, [&] {
            const std::string before = all_settings();
            Frequency all, one("1");
            const easnode_frequency_info info = all.info();
            EXPECT_EQ(row.method, info.method);
            EXPECT_EQ(row.policies, info.policies);
            EXPECT_EQ(row.nominal, info.nominal_khz);
            EXPECT_EQ(row.source, info.nominal_source);
            const auto steps = all.steps();
            ASSERT_EQ(row.steps, steps.size());
            EXPECT_EQ(row.nominal, steps.front().khz);
            EXPECT_EQ(row.lowest_step, steps.back().khz);
            EXPECT_THAT(writes(node), IsEmpty()) << "looking changes nothing";

            EXPECT_EQ(EASNODE_OK, one.set(row.khz)) << one.problem.text;
            EXPECT_THAT(writes(node), ::testing::ElementsAreArray(writes_of(row.writes, row.khz)));
            EXPECT_EQ(EASNODE_OK, one.set(row.khz));
            EXPECT_THAT(writes(node), IsEmpty()) << "it stands there already";
            for (const easnode_step& step : {steps.front(), steps.back(), steps[1]}) {
                if (step.khz == row.nominal && std::string(row.shape) == "epyc2019")
                    continue;  // takes the switch of the whole node
                EXPECT_EQ(EASNODE_OK, one.set(step.khz)) << one.problem.text;
                EXPECT_EQ(step.khz, one.rows()[0].min_khz);
                EXPECT_EQ(step.khz, one.rows()[0].max_khz);
                EXPECT_EQ(step.khz, one.rows()[0].current_khz);
            }
            EXPECT_NE(before, all_settings());
            EXPECT_EQ(EASNODE_OK, restore(before));
            EXPECT_EQ(before, all_settings());
            writes(node);
            EXPECT_EQ(EASNODE_OK, restore(before)) << "again";
            EXPECT_THAT(writes(node), IsEmpty());
        });
    }
}

TEST_F(PinningTest, CpusThatShareAClockAreSetTogetherAndNoOthers) {
    FakeNode node(small_node("epyc2019"));
    inside(node, [&] {
        Frequency two("3, 6");
        EXPECT_EQ(4, two.info().cpus);
        ASSERT_EQ(EASNODE_OK, two.set(2000000));
        std::vector<int> cpus;
        for (const auto& row : two.rows()) {
            cpus.push_back(row.cpu);
            EXPECT_EQ(2000000, row.setspeed_khz);
            EXPECT_STREQ("userspace", row.governor);
        }
        EXPECT_THAT(cpus, ElementsAre(2, 3, 6, 7));
        EXPECT_EQ(1500000, Frequency("1").rows()[0].min_khz);
        for (const char* bad : {"8", "", "a", "1-", "0-70000"})
            EXPECT_EQ(EASNODE_BAD_ARGUMENT, Frequency(bad).code) << bad;
    });
}

TEST_F(PinningTest, TheTurboSwitchFollowsTheFrequencyOfTheWholeNode) {
    {
        NodeShape boosted = small_node("epyc2019");
        for (int i = 0; i < 4; ++i)
            put(boosted, policy_file(i, "scaling_max_freq"), "2000000");
        FakeNode node(boosted);
        inside(node, [&] {
            Frequency part("0"), all;
            const std::string before = all_settings();
            EXPECT_EQ(EASNODE_NOT_OFFERED, part.set(2300000))
                << "other jobs would lose their boost";
            EXPECT_THAT(part.problem.text, HasSubstr("turbo switch"));
            EXPECT_THAT(writes(node), IsEmpty());
            EXPECT_EQ(EASNODE_OK, all.set(2300000)) << all.problem.text;
            EXPECT_EQ("-1 cpufreq/boost=0", writes(node).at(0)) << "before the limits";
            EXPECT_EQ(EASNODE_TURBO_OFF, all.info().turbo);
            EXPECT_EQ(EASNODE_OK, all.restore(before)) << all.problem.text;
            EXPECT_EQ("-1 cpufreq/boost=1", writes(node).at(0));
            EXPECT_EQ(before, all_settings());
            store(cpu_folder + "cpufreq/boost", "0");  // it sets the limits anew
            for (int i = 0; i < 4; ++i)
                store(policy_file(i, "scaling_max_freq"), "2000000");
            EXPECT_EQ(EASNODE_OK, all.restore(before)) << all.problem.text;
            EXPECT_EQ(before, all_settings()) << "after the switch";
        });
    }
    NodeShape shape = small_node("xeon2023");
    put(shape, cpu_folder + "intel_pstate/no_turbo", "1");
    for (int i = 0; i < 8; ++i)
        put(shape, policy_file(i, "scaling_max_freq"), "2000000");
    FakeNode node(shape);
    inside(node, [&] {
        Frequency all;
        const std::string before = all_settings();
        EXPECT_EQ(EASNODE_OK, all.set(2000000)) << "no need of turbo";
        EXPECT_EQ(EASNODE_OK, all.set(3000000)) << all.problem.text;
        EXPECT_EQ("0\n", read_file(cpu_folder + "intel_pstate/no_turbo"));
        EXPECT_EQ(EASNODE_OK, all.restore(before)) << all.problem.text;
        EXPECT_EQ(before, all_settings());
    });
}

TEST_F(PinningTest, WhatIsNotOfferedChangesNothing) {
    NodeShape limited = small_node("epyc2019"), capped = small_node("xeon2023");
    put(limited, policy_file(3, "bios_limit"), "1500000");
    NodeShape uneven = limited;
    put(uneven, policy_file(0, "scaling_governor"), "performance");
    put(uneven, policy_file(1, "cpuinfo_max_freq"), "2000000");
    put(uneven, policy_file(2, "cpuinfo_min_freq"), "1600000");
    {
        FakeNode node(uneven);
        inside(node, [] {  // each the narrowest of all CPUs
            const easnode_frequency_info info = Frequency().info();
            EXPECT_THAT((std::vector{info.lowest_khz, info.highest_khz, info.bios_limit_khz,
                                     info.turbo, info.has_table}),
                        ElementsAre(1600000, 2000000, 1500000, EASNODE_TURBO_ON, 1));
            EXPECT_STREQ("mixed", info.governor);
        });
    }
    put(capped, cpu_folder + "intel_pstate/max_perf_pct", "50");
    const struct {
        NodeShape shape;
        int khz;
        int code;
        const char* path;
    } rows[] = {
        {limited, 2000000, EASNODE_NOT_OFFERED, "policy3/bios_limit"},
        {limited, 1500000, EASNODE_OK, ""},
        {limited, 1900000, EASNODE_NOT_OFFERED, "scaling_available_frequencies"},
        {capped, 2000000, EASNODE_NOT_OFFERED, "max_perf_pct"},
        {capped, 1900000, EASNODE_OK, ""},
        {capped, 700000, EASNODE_NOT_OFFERED, "cpuinfo_min_freq"},
        {capped, 4000000, EASNODE_NOT_OFFERED, "cpuinfo_max_freq"},
        {bare(), 2000000, EASNODE_NO_FREQUENCY, "cpufreq"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.khz);
        FakeNode node(row.shape);
        inside(node, [&] {
            Frequency all;
            EXPECT_EQ(row.code, all.set(row.khz)) << all.problem.text;
            EXPECT_THAT(all.problem.path, HasSubstr(row.path));
            EXPECT_EQ(row.code, all.problem.code);
            EXPECT_EQ(row.code == EASNODE_OK, !writes(node).empty());
        });
    }
}

TEST_F(PinningTest, AFailureInTheMiddleGivesBackWhatWasDone) {
    FakeNode node(small_node("xeon2023"));
    inside(node, [&] {
        Frequency some;
        const std::string before = all_settings(), file = policy_file(5, "scaling_max_freq");
        // Readable, but not to be written.
        ASSERT_EQ(0, ::mount(file.c_str(), file.c_str(), nullptr, MS_BIND, nullptr));
        ASSERT_EQ(
            0, ::mount(nullptr, file.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr));
        EXPECT_EQ(EASNODE_DENIED, some.set(2000000));
        EXPECT_EQ(file, some.problem.path);
        EXPECT_EQ(EROFS, some.problem.error);
        EXPECT_EQ(5, some.problem.cpu);
        EXPECT_EQ(before, all_settings());
        EXPECT_FALSE(writes(node).empty()) << "something was done";

        // Nor can policy 5 be given back; the others are.
        store(policy_file(5, "scaling_min_freq"), "900000");
        store(policy_file(6, "scaling_max_freq"), "900000");
        ASSERT_EQ(EASNODE_OK, restore(before));
        ::umount(file.c_str());
        store(file, "3000000");
        store(policy_file(6, "scaling_max_freq"), "900000");
        ASSERT_EQ(0, ::mount(file.c_str(), file.c_str(), nullptr, MS_BIND, nullptr));
        ASSERT_EQ(
            0, ::mount(nullptr, file.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr));
        EXPECT_EQ(EASNODE_NOT_GIVEN_BACK, some.restore(before));
        EXPECT_EQ(file, some.problem.path);
        EXPECT_EQ(3800000, Frequency("6").rows()[0].max_khz);
    });
}

TEST_F(PinningTest, AnotherProcessGivesBackAfterACrash) {
    FakeNode node(small_node("epyc2023-passive"));
    inside(node, [] {
        const std::string before = Frequency().save(2000000);
        const pid_t child = ::fork();
        if (child == 0) {
            Frequency all;
            all.set(2000000);
            // And in the middle of setting the next one.
            store(policy_file(0, "scaling_min_freq"), "1500000");
            ::_exit(0);
        }
        ASSERT_EQ(0, exit_status(child));
        easnode_problem problem{};
        problem.size = sizeof problem;
        EXPECT_EQ(EASNODE_MOVED, restore(before, &problem)) << "1500000 was not announced";
        EXPECT_EQ(0, problem.cpu);
        EXPECT_EQ(before, Frequency().save(2000000));
        EXPECT_EQ(EASNODE_OK, restore(before));
    });
}

TEST_F(PinningTest, ChangesByOtherProgramsAreNoticedAndTextsOfOtherNodesRefused) {
    FakeNode node(small_node("xeon2023"));
    inside(node, [&] {
        Frequency all;
        const std::string before = all.save();
        ASSERT_EQ(EASNODE_OK, all.set(2000000));
        ASSERT_EQ(EASNODE_OK, all.restore(before)) << all.problem.text;
        ASSERT_EQ(EASNODE_OK, all.set(2000000));
        store(policy_file(4, "scaling_max_freq"), "3000000");
        EXPECT_EQ(EASNODE_MOVED, all.restore(before));
        EXPECT_EQ(4, all.problem.cpu);
        EXPECT_EQ(before, all.save());
        ASSERT_EQ(EASNODE_OK, all.set(2000000));
        store(policy_file(2, "scaling_governor"), "performance");
        EXPECT_EQ(EASNODE_MOVED, all.restore(before));

        ASSERT_EQ(EASNODE_OK, all.set(2000000));
        writes(node);
        const auto refused = [&](const char* from, const char* to) {
            std::string text = before.substr(0, before.rfind("end "));
            text.replace(text.find(from), std::string(from).size(), to);
            return restore(text + node::end_line(text));
        };
        const std::string boot = node::boot_id();
        EXPECT_EQ(EASNODE_OTHER_NODE,
                  refused(boot.c_str(), "0d6d6f0e-6c1f-4d5e-9f86-1a2b3c4d5e6f"));
        EXPECT_EQ(EASNODE_OTHER_NODE, refused("driver=intel_pstate", "driver=intel_cpufreq"));
        EXPECT_EQ(EASNODE_BAD_TEXT, refused("governor=powersave", "governor=schedutil"));
        EXPECT_EQ(EASNODE_BAD_TEXT, restore(before.substr(1)));
        EXPECT_THAT(writes(node), IsEmpty()) << "nothing was touched";
        EXPECT_EQ(EASNODE_OK, all.restore(before));
    });
}

TEST_F(PinningTest, TheNominalFrequencyComesFromTheFirstSourceThatTells) {
    const auto without = [](const char* name, const char* file) {
        NodeShape shape = small_node(name);
        for (int i = 0; i < 8; ++i)
            put(shape, policy_file(i, file), "!ENOENT");
        return shape;
    };
    NodeShape turbo_range = without("xeon2023", "base_frequency"), firmware = turbo_range;
    put(firmware, cpu_folder + "intel_pstate/turbo_pct", "!ENOENT");
    NodeShape named = firmware;
    for (int cpu = 0; cpu < 8; ++cpu)
        put(firmware, cpu_folder + "cpu" + std::to_string(cpu) + "/acpi_cppc/nominal_freq", "2001");
    named.model_name = "Xeon of old @ 2.10GHz";
    NodeShape table = small_node("epyc2019"), snapped = table;
    for (int i = 0; i < 4; ++i)
        put(table, policy_file(i, "scaling_available_frequencies"), "2301000 2300000 2000000 ");
    put(snapped, cpu_folder + "cpu0/acpi_cppc/nominal_freq", "2301");
    const struct {
        NodeShape shape;
        int khz, source;
    } rows[] = {
        {turbo_range, 2000000, EASNODE_NOMINAL_TURBO}, {firmware, 2001000, EASNODE_NOMINAL_CPPC},
        {named, 2100000, EASNODE_NOMINAL_NAME},        {table, 2300000, EASNODE_NOMINAL_TABLE},
        {snapped, 2300000, EASNODE_NOMINAL_CPPC},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.source);
        FakeNode node(row.shape);
        inside(node, [&] {
            Frequency one("0");
            EXPECT_EQ(row.khz, one.info().nominal_khz);
            EXPECT_EQ(row.source, one.info().nominal_source);
            if (one.info().has_table != 0) {
                const easnode_step first = one.steps().front();
                EXPECT_EQ(first.khz == 2301000, first.turbo == 1) << "the first entry may be turbo";
            }
        });
    }
}

}  // namespace
}  // namespace eas::test
