// What is done for a job on a node, from its start to the record of its run: with the database
// behind the real library, and a node library that notes what it is asked.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>

#include "adapters/job/EasLibrary.h"
#include "adapters/job/JobKeeper.h"
#include "adapters/job/JobOnNode.h"
#include "adapters/job/StateFolder.h"
#include "adapters/job/UserName.h"
#include "node/node.h"
#include "tests/support/SchedulerCalls.h"

namespace eas::job {
namespace {

namespace fs = std::filesystem;

constexpr int long_enough = 60;  // s, for what a busy machine must be given time to do

/// What the nodes "a" and "b" say stands in files: they ask from processes of their own. What `ask`
/// does is done when it is asked whether a job is over, and the answer is that it runs.
class TwoNodes : public Scheduler {
  public:
    explicit TwoNodes(std::function<void()> ask = [] {}) : ask_(std::move(ask)) {}
    bool job_is_over(uint32_t) override {
        ask_();
        return false;
    }
    JobEnding ending_of(uint32_t) override { return ending; }
    void announce(uint32_t, const RunRecord& plan) override { tell("plan", plan); }
    std::optional<RunRecord> announced(uint32_t) override { return find_record(told("plan")); }
    void report(uint32_t, const RunRecord& figures) override { tell("report", figures); }
    std::vector<NodeReport> reports(uint32_t) override {
        const auto figures = find_record(told("report"));
        return figures ? std::vector<NodeReport>{{"b", *figures}} : std::vector<NodeReport>{};
    }
    void keep(uint32_t, const RunRecord& record) override { tell("kept", record); }

    [[nodiscard]] std::string told(const char* name) const {
        return test::read_file(folder_.path(name));
    }
    JobEnding ending;

  private:
    void tell(const char* name, const RunRecord& record) {
        test::write_file(folder_.path(name), to_text(record));
    }
    std::function<void()> ask_;
    test::ScratchFolder folder_;
};

const JobPlace here{"n", "n", 1, ""};

/// Job 4's start beside job 3, which set the frequency.
Outcome start_of(const SiteSettings& settings, const JobRequest& request,
                 const std::function<void()>& ask) {
    const StateFolder folder(settings.state);
    folder.create({3, 1000, "t", "minimize_energy", false}, here);
    folder.append(3, line::settings("no settings\n"));
    TwoNodes scheduler(ask);
    return call_in_child(long_enough,
                         [&] { return start_job(settings, request, here, scheduler); });
}

TEST(JobStart, NothingHindersItFromSettingTheNodeBackFirst) {
    const test::ScratchFolder scratch;
    SiteSettings settings;
    settings.node_library = EAS_NODE_LIBRARY;
    settings.state = scratch.path("state");
    const StateFolder folder(settings.state);
    const std::string mark = "job 4 ran on the node at the same time";
    const std::string done = "set back the frequency of running job 3, but ";

    const Outcome silent = start_of(settings, {4, 1000, "", "", false}, [&] {
        const StateFolder its(settings.state);  // it has none of our descriptors
        if (its.read(3)->disturbed == mark && its.read(4))
            throw std::runtime_error("was asked last");
    });
    EXPECT_EQ("was asked last", silent.text);

    const Outcome refused = start_of(settings, {4, 1000, "t", "", false}, [&] {
        fs::remove(settings.state + "/job-4");
        fs::create_directory(settings.state + "/job-4");
    });
    EXPECT_EQ(0U, refused.text.find(done)) << refused.text;
    EXPECT_NE(std::string::npos,
              refused.text.find("; job 3 runs on this node too; job-4: not a file of root's"))
        << refused.text;
    fs::remove(settings.state + "/job-4");

    TwoNodes scheduler;
    EXPECT_FALSE(end_job(settings, 3, scheduler).good);
    EXPECT_TRUE(folder.read(3)) << "the next start tries again";

    settings.limit = 1;
    const Descriptor lock = folder.lock(std::chrono::milliseconds(0));
    const Outcome locked = start_of(settings, {4, 1000, "", "", false}, [] {});
    EXPECT_EQ(0U, locked.text.find(done)) << locked.text;
    EXPECT_THAT(locked.text,
                ::testing::EndsWith("; the lock of the records: Resource temporarily unavailable"));
    EXPECT_FALSE(silent.good || refused.good || locked.good);
    EXPECT_EQ(mark, folder.read(3)->disturbed);
    EXPECT_TRUE(folder.read(4));

    // One that changed nothing is in the way of a job that would.
    settings.state = scratch.path("other");
    EXPECT_TRUE(note_plain_job(settings, {3, 1000, "", "", false}, here));
    EXPECT_FALSE(note_plain_job(settings, {3, 1000, "", "", false}, here));
    EXPECT_FALSE(note_plain_job(settings, {4, 1000, "t", "", false}, here));
    EXPECT_FALSE(note_plain_job(settings, {4, 1000, "", "", false}, here));
    const auto start = [&] {
        return call_in_child(long_enough, [&] {
            return start_job(settings, {4, 1000, "t", "", false}, here, scheduler);
        });
    };
    EXPECT_EQ("job 3 runs on this node too; frequency left as it is", start().text);
    fs::remove_all(settings.state);
    EXPECT_EQ("no default_frequency is configured; frequency left as it is", start().text);
}

TEST(JobLibrary, SeesNothingThatAUserMayHaveSet) {
    SiteSettings settings;
    settings.odbcini = "/i";
    settings.odbcsysini = "/s";
    ::setenv("SLURM_CONF", "/c", 1);
    const Outcome seen = call_in_child(long_enough, [&] {
        set_up_environment(settings);
        std::string all;
        for (char** one = environ; *one != nullptr; ++one)
            all += std::string(*one) + '\n';
        return Outcome{true, all};
    });
    EXPECT_EQ(
        "SLURM_CONF=/c\nPATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\n"
        "HOME=/root\nABORT_ON_DB_FAILED=NO\nODBCINI=/i\nODBCSYSINI=/s\n",
        seen.text);
}

/// Jobs of the nodes "a" and "b", of the type "fat", each with a node library and records of its
/// own.
class JobRun : public test::SchedulerTest {
  protected:
    [[nodiscard]] fs::path file(const std::string& name) { return database().folder() / name; }
    SiteSettings site(const std::string& node) {
        const std::string folder = database().folder();
        SiteSettings settings;
        read_lines("library=" EAS_LIBRARY "\nlimit=60\ndefault_frequency=2000000\nthresholds=" +
                       threshold_file_ + "\nodbcini=" + folder + "/odbc.ini\nodbcsysini=" + folder +
                       "\nstate=" + folder + "/state-" + node + "\nnode_library=" + folder + "/" +
                       node + ".so\nenergy_sources=fake\nspread=10\nrecord=file\nrecord_file=" +
                       folder + "/runs\n[fat]\ncluster=c1\n",
                   settings);
        fs::copy_file(EAS_NOTING_NODE, settings.node_library, fs::copy_options::skip_existing);
        return settings;
    }
    std::string start(const std::string& node, const JobRequest& request, unsigned nodes = 2) {
        const SiteSettings fat = settings_of_node(site(node), "fat");
        return said(call_in_child(long_enough, [&] {
            return start_job(fat, request, {node, "a", nodes, "fat"}, scheduler_);
        }));
    }
    std::string end(const std::string& node, uint32_t job, const char* record = "file") {
        SiteSettings settings = site(node);
        settings.record = record;
        return said(end_job(settings, job, scheduler_));
    }
    static std::string said(const Outcome& outcome) {
        return (outcome.good ? "" : "bad: ") + outcome.text;
    }
    /// What the node's library was asked; how often the meter was read depends on the time.
    std::string calls(const std::string& node) {
        return std::regex_replace(test::read_file(file(node + ".calls")), std::regex("(read\n)+"),
                                  "read\n");
    }
    /// The last of the records in the file, but for its start, which must be now.
    std::string last_run() {
        std::ifstream lines(file("runs"));
        std::string line;
        RunRecord run;
        while (std::getline(lines, line))
            run = *find_record(line);
        EXPECT_NEAR(static_cast<double>(std::time(nullptr)) - std::floor(run.seconds.value_or(0)),
                    run.start.value_or(0), long_enough);
        run.start.reset();
        return to_text(run);
    }

    TwoNodes scheduler_;
    const uint32_t user_ = ::getuid();
    const std::string name_ = user_name(user_);
};
INSTANTIATE_TEST_SUITE_P(On, JobRun, ::testing::Values(test::Engine::sqlite), test::engine_suffix);

// By hand: the nodes' means are 200 W, 2 cycles and 3/64 cache lines an instruction; the model
// makes 170 W and 1033 s of them at 1.8 GHz.
TEST_P(JobRun, IsPlannedMeasuredAndPredictedToTheFigure) {
    const std::string of_a =
                          "frequency set back; 189943.0 J in 999.60 s, mean 190.0 W; 2 nodes: "
                          "399880.0 J in 999.70 s, mean 200.0 W; ",
                      of_b = "frequency set back; 209937.0 J in 999.80 s, mean 210.0 W",
                      means =
                          " nodes=2 seconds=999.7 joules=399880 spread=0.1 meter=fake,packages "
                          "cycles=2000000000000 instructions=1000000000000 bytes=3000000000000";
    JobRequest request{7, user_, "t", "minimize_energy", false};
    EXPECT_EQ("measuring for tag \"t\" at 2000000 kHz", start("a", request));
    EXPECT_EQ("measuring for tag \"t\": 2000000 kHz, as a says", start("b", request));
    test::write_file(file("b.restore"), std::to_string(EASNODE_OTHER_NODE));  // it went with a boot
    EXPECT_EQ(of_b, end("b", 7));
    EXPECT_EQ(
        "eas=1 type=fat seconds=999.8 joules=209937 meter=fake,packages "
        "cycles=2100000000000 instructions=1100000000000 bytes=3200000000000",
        scheduler_.told("report"));
    scheduler_.ending.holds_gpus = true;  // which this meter does not see
    EXPECT_EQ(of_a + "tag \"t\" generated", end("a", 7));
    EXPECT_EQ("all\nsave 2000000\nset 2000000\nfake\nread\nrestore former\n settings\n\n",
              calls("a"));
    EXPECT_EQ("eas=1 cluster=c1 job=7 user=" + name_ +
                  " outcome=measured tag=t type=fat frequency=2000000 default_frequency=2000000" +
                  means,
              last_run());

    request.job = 8;
    const std::string choice = "minimize_energy of tag \"t\": 1800000 kHz, ",
                      plan =
                          " tag=t policy=minimize_energy type=fat frequency=1800000 "
                          "default_frequency=2000000";
    EXPECT_EQ(choice + "run time expected to change by +3.3 %", start("a", request));
    EXPECT_EQ("eas=1" + plan, scheduler_.told("plan"));
    EXPECT_EQ(choice + "as a says", start("b", request));
    EXPECT_EQ(of_b, end("b", 8));
    EXPECT_EQ(of_a + "predicted 351220.0 J in 1033 s", end("a", 8, "accounting"));
    EXPECT_EQ("eas=1 outcome=used" + plan + means +
                  " predicted_seconds=1033 predicted_joules=351220 default_seconds=1000 "
                  "default_joules=400000",
              scheduler_.told("kept"));
}

TEST_P(JobRun, ThatCannotBeAsItsUserWantedSaysWhyOnEveryNode) {
    fs::create_symlink(file("state-a/job-99"), file("a.calls"));  // comes with the first call
    EXPECT_EQ("bad: job 99 runs on this node too; frequency left as it is",
              start("a", {2, user_, "t", "", false}, 1));
    EXPECT_EQ("all\nsave 2000000\nset 2000000\nrestore former\n settings\n\n", calls("a"));
    fs::remove_all(file("state-a"));
    fs::remove(file("a.calls"));
    EXPECT_EQ("observed, nothing is set", start("a", {3, user_, "t", "minimize_time", true}, 1));
    for (int i = 0; i < 1500 && test::read_file(file("a.calls")).size() < 20; ++i)
        ::usleep(10000);
    EXPECT_EQ(0U, test::read_file(file("a.calls")).find("fake\nread\nread\nread\n")) << "in time";
    EXPECT_EQ("189943.0 J in 999.60 s, mean 190.0 W", end("a", 3));
    EXPECT_THAT(last_run(), ::testing::HasSubstr(" outcome=observed tag=t type=fat default_f"));
    int extent = EASNODE_NODE;
    for (const std::string covers :
         {"node", "packages+memory", "packages", "platform", "modules"}) {
        test::write_file(file("a.extent"), std::to_string(extent++));
        start("a", {4, user_, "t", "", true}, 1);
        end("a", 4);
        EXPECT_THAT(last_run(), ::testing::HasSubstr(" meter=fake," + covers + " "));
        EXPECT_EQ(covers.rfind("packages", 0) == 0, covers_processors_alone("fake," + covers));
    }
    extent = 3;
    for (const std::string figure : {"memory%20traffic", "instructions", "cycles", "joules"}) {
        const std::string number = std::to_string(extent--);
        test::write_file(file("a.missing"), number);  // this one and those behind it
        start("a", {4, user_, "t", "", true}, 1);
        end("a", 4);
        EXPECT_THAT(last_run(),
                    ::testing::EndsWith(" reason=no%20" + figure + ":%20why%20" + number));
    }
    fs::remove(file("a.missing"));

    const JobRequest request{9, user_, "t", "minimize_energy", false};
    const std::string measuring = "measuring for tag \"t\" at 2000000 kHz";
    EXPECT_EQ(measuring, start("a", request));
    EXPECT_EQ("set back the frequency that job 9 left behind; " + measuring, start("a", request));
    test::write_file(file("b.set"), std::to_string(EASNODE_NOT_OFFERED));
    EXPECT_EQ("bad: of_set: not offered; frequency left as it is; called off for the whole job",
              start("b", request));
    EXPECT_EQ(
        "eas=1 outcome=failed tag=t type=fat default_frequency=2000000 "
        "reason=b:%20of_set:%20not%20offered",
        scheduler_.told("plan"));
    const StateFolder records(site("a").state);
    for (int i = 0; i < 3000 && records.read(9)->disturbed.empty(); ++i)
        ::usleep(10000);
    EXPECT_EQ("bad: the job's keeper has gone", end("b", 9));
    EXPECT_EQ("bad: b: of_set: not offered; frequency left as it is", start("b", request));
    const std::string off = "a: called off: b: of_set: not offered";
    EXPECT_EQ("bad: 189943.0 J in 999.60 s, mean 190.0 W; tag \"t\" not generated: " + off,
              end("a", 9));
    EXPECT_THAT(last_run(), ::testing::EndsWith(" reason=" + to_word(off)));

    scheduler_.ending.why_not_whole = "the job failed";
    test::write_file(file("a.restore"), std::to_string(EASNODE_MOVED));
    EXPECT_EQ(measuring, start("a", {11, user_, "t", "none", false}, 1));
    EXPECT_EQ(
        "frequency set back, another program had changed it; 189943.0 J in 999.60 s, mean "
        "190.0 W; tag \"t\" not generated: the job failed",
        end("a", 11));
    EXPECT_THAT(last_run(), ::testing::EndsWith(" reason=the%20job%20failed"));
}

}  // namespace
}  // namespace eas::job
