#include "adapters/slurm/Accounting.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <slurm/slurm.h>
#include <slurm/slurm_errno.h>
#include <slurm/slurmdb.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <type_traits>

namespace eas::slurm {
namespace {

constexpr int pause_ms = 8;  // between looks whether accounting knows of the job's end

using ListOwner = std::unique_ptr<std::remove_pointer_t<List>, void (*)(List)>;

[[noreturn]] void fail(const char* what) {
    throw std::runtime_error(std::string(what) + ": " + slurm_strerror(errno));
}

/// Slurm's daemons send each message in two pieces, and the second one waits until the kernel
/// acknowledges the first: 40 ms later, unless it is told otherwise again and again. For a child
/// process whose sockets are all its own.
class PromptAnswers {
  public:
    PromptAnswers() : thread_([this] { run(); }) {}
    PromptAnswers(const PromptAnswers&) = delete;
    PromptAnswers& operator=(const PromptAnswers&) = delete;
    ~PromptAnswers() {
        ends_ = true;
        thread_.join();
    }

  private:
    void run() const {
        constexpr int first = 3, last = 64, on = 1;
        while (!ends_) {
            for (int fd = first; fd < last; ++fd)
                for (const int wish : {TCP_NODELAY, TCP_QUICKACK})
                    ::setsockopt(fd, IPPROTO_TCP, wish, &on, sizeof on);
            ::poll(nullptr, 0, 1);
        }
    }

    std::atomic<bool> ends_{false};
    std::thread thread_;
};

class Connection {
  public:
    Connection() : connection_(slurmdb_connection_get(nullptr)) {
        if (connection_ == nullptr)
            fail("no connection to Slurm's accounting");
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { slurmdb_connection_close(&connection_); }

    [[nodiscard]] void* get() const { return connection_; }

  private:
    void* connection_;
};

/// Which job is meant. The lists own nothing of what they hold.
class Condition {
  public:
    Condition(std::string& cluster, uint32_t job)
        : clusters_(slurm_list_create(nullptr), slurm_list_destroy),
          steps_(slurm_list_create(nullptr), slurm_list_destroy) {
        step_.array_task_id = step_.het_job_offset = NO_VAL;
        step_.step_id = {job, NO_VAL, NO_VAL};
        slurm_list_append(clusters_.get(), cluster.data());
        slurm_list_append(steps_.get(), &step_);
        condition_.cluster_list = clusters_.get();
        condition_.step_list = steps_.get();
        condition_.db_flags = SLURMDB_JOB_FLAG_NOTSET;
        condition_.flags = JOBCOND_FLAG_NO_STEP;
    }
    [[nodiscard]] slurmdb_job_cond_t* get() { return &condition_; }

  private:
    slurmdb_job_cond_t condition_{};
    slurm_selected_step_t step_{};
    ListOwner clusters_, steps_;
};

/// The comment of the job once it has ended; no value: it has not, as far as accounting knows.
std::optional<std::string> comment_of_ended(const Connection& accounting, Condition& condition,
                                            uint32_t number) {
    const ListOwner jobs(slurmdb_jobs_get(accounting.get(), condition.get()), slurm_list_destroy);
    if (jobs == nullptr)
        fail("Slurm's accounting does not tell of the job");
    // The list belongs to its owner, and with it each job.
    const std::unique_ptr<std::remove_pointer_t<ListIterator>, void (*)(ListIterator)> next(
        slurm_list_iterator_create(jobs.get()), slurm_list_iterator_destroy);
    std::optional<std::string> comment;
    while (const auto* job = static_cast<slurmdb_job_rec_t*>(slurm_list_next(next.get())))
        if (job->jobid == number && job->end != 0 && (job->state & JOB_STATE_BASE) >= JOB_COMPLETE)
            comment = job->admin_comment != nullptr ? job->admin_comment : "";
    return comment;
}

/// False: accounting does not yet know that the job has ended.
bool change_comment(Condition& condition, uint32_t job, const job::RunRecord& record) {
    const Connection accounting;
    const std::optional<std::string> comment = comment_of_ended(accounting, condition, job);
    if (!comment)
        return false;
    std::string text = with_record(*comment, record);
    slurmdb_job_rec_t change{};
    change.array_task_id = change.derived_ec = NO_VAL;
    change.admin_comment = text.data();
    const ListOwner changed(slurmdb_job_modify(accounting.get(), condition.get(), &change),
                            slurm_list_destroy);
    if (changed == nullptr || slurm_list_count(changed.get()) == 0)
        fail("Slurm's accounting does not take the record");
    if (slurmdb_connection_commit(accounting.get(), true) != 0)
        fail("Slurm's accounting does not keep the record");
    return true;
}

}  // namespace

void keep_in_accounting(std::string cluster, uint32_t job, const job::RunRecord& record) {
    const PromptAnswers prompt;
    Condition condition(cluster, job);
    // A connection sees the job as it was when it looked first: each look takes a new one.
    while (!change_comment(condition, job, record))
        ::poll(nullptr, 0, pause_ms);
}

}  // namespace eas::slurm
