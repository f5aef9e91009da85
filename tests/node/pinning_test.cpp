// libeasnode's frequencies on nodes of every kind of cpufreq driver: what is offered, what is
// written in which order, and that what stood there before comes back, whoever gives it back.
#include <sys/mount.h>

#include <algorithm>
#include <sstream>

#include "node/frequency/SavedSettings.h"
#include "node/node.h"
#include "tests/node/Frequency.h"
#include "tests/node/NodeTest.h"
#include "tests/node/SmallNode.h"

namespace eas::test {
namespace {

using PinningTest = NodeTest;

TEST_F(PinningTest, AFailureInTheMiddleGivesBackWhatWasDone) {
    FakeNode node(small_node("xeon2023"));
    inside(node, [&] {
        Frequency some;
        const std::string before = Frequency().save(), file = policy_file(5, "scaling_max_freq");
        const auto forbid_writing = [&file] {
            const unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY;
            ASSERT_EQ(0, ::mount(file.c_str(), file.c_str(), nullptr, MS_BIND, nullptr));
            ASSERT_EQ(0, ::mount(nullptr, file.c_str(), nullptr, flags, nullptr));
        };
        const std::string alone = Frequency("5").save();
        forbid_writing();
        EXPECT_EQ(EASNODE_DENIED, some.set(2000000));
        EXPECT_STREQ("the driver intel_pstate refused \"2000000\"", some.problem.text);
        EXPECT_EQ(file, some.problem.path);
        EXPECT_EQ(EROFS, some.problem.error);
        EXPECT_EQ(5, some.problem.cpu);
        EXPECT_EQ(before, Frequency().save());
        EXPECT_FALSE(writes(node).empty()) << "something was done";

        // Nor can policy 5 be given back; the others are.
        store(policy_file(5, "scaling_min_freq"), "900000");
        store(policy_file(6, "scaling_max_freq"), "900000");
        ASSERT_EQ(EASNODE_OK, Frequency().restore(before));
        ::umount(file.c_str());
        store(file, "3000000");
        store(policy_file(6, "scaling_max_freq"), "900000");
        forbid_writing();
        EXPECT_EQ(EASNODE_DENIED, some.restore(alone)) << "none of it";
        EXPECT_EQ(EASNODE_NOT_GIVEN_BACK, some.restore(before));
        EXPECT_EQ(file, some.problem.path);
        EXPECT_EQ(3800000, Frequency("6").rows()[0].max_khz);
    });
}

TEST_F(PinningTest, AHandleKnowsWhatItFixed) {
    FakeNode node(small_node("xeon2023"));
    inside(node, [] {
        Frequency all;
        const std::string before = all.save();  // without a word of what is to come
        ASSERT_EQ(EASNODE_OK, all.set(2000000));
        ASSERT_EQ(EASNODE_OK, all.restore(before)) << all.problem.text;
        ASSERT_EQ(EASNODE_OK, all.set(2000000));
        store(policy_file(4, "scaling_max_freq"), "3000000");
        EXPECT_EQ(EASNODE_MOVED, all.restore(before));
        EXPECT_EQ(4, all.problem.cpu);
    });
}

TEST_F(PinningTest, FillsAsMuchAsThereIsRoomFor) {
    FakeNode node(small_node("xeon2023"));
    inside(node, [] {
        Frequency all;
        easnode_frequency* const handle = all.handle.get();
        easnode_step steps[] = {{1, 2}, {1, 2}, {1, 2}};
        std::string text = all.save();
        const size_t room = text.size();
        size_t count = 0;
        EXPECT_EQ(EASNODE_TOO_SMALL, easnode_frequency_steps(handle, steps, 2, &count));
        EXPECT_TRUE(count == 13 && steps[1].khz == 1900000 && steps[2].khz == 1);
        EXPECT_EQ(EASNODE_OK,
                  easnode_frequency_save(handle, 0, text.data(), room + 1, &count, nullptr));
        EXPECT_EQ(EASNODE_TOO_SMALL,
                  easnode_frequency_save(handle, 0, text.data(), room, nullptr, nullptr));
        EXPECT_TRUE(count == room && text[0] == '\0');
        easnode_problem of_no_size{};
        EXPECT_EQ(EASNODE_BAD_ARGUMENT, easnode_frequency_set(handle, 2000000, &of_no_size));
    });
}

std::string said(const Frequency& frequency, FakeNode& node) {
    const easnode_problem& problem = frequency.problem;
    std::ostringstream text;
    if (problem.code != EASNODE_OK)
        text << problem.code << " cpu" << problem.cpu << ' ' << problem.error << ' ' << problem.path
             << ": " << problem.text;
    for (const std::string& line : writes(node))
        text << (text.tellp() > 0 ? ", " : "") << line;
    return text.tellp() > 0 ? text.str() : "no write";
}

std::string described(Frequency& frequency) {
    const easnode_frequency_info info = frequency.info();
    std::ostringstream text;
    text << info.driver << ' ' << info.governor << ", method " << info.method << ", turbo "
         << info.turbo << ", nominal " << info.nominal_khz << " by " << info.nominal_source << ", "
         << info.lowest_khz << " to " << info.highest_khz << ", bios " << info.bios_limit_khz
         << ", table " << info.has_table << ", policies " << info.policies << ", cpus " << info.cpus
         << ", steps";
    for (const easnode_step& step : frequency.steps())
        text << ' ' << step.khz << (step.turbo != 0 ? "t" : "");
    return text.str();
}

TEST_F(PinningTest, SaysAndWritesWhatItsTranscriptShows) {
    std::string saved;
    replay(EAS_FREQUENCIES, [&saved](FakeNode& node, const std::string& line) {
        std::istringstream words(line);
        std::string verb, cpus, from, to;
        int khz = 0;
        words >> verb >> cpus;
        if (verb == "end")
            return std::string();
        Frequency frequency(cpus == "all" ? nullptr : cpus.c_str());
        if (frequency.handle == nullptr)
            return said(frequency, node);
        if (verb == "describe")
            return described(frequency);
        if (verb == "rows") {
            std::ostringstream text;
            for (const easnode_cpu_frequency& row : frequency.rows())
                text << row.cpu << ' ' << row.policy << ' ' << row.current_khz << ' ' << row.min_khz
                     << ' ' << row.max_khz << ' ' << row.setspeed_khz << ' ' << row.governor << ';';
            return text.str();
        }
        if (verb == "save") {
            words >> khz;
            saved = frequency.save(khz);
            std::string text = saved.substr(saved.find('\n', saved.find("boot ")) + 1);
            text.resize(text.rfind("\nend "));
            std::replace(text.begin(), text.end(), '\n', ';');
            return text;
        }
        if (verb == "set" || verb == "deaf") {  // the driver does not follow
            node.state().deaf = verb == "deaf";
            words >> khz;
            frequency.set(khz);
        } else if (words >> from >> to) {  // restore, with a word in place of another
            std::string text = saved.substr(0, saved.rfind("end "));
            from = from == "BOOT" ? node::boot_id() : from;
            text.replace(text.find(from), from.size(), to);
            frequency.restore(text + node::end_line(text));
        } else {
            frequency.restore(saved);
        }
        return said(frequency, node);
    });
}

}  // namespace
}  // namespace eas::test
