// The parts of a job's adapter that need no scheduler: requests, settings, records, child
// processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
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
    for (int c = 0; c < 256; ++c)
        EXPECT_EQ((c < 128 && std::isalnum(c) != 0) || c == '_' || c == '.' || c == '-',
                  is_tag_name("a" + std::string(1, static_cast<char>(c))))
            << c;
    EXPECT_TRUE(is_tag_name("a") && is_tag_name(std::string(255, 'x')));
    EXPECT_FALSE(is_tag_name("") || is_tag_name(std::string(256, 'x')));
    EXPECT_TRUE(is_policy("none") && is_policy("minimize_time") && is_policy("minimize_energy"));
    EXPECT_FALSE(is_policy("") || is_policy("minimize") || is_policy("minimize_energy "));
    EXPECT_EQ("My_job__v1.2_", tag_of_name("My job (v1.2)").substr(0, 13));
    EXPECT_EQ(255U, tag_of_name(std::string(300, 'x')).size());
    for (const char* shared : {"", "bash", "sh", "interactive", "wrap"})
        EXPECT_EQ("", tag_of_name(shared));
}

std::string all_of(const SiteSettings& s) {
    std::string text;
    for (const std::string& one :
         {s.library, s.node_library, s.cluster, s.thresholds, s.state, s.odbcini, s.odbcsysini,
          s.default_policy, s.tag, s.record, s.record_file, s.observe, s.energy_sources,
          std::to_string(s.default_frequency), std::to_string(s.limit), std::to_string(s.spread)})
        text += one + ' ';
    return text;
}

TEST(JobSettings, EachWordSetsItsOwnValueAndOneThatMakesNoSenseSetsNone) {
    const std::string defaults =
        "libeas.so.1 libeasnode.so.1  /etc/eas/thresholds.conf /run/eas-slurm /etc/odbc.ini /etc  "
        "option none /var/log/eas/runs no  0 10 20 ";
    EXPECT_EQ(defaults, all_of({}));
    EXPECT_EQ(8000, SiteSettings{}.patience().count());
    const auto parsed = [](const std::string& text, std::vector<const char*>& words) {
        static std::vector<std::string> kept;
        std::istringstream all(text);
        kept.assign(std::istream_iterator<std::string>(all), {});
        for (const std::string& word : kept)
            words.push_back(word.c_str());
        return parse_settings(static_cast<int>(words.size()), words.data());
    };
    std::vector<const char*> good, bad;
    EXPECT_EQ("a b c /d /e /f /g minimize_time jobname accounting /h yes i=j 1 120 1000 ",
              all_of(parsed("library=a node_library=b cluster=c thresholds=/d state=/e odbcini=/f "
                            "odbcsysini=/g record_file=/h energy_sources=i=j tag=jobname "
                            "record=accounting default_policy=minimize_time observe=yes "
                            "default_frequency=1 limit=120 spread=1000",
                            good)));
    const SiteSettings unchanged = parsed(
        "limit=121 limit=0 limit=7s limit=-5 default_frequency=1000000000 spread=0 "
        "spread=1001 state=relative thresholds=t odbcini=o odbcsysini=o cluster= "
        "record_file=r config=relative observe=maybe tag=name default_policy=none nonsense "
        "record=somewhere Limit=5",
        bad);
    EXPECT_EQ(defaults, all_of(unchanged));
    std::vector<std::string> complaints;
    for (const std::string word : bad)
        complaints.push_back("plugstack.conf: \"" + word + "\" is not understood and left out");
    EXPECT_EQ(complaints, unchanged.complaints);
}

TEST(JobSettings, ATypeOfNodesHasFiguresOfItsOwn) {
    SiteSettings site;
    read_lines(
        "# remark\r\n\tdefault_frequency =\t2300000 \r\ncluster=c\r\nlimit=x\n[]\n[fat]\r\n"
        "cluster=f\ndefault_frequency=2000000\nlimit=5\nthresholds=t\ncluster=\n\n"
        "[gpu node]\nthresholds=/t",
        site);
    std::string complaints;  // also about what is none for a type alone
    for (const std::string& one : site.complaints)
        complaints += one.substr(0, one.find(" is not")) + '\n';
    const std::string file = "configuration file: ";
    EXPECT_EQ(file + "\"limit=x\"\n" + file + "\"[]\"\n" + file + "\"limit=5\"\n" + file +
                  "\"thresholds=t\"\n" + file + "\"cluster=\"\n",
              complaints);
    const SiteSettings fat = settings_of_node(site, "gpu node, fat"),
                       thin = settings_of_node(site, "fatter");
    EXPECT_EQ("fat f 2000000",  // the first type that the node is of
              fat.type + ' ' + fat.cluster + ' ' + std::to_string(fat.default_frequency));
    EXPECT_EQ(" c 2300000",
              thin.type + ' ' + thin.cluster + ' ' + std::to_string(thin.default_frequency));
    const SiteSettings gpu = settings_of_node(site, "x,gpu node");
    EXPECT_EQ("gpu node /t c", gpu.type + ' ' + gpu.thresholds + ' ' + gpu.cluster);
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
    const auto odd = find_record(
        "x\neas=1 joules=-1 seconds=nan nodes=1e999 what=ever cycles=2x spread=0 "
        "tag=%zz%4 user=%41%c3%42%\npolicy=behind");
    ASSERT_TRUE(odd && !odd->joules && !odd->seconds && !odd->nodes && !odd->cycles);
    EXPECT_EQ("eas=1 user=A%C3B%25 tag=%25zz%254 spread=0", to_text(*odd));
    EXPECT_EQ("09AZaz_.:+,/@-%20%25%3D%3B%22%7F", to_word("09AZaz_.:+,/@- %=;\"\x7f"));
    EXPECT_EQ("x\neas=1 tag=t\ny", with_record("x\neas=1\ny", *find_record("eas=1 tag=t")));
    EXPECT_EQ(text, with_record("", run));
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
    EXPECT_EQ("", outcome({"b", run_of(100)}));
    record.place.nodes = 3;
    const NodeReport more{"b", run_of(110)}, odd{"c", run_of(90, "fake,node")};
    EXPECT_EQ("the meters differ: qpx,node on b, fake,node on c",
              combine(record, {more, more, odd}).unlike);
    EXPECT_EQ("no figures of 2 of 3 nodes", combine(record, {more}).trouble);
    const WholeRun whole = combine(record, {{"a", run_of(100)}, {"c", run_of(90)}, more});
    EXPECT_EQ("300.0 J in 10.00 s, mean 10.0 W", describe(whole.run));
    EXPECT_NEAR(0.2, *whole.run.spread, 1e-12);
    EXPECT_EQ("the nodes' joules differ by 20 %", objection(whole.run, 19));
    RunRecord least = run_of(100);
    least.seconds = 1;
    least.spread = 0.5;
    EXPECT_EQ("", objection(least, 50));
    least.seconds.reset();
    EXPECT_EQ("the job ran for less than a second", objection(least, 50));
    EXPECT_EQ("", describe(least));
    EXPECT_EQ("failed the node's meter was not read",
              report_of(record).figures.outcome + ' ' + report_of(record).figures.reason);
    record.place.nodes = 2;
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
    folder.create({5, 1000, "old", "", true}, {});
    folder.create({5, 4000000000, "t", "minimize_time", false}, {"n2", "n1", 3, "fat"});
    EXPECT_EQ(fs::perms(0600), fs::status(good / "job-5").permissions());
    folder.append(5, line::settings("a b\n\nc\n") + line::plan(run_of(7)) + line::disturbed("x y"));
    const std::optional<JobRecord> record = folder.read(5);
    ASSERT_TRUE(record && record->plan);
    EXPECT_EQ("4000000000 t minimize_time", std::to_string(record->request.user) + ' ' +
                                                record->request.tag + ' ' + record->request.policy);
    EXPECT_FALSE(record->request.observed);
    for (const char* none : {"job-", "job-5x", "job--5", "job-4294967296", "5", "keeper-5", "lock"})
        std::ofstream(good / none) << '\n';
    EXPECT_EQ("n2 n1 3 fat", record->place.node + ' ' + record->place.first + ' ' +
                                 std::to_string(record->place.nodes) + ' ' + record->place.type);
    EXPECT_EQ("a b\n\nc\n", record->settings);
    EXPECT_EQ("x y", record->disturbed);
    EXPECT_EQ(std::vector<uint32_t>{5}, folder.jobs());
    folder.remove(5);
    folder.remove(5);
    EXPECT_FALSE(folder.read(5) || fs::exists(good / "keeper-5"));
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
    std::ofstream(good / "job-10").close();
    fs::resize_file(good / "job-10", (16U << 20) + 1);
    EXPECT_THROW((void)folder.read(10), std::runtime_error);
    if (::geteuid() != 0)
        return;
    for (const fs::path& others : {good / "job-8", good})
        ASSERT_EQ(0, ::chown(others.c_str(), 1, 1));
    EXPECT_THROW((void)folder.read(8), std::runtime_error);
    EXPECT_THROW(StateFolder(good.string()), std::runtime_error);
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
    const std::string pieces(5000, 'x');
    EXPECT_EQ("bad: " + pieces, outcome([&] { return Outcome{false, pieces}; }));
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
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR1);
    ASSERT_EQ(0, ::pthread_sigmask(SIG_BLOCK, &mask, nullptr));
    ::signal(SIGTERM, SIG_IGN);
    const Outcome result = call_in_child(ample, [&] {
        const bool wrote = ::write(ends[1], "x", 1) == 1;  // the number is taken, the pipe is not
        std::string seen, line;
        for (const int fd : {0, 1, 2, ends[1]})
            seen += fs::read_symlink("/proc/self/fd/" + std::to_string(fd)).string() + ' ';
        for (std::ifstream status("/proc/self/status"); std::getline(status, line);)
            if (line.rfind("SigBlk", 0) == 0 || line.rfind("SigIgn", 0) == 0)
                seen += line + ' ';
        rlimit core{};
        ::getrlimit(RLIMIT_CORE, &core);
        seen += std::to_string(core.rlim_cur) + std::to_string(core.rlim_max);
        return Outcome{wrote && ::prctl(PR_GET_DUMPABLE) == 0, seen};
    });
    ::signal(SIGTERM, SIG_DFL);
    ::pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
    ::close(ends[1]);
    char byte = 0;
    EXPECT_EQ(0, ::read(ends[0], &byte, 1));
    ::close(ends[0]);
    EXPECT_TRUE(result.good);
    EXPECT_EQ(
        "/dev/null /dev/null /dev/null /dev/null SigBlk:\t0000000000000000 "
        "SigIgn:\t0000000000001000 00",  // of a pipe nobody reads
        result.text);
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
    const Companion silent([](int) { ::usleep(2000000); });
    EXPECT_EQ("", silent.answer(0));
}

}  // namespace
}  // namespace eas::job
