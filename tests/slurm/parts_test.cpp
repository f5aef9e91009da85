// The parts of a job's adapter that need no scheduler: requests, settings, records, child
// processes.
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
#include <tuple>

#include "adapters/job/ChildCall.h"
#include "adapters/job/JobRecord.h"
#include "adapters/job/NodeFigures.h"
#include "adapters/job/SiteSettings.h"
#include "adapters/job/StateFolder.h"
#include "tests/support/ScratchFolder.h"

namespace eas::job {
namespace {

namespace fs = std::filesystem;

constexpr int ample = 60;  // s, for what a busy machine must be given time to do

TEST(JobRequest, TheNodesOfAListAreFoundAndCounted) {
    const std::tuple<const char*, const char*, unsigned> rows[] = {{"n1", "n1", 1},
                                                                   {"n1,n2", "n1", 2},
                                                                   {"n[1-3],m7", "n1", 4},
                                                                   {"n[007-012]", "n007", 6},
                                                                   {"r[2,4-5]c[1-9]", "r2c1", 27},
                                                                   {"n[3,5]-ib,x", "n3-ib", 3},
                                                                   {"", "", 0}};
    for (const auto& [list, first, count] : rows) {
        EXPECT_EQ(first, first_node(list)) << list;
        EXPECT_EQ(count, number_of_nodes(list)) << list;
    }
}

TEST(JobRequest, NamesAndPoliciesAreCheckedToTheLetter) {
    EXPECT_TRUE(is_tag_name("a") && is_tag_name("A_9.x-") && is_tag_name(std::string(255, 'x')));
    for (const std::string& name :
         {std::string(), std::string(256, 'x'), std::string("a b"), std::string("a\n"),
          std::string("a\"b"), std::string("100%"), std::string("a/b"), std::string("\xe4"),
          std::string("a\0b", 3)})
        EXPECT_FALSE(is_tag_name(name)) << name;
    EXPECT_TRUE(is_policy("none") && is_policy("minimize_time") && is_policy("minimize_energy"));
    EXPECT_FALSE(is_policy("") || is_policy("minimize") || is_policy("minimize_energy "));
    EXPECT_EQ("My_job__v1.2_", tag_of_name("My job (v1.2)").substr(0, 13));
    EXPECT_EQ(255U, tag_of_name(std::string(300, 'x')).size());
    for (const char* shared : {"", "bash", "sh", "interactive", "wrap"})
        EXPECT_EQ("", tag_of_name(shared));
}

TEST(JobSettings, WordsThatMakeNoSenseChangeNothingAndLeaveAComplaint) {
    const char* const words[] = {"default_frequency=2300000",
                                 "limit=0",
                                 "limit=7s",
                                 "limit=-5",
                                 "limit=121",
                                 "spread=1000",
                                 "spread=1001",
                                 "state=relative",
                                 "library=other",
                                 "cluster=",
                                 "nonsense",
                                 "observe=maybe",
                                 "tag=name",
                                 "default_policy=none",
                                 "record=somewhere"};
    const SiteSettings settings = parse_settings(static_cast<int>(std::size(words)), words);
    EXPECT_EQ(2300000, settings.default_frequency);
    EXPECT_EQ("10 1000 8000", std::to_string(settings.limit) + ' ' +
                                  std::to_string(settings.spread) + ' ' +
                                  std::to_string(settings.patience().count()));
    EXPECT_EQ("/run/eas-slurm", settings.state);
    EXPECT_EQ("other", settings.library);
    ASSERT_EQ(12U, settings.complaints.size());
    EXPECT_EQ("plugstack.conf: \"limit=0\" is not understood and left out", settings.complaints[0]);
}

TEST(JobSettings, ATypeOfNodesHasFiguresOfItsOwn) {
    SiteSettings site;
    read_lines(
        "# remark\n default_frequency = 2300000\ncluster=c\nlimit=x\n[fat]\ncluster=f\n"
        "default_frequency=2000000\nlimit=5\n\n[gpu node]\nthresholds=/t\n",
        site);
    EXPECT_EQ(2U, site.complaints.size()) << "a limit of x, and one for a type alone";
    const SiteSettings fat = settings_of_node(site, "gpu node, fat"),
                       thin = settings_of_node(site, "fatter");
    EXPECT_EQ("fat f 2000000",  // the first type that the node is of
              fat.type + ' ' + fat.cluster + ' ' + std::to_string(fat.default_frequency));
    EXPECT_EQ(" c 2300000",
              thin.type + ' ' + thin.cluster + ' ' + std::to_string(thin.default_frequency));
    EXPECT_EQ("/t", settings_of_node(site, "gpu node").thresholds);
}

RunRecord run_of(double joules, const char* meter = "qpx,node") {
    RunRecord run;
    run.seconds = 10;
    run.joules = joules;
    run.cycles = run.instructions = run.bytes = 5;
    run.meter = meter;
    return run;
}

TEST(JobRecord, WhatARunWasStandsInOneLineWhateverItsWordsAre) {
    RunRecord run = run_of(0.1 + 0.2);
    run.reason = "50% of \"it\"; a=b\nc\xff";
    run.tag = "eas=1";
    run.default_joules = 1e300;
    run.frequency = 2000000;
    const std::string text = to_text(run);
    EXPECT_EQ(std::string::npos, text.find_first_of("\n;\""));
    EXPECT_NE(std::string::npos, text.find(" frequency=2000000 "));
    const auto same = find_record("noise eas=10 x; " + text + "; eas=1 tag=other");
    ASSERT_TRUE(same);
    EXPECT_EQ(text, to_text(*same));
    EXPECT_EQ(run.reason, same->reason);
    EXPECT_EQ(0.1 + 0.2, same->joules);
    EXPECT_FALSE(find_record("xeas=1 tag=t").has_value() || find_record("eas=12").has_value());
    const auto odd =
        find_record("eas=1 joules=-1 seconds=nan nodes=1e999 what=ever cycles=2x tag=%zz");
    EXPECT_TRUE(odd && !odd->joules && !odd->seconds && !odd->nodes && !odd->cycles);
    EXPECT_EQ("%zz", odd->tag);
    const std::string kept = with_record("before; eas=1 tag=old; behind", run);
    EXPECT_EQ("before; " + text + "; behind", kept);
    EXPECT_EQ("site; " + text, with_record("site", run));
}

TEST(JobRecord, NodesAreOneRunOnlyWhereTheyAreAlike) {
    JobRecord record;
    record.place = {"a", "a", 2, ""};
    const auto outcome = [&](const NodeReport& other) {
        const WholeRun whole = combine(record, {{"a", run_of(100)}, other});
        const std::string why = whole.trouble.empty() ? whole.unlike : whole.trouble;
        return why.empty() ? objection(whole.run, 20) : why;
    };
    const auto with = [](auto change) {
        RunRecord run = run_of(100);
        change(run);
        return NodeReport{"b", run};
    };
    const WholeRun whole = combine(record, {{"a", run_of(100)}, {"b", run_of(110)}});
    EXPECT_EQ("210.0 J in 10.00 s, mean 10.5 W", describe(whole.run));
    EXPECT_NEAR(10 / 105.0, *whole.run.spread, 1e-12);
    EXPECT_EQ("", outcome({"b", run_of(122)}));
    EXPECT_EQ("the nodes' joules differ by 21 %", outcome({"b", run_of(123.6)}));
    EXPECT_EQ("the meters differ: qpx,node on a, rapl-perf,packages on b",
              outcome({"b", run_of(100, "rapl-perf,packages")}));
    EXPECT_EQ("the job's nodes are of different types",
              outcome(with([](RunRecord& run) { run.type = "fat"; })));
    EXPECT_EQ("b: called off", outcome(with([](RunRecord& run) {
                  run.outcome = "failed";
                  run.reason = "called off";
              })));
    EXPECT_EQ("no joules", outcome(with([](RunRecord& run) {
                  run.joules.reset();
                  run.meter = "qpx,node";
                  run.reason = "no joules";
              })));
    EXPECT_EQ("no figures of 1 of 2 nodes", combine(record, {{"a", run_of(1)}}).trouble);
    for (const auto figure :
         {&RunRecord::joules, &RunRecord::cycles, &RunRecord::instructions, &RunRecord::bytes}) {
        RunRecord run = run_of(100);
        run.*figure = 0;
        EXPECT_EQ("a counter of the node stands still", objection(run, 20));
        (run.*figure).reset();
        EXPECT_EQ("a figure is missing", objection(run, 20));
        run.seconds = 0.99;
        EXPECT_EQ("the job ran for less than a second", objection(run, 20));
    }
    RunRecord unmetered = run_of(0);
    unmetered.joules.reset();
    EXPECT_EQ("10.00 s, no energy meter", describe(unmetered));
}

TEST(JobRecord, FoldersAndRecordsThatOthersCouldHavePlantedAreRefused) {
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
    folder.create({5, 1000, "t", "minimize_time", false}, {"n2", "n1", 3, "fat"});
    folder.append(5, line::settings("a b\n\nc\n") + line::plan(run_of(7)) + line::disturbed("x y"));
    const std::optional<JobRecord> record = folder.read(5);
    ASSERT_TRUE(record && record->plan);
    EXPECT_EQ("minimize_time", record->request.policy);
    EXPECT_EQ("n2 n1 3 fat", record->place.node + ' ' + record->place.first + ' ' +
                                 std::to_string(record->place.nodes) + ' ' + record->place.type);
    EXPECT_EQ("a b\n\nc\n", record->settings);
    EXPECT_EQ("x y", record->disturbed);
    EXPECT_EQ(std::vector<uint32_t>{5}, folder.jobs());
    EXPECT_FALSE(folder.read(6));
    EXPECT_THROW(folder.append(6, "x\n"), std::runtime_error);

    std::ofstream(victim) << "untouched";
    fs::create_symlink(victim, good / "job-8");
    EXPECT_THROW((void)folder.read(8), std::runtime_error);
    EXPECT_THROW(folder.append(8, "x\n"), std::runtime_error);
    folder.create({8, 1000, "", "", false}, {});
    EXPECT_EQ(9U, fs::file_size(victim));
    ASSERT_EQ(0, ::mkfifo((good / "job-9").c_str(), 0600));
    EXPECT_THROW((void)folder.read(9), std::runtime_error) << "and does not wait for a writer";
    EXPECT_FALSE(fs::is_symlink(good / "job-8"));
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

TEST(JobChild, WhateverHappensInItIsToldInTimeAndItEnds) {
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

TEST(JobChild, ItHoldsNothingOfItsParentAndLeavesNoDump) {
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

TEST(JobChild, ACompanionIsNoChildOfItsMasterNorInItsSession) {
    const Companion companion([](int channel) {
        const std::string own = std::to_string(::getpid());
        ::write(channel, own.data(), own.size()) > 0 && ::usleep(100000);
    });
    const std::string process = companion.answer(ample);
    EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG));
    EXPECT_NE(::getsid(0), ::getsid(std::stoi(process)));
    EXPECT_TRUE(ends(process));
}

}  // namespace
}  // namespace eas::job
