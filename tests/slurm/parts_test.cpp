// The parts of the Slurm plugin that need no Slurm: options, arguments, records, child processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "adapters/slurm/ChildCall.h"
#include "adapters/slurm/JobOnNode.h"
#include "adapters/slurm/JobRecord.h"
#include "adapters/slurm/PluginArguments.h"
#include "adapters/slurm/StateFolder.h"
#include "tests/support/ScratchFolder.h"

namespace eas::slurm {
namespace {

namespace fs = std::filesystem;

constexpr int ample = 60;  // s, for what a busy machine must be given time to do

TEST(SlurmRequest, TheFirstNodeOfAListIsFound) {
    const std::pair<const char*, const char*> rows[] = {{"n1", "n1"},
                                                        {"n1,n2", "n1"},
                                                        {"n[1-3],m7", "n1"},
                                                        {"n[007-012]", "n007"},
                                                        {"r[2,4-5]c[1-9]", "r2c1"},
                                                        {"n[3,5]-ib,x", "n3-ib"},
                                                        {"", ""}};
    for (const auto& [list, first] : rows)
        EXPECT_EQ(first, first_node(list)) << list;
}

TEST(SlurmRequest, NamesAndPoliciesAreCheckedToTheLetter) {
    EXPECT_TRUE(is_tag_name("a") && is_tag_name("A_9.x-") && is_tag_name(std::string(255, 'x')));
    for (const std::string& name :
         {std::string(), std::string(256, 'x'), std::string("a b"), std::string("a\n"),
          std::string("a\"b"), std::string("100%"), std::string("a/b"), std::string("\xe4"),
          std::string("a\0b", 3)})
        EXPECT_FALSE(is_tag_name(name)) << name;
    EXPECT_TRUE(is_policy("none") && is_policy("minimize_time") && is_policy("minimize_energy"));
    EXPECT_FALSE(is_policy("") || is_policy("minimize") || is_policy("minimize_energy "));
}

TEST(SlurmArguments, WordsThatMakeNoSenseChangeNothingAndLeaveAComplaint) {
    std::string words[] = {"default_frequency=2300000",
                           "limit=0",
                           "limit=7s",
                           "state=relative",
                           "library=other",
                           "cluster=",
                           "nonsense",
                           "limit=99999999999"};
    std::vector<char*> given;
    for (std::string& word : words)
        given.push_back(word.data());
    const PluginArguments arguments = parse_arguments(static_cast<int>(given.size()), given.data());
    EXPECT_EQ(2300000, arguments.default_frequency);
    EXPECT_EQ(10, arguments.limit);
    EXPECT_EQ("/run/eas-slurm", arguments.state);
    EXPECT_EQ("other", arguments.library);
    EXPECT_EQ(6U, arguments.complaints.size());
}

TEST(SlurmRecord, WhatTheStepsDidIsAddedUpOrSaidToHaveAGap) {
    const std::string head = line::request({7, 1000, "solve", ""});
    const auto usage_of = [&](const std::string& steps) {
        return parse_record(head + steps).usage;
    };
    using namespace line;
    const JobUsage two = usage_of(step_begins(0, true) + step_begins(1, false) + step_ends(1) +
                                  usage(0, 10, 5, 64) + step_begins(2, true) + usage(2, 1, 2, 3));
    EXPECT_EQ("", two.gap);
    EXPECT_EQ(2, two.samples);
    EXPECT_EQ(11, two.cycles);
    EXPECT_EQ(7, two.instructions);
    EXPECT_EQ(67, two.memory_bytes);
    EXPECT_EQ("steps of the job overlapped", usage_of(step_begins(0, true) + step_begins(1, false) +
                                                      usage(0, 1, 1, 1) + step_ends(1))
                                                 .gap);
    EXPECT_EQ("a step of the job ended without its counters", usage_of(step_begins(0, true)).gap);
    EXPECT_EQ("no such thing",
              usage_of(step_begins(0, true) + no_counters(0, "no such thing")).gap);
    EXPECT_EQ(0, usage_of("usage 0 nonsense\n\nwhat is this\ncpu\nstart x\n").samples);
}

TEST(SlurmRecord, FoldersAndRecordsThatOthersCouldHavePlantedAreRefused) {
    const test::ScratchFolder scratch;
    const fs::path good = scratch.path("good"), open = scratch.path("open"),
                   link = scratch.path("link"), victim = scratch.path("victim");
    fs::create_directory(open);
    for (const int mode : {0755, 0770, 0707, 0710, 0701}) {
        fs::permissions(open, fs::perms(mode));  // whatever the umask
        EXPECT_THROW(StateFolder(open.string()), std::runtime_error) << std::oct << mode;
    }

    const StateFolder folder(good.string());
    fs::create_directory_symlink(good, link);
    EXPECT_THROW(StateFolder(link.string()), std::runtime_error);
    folder.create({5, 1000, "t", "minimize_time"});
    folder.append(5, line::setting({3, "userspace", 1200000}) + line::reading("start", {1, 2}));
    const std::optional<JobRecord> record = folder.read(5);
    ASSERT_TRUE(record && record->start && record->settings.size() == 1);
    EXPECT_EQ("minimize_time", record->request.policy);
    EXPECT_EQ("userspace", record->settings[0].governor);
    EXPECT_EQ(1200000, record->settings[0].speed);
    EXPECT_EQ(std::vector<uint32_t>{5}, folder.jobs());
    EXPECT_FALSE(folder.read(6));
    EXPECT_THROW(folder.append(6, "x\n"), std::runtime_error);

    std::ofstream(victim) << "untouched";
    fs::create_symlink(victim, good / "job-8");
    EXPECT_THROW((void)folder.read(8), std::runtime_error);
    EXPECT_THROW(folder.append(8, "x\n"), std::runtime_error);
    folder.create({8, 1000, "", ""});
    EXPECT_EQ(9U, fs::file_size(victim));
    ASSERT_EQ(0, ::mkfifo((good / "job-9").c_str(), 0600));
    EXPECT_THROW((void)folder.read(9), std::runtime_error) << "and does not wait for a writer";
    EXPECT_FALSE(fs::is_symlink(good / "job-8"));
}

/// Job 4's prolog beside job 3, which set the frequency; what `ask_slurm` does is done when Slurm
/// is asked about job 3, and the answer is that it runs.
Outcome prolog_of(const PluginArguments& arguments, const JobRequest& request,
                  const std::function<void()>& ask_slurm) {
    const StateFolder folder(arguments.state);
    folder.create({3, 1000, "t", "minimize_energy"});
    folder.append(3, line::setting({9999, "userspace", 1200000}));  // no machine has it
    const NodeRole role{true, [&](uint32_t) {
                            ask_slurm();
                            return false;
                        }};
    return call_in_child(ample, [&] { return start_job(arguments, request, role); });
}

TEST(SlurmProlog, NothingHindersItFromSettingTheNodeBackFirst) {
    const test::ScratchFolder scratch;
    PluginArguments arguments;
    arguments.state = scratch.path("state");
    const StateFolder folder(arguments.state);
    const std::string mark = "job 4 ran on the node at the same time";
    const std::string done =
        "set back the frequency of running job 3, but the former frequency setting is refused by "
        "CPU 9999";

    const Outcome silent = prolog_of(arguments, {4, 1000, "", ""}, [&] {
        const StateFolder its(arguments.state);  // it has none of our descriptors
        if (its.read(3)->disturbed == mark && its.read(4))
            throw std::runtime_error("was asked last");
    });
    EXPECT_EQ("was asked last", silent.text);

    const Outcome refused = prolog_of(arguments, {4, 1000, "t", ""}, [&] {
        fs::remove(arguments.state + "/job-4");
        fs::create_directory(arguments.state + "/job-4");
    });
    EXPECT_EQ(done + "; job 3 runs on this node too; job-4: not a file of root's", refused.text);
    fs::remove(arguments.state + "/job-4");

    arguments.limit = 1;
    const Descriptor lock = folder.lock(std::chrono::milliseconds(0));
    const Outcome locked = prolog_of(arguments, {4, 1000, "", ""}, [] {});
    EXPECT_EQ(0U, locked.text.find(done + "; the lock of the records: ")) << locked.text;
    EXPECT_FALSE(silent.good || refused.good || locked.good);

    // One that changed nothing is in the way of a job that would.
    arguments.state = scratch.path("other");
    StateFolder(arguments.state).create({3, 1000, "", ""});
    const NodeRole role{true, [](uint32_t) { return false; }};
    const Outcome beside = call_in_child(ample, [&] {
        return start_job(arguments, {4, 1000, "t", ""}, role);
    });
    EXPECT_EQ(0U, beside.text.find("job 3 runs on this node too")) << beside.text;
    arguments.state = scratch.path("state");
    EXPECT_EQ(mark, folder.read(3)->disturbed);
    EXPECT_TRUE(folder.read(4));
}

/// Gone, or waiting to be collected by whoever adopted it; a busy machine is given time.
bool ends(const std::string& process) {
    const auto has_ended = [&] {
        std::string number, name, state;
        std::ifstream stat("/proc/" + process + "/stat");
        return !(stat >> number >> name >> state) || state == "Z";
    };
    for (int i = 0; i < 3000 && !has_ended(); ++i)
        ::usleep(10000);
    return has_ended();
}

TEST(SlurmChild, WhateverHappensInItIsToldInTimeAndItEnds) {
    const auto outcome = [](const std::function<Outcome()>& work, int limit = ample) {
        const Outcome result = call_in_child(limit, work);
        return (result.good ? "good: " : "bad: ") + result.text;
    };
    EXPECT_EQ("good: done", outcome([] { return Outcome{true, "done"}; }));
    EXPECT_EQ("good: ", outcome([] { return Outcome{}; }));
    EXPECT_EQ("bad: why", outcome([]() -> Outcome { throw std::runtime_error("why"); }));
    EXPECT_EQ("bad: failed for an unknown reason", outcome([]() -> Outcome { throw 1; }));
    EXPECT_EQ("bad: the process that calls the library crashed",
              outcome([]() -> Outcome { ::_exit(3); }));
    EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG)) << "one was not collected";
    auto* const hanging = static_cast<pid_t*>(
        ::mmap(nullptr, sizeof(pid_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, static_cast<void*>(hanging));
    const auto hang = [hanging]() -> Outcome {
        *hanging = ::getpid();
        for (;;)
            ::pause();
    };
    EXPECT_EQ("bad: no answer within 1 s", outcome(hang, 1));
    EXPECT_TRUE(ends(std::to_string(*hanging)));
}

TEST(SlurmChild, ItHoldsNothingOfItsParentAndLeavesNoDump) {
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    const Outcome result = call_in_child(ample, [&] {
        const bool wrote = ::write(ends[1], "x", 1) == 1;  // the number is taken, the pipe is not
        return Outcome{wrote && ::prctl(PR_GET_DUMPABLE) == 0,
                       fs::read_symlink("/proc/self/fd/" + std::to_string(ends[1]))};
    });
    ::close(ends[1]);
    char byte = 0;
    EXPECT_EQ(0, ::read(ends[0], &byte, 1));
    ::close(ends[0]);
    EXPECT_TRUE(result.good);
    EXPECT_EQ("/dev/null", result.text);
}

TEST(SlurmChild, ACompanionIsNoChildAndEndsWithItsMaster) {
    std::string process;
    {
        const Companion companion([](int channel) {
            const std::string own = std::to_string(::getpid());
            char word = 0;
            while (::read(channel, &word, 1) == 1 && ::write(channel, own.data(), own.size()) > 0) {
            }
        });
        companion.send('q');
        process = companion.answer(ample);
        EXPECT_EQ("", companion.answer(0));
        EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG));
        EXPECT_EQ(0, ::kill(std::stoi(process), 0));
    }
    EXPECT_TRUE(ends(process));
}

}  // namespace
}  // namespace eas::slurm
