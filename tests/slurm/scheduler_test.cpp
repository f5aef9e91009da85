// What the plugin makes of the controller's answers: the controller and accounting are stood in
// for.
#include <gtest/gtest.h>
#include <slurm/slurm.h>

#include <map>
#include <stdexcept>

#include "adapters/slurm/Accounting.h"
#include "adapters/slurm/Controller.h"
#include "adapters/slurm/SlurmScheduler.h"

namespace eas::slurm {
namespace {

std::optional<JobStanding> standing;
bool answers = true;
std::string told;

}  // namespace

std::optional<JobStanding> load_job(uint32_t) {
    if (!answers)
        throw std::runtime_error("no answer");
    return standing;
}
void set_comment(uint32_t job, std::string comment) {
    told = std::to_string(job) + ": " + comment;
}
std::vector<NodeWords> load_nodes(std::string name) {
    const std::string begin = "eas=1 job=7 start=1000";
    std::vector<NodeWords> all{{"n1", "", "words; " + begin + " tag=a; more"},
                               {"n2", "", begin + " tag=b"},
                               {"n3", "", begin + "1 tag=c"},
                               {"n4", "", "eas=1 job=8 start=1000 tag=d"},
                               {"n5", "", "eas=1 job=7 tag=e"},
                               {"n6", "", "words"}};
    all.resize(name.empty() ? all.size() : 1);
    return all;
}
void set_extra(std::string node, std::string extra) {
    told = node + ": " + extra;
}
void keep_in_accounting(std::string cluster, uint32_t job, const job::RunRecord& record) {
    told = cluster + ' ' + std::to_string(job) + ": " + to_text(record);
}

namespace {

TEST(SlurmJob, IsOverAndWholeAsItsStateSays) {
    SlurmScheduler scheduler("c", "n1");
    const std::map<uint32_t, std::string> whys = {{JOB_COMPLETE, ""},
                                                  {JOB_CANCELLED, "the job was cancelled"},
                                                  {JOB_FAILED, "the job failed"},
                                                  {JOB_TIMEOUT, "the job reached its time limit"},
                                                  {JOB_DEADLINE, "the job reached its time limit"},
                                                  {JOB_PREEMPTED, "the job was preempted"}};
    standing.emplace();
    for (uint32_t state = JOB_PENDING; state < JOB_END; ++state) {
        const auto known = whys.find(state);
        const std::string why = known == whys.end() ? "the job did not end well" : known->second;
        standing->state = state | JOB_COMPLETING;
        EXPECT_FALSE(scheduler.job_is_over(7)) << state;
        EXPECT_EQ(why, scheduler.ending_of(7).why_not_whole) << state;
        standing->state = state | JOB_REQUEUE;
        EXPECT_EQ(state != JOB_RUNNING && state != JOB_SUSPENDED, scheduler.job_is_over(7))
            << state;
    }
    standing->state = JOB_COMPLETE;
    standing->was_suspended = standing->holds_gpus = true;
    EXPECT_EQ("the job was suspended", scheduler.ending_of(7).why_not_whole);
    EXPECT_TRUE(scheduler.ending_of(7).holds_gpus);
    standing.reset();
    EXPECT_TRUE(scheduler.job_is_over(7));
    EXPECT_THROW((void)scheduler.ending_of(7), std::runtime_error);
    answers = false;
    EXPECT_FALSE(scheduler.job_is_over(7)) << "as far as is known";
    answers = true;
}

TEST(SlurmJob, TellsOfItsOwnRunAloneBesideWhatOthersWrote) {
    SlurmScheduler scheduler("c", "n1");
    job::RunRecord record;
    record.tag = "t";
    standing.emplace();
    standing->start = 1000;
    standing->comment = "site; eas=1 job=7 start=999; more";
    EXPECT_FALSE(scheduler.announced(7));
    scheduler.announce(7, record);
    EXPECT_EQ("7: site; eas=1 job=7 start=1000 tag=t; more", told);
    standing->comment = told;
    EXPECT_EQ("t", scheduler.announced(7).value().tag);
    scheduler.report(7, record);
    EXPECT_EQ("n1: words; eas=1 job=7 start=1000 tag=t; more", told);
    std::string reports;
    for (const job::NodeReport& one : scheduler.reports(7))
        reports += one.node + one.figures.tag;
    EXPECT_EQ("n1an2b", reports);
    scheduler.keep(7, record);
    EXPECT_EQ("c 7: eas=1 tag=t", told);
}

}  // namespace
}  // namespace eas::slurm
