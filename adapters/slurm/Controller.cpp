#include "adapters/slurm/Controller.h"

#include <slurm/slurm.h>
#include <slurm/slurm_errno.h>

#include <cerrno>
#include <memory>
#include <stdexcept>

namespace eas::slurm {
namespace {

// Of this cluster alone: else each question is preceded by one for the federation.
constexpr uint16_t show = SHOW_ALL | SHOW_LOCAL;

[[noreturn]] void fail(const char* what) {
    throw std::runtime_error(std::string(what) + ": " + slurm_strerror(errno));
}

std::string text(const char* from) {
    return from != nullptr ? from : "";
}

/// Accounting's list has GPUs only where the site wants them there.
bool holds_gpus(const job_info_t& info) {
    bool holds = text(info.tres_alloc_str).find("gres/gpu") != std::string::npos ||
                 text(info.gres_total).find("gpu") != std::string::npos;
    for (uint32_t i = 0; i < info.gres_detail_cnt; ++i)
        holds = holds || text(info.gres_detail_str[i]).find("gpu") != std::string::npos;
    return holds;
}

JobStanding standing_of(const job_info_t& info) {
    JobStanding job;
    job.state = info.job_state;
    job.was_suspended = info.suspend_time != 0;
    job.is_exclusive = info.shared == JOB_SHARED_NONE;
    job.holds_gpus = holds_gpus(info);
    job.start = info.start_time;
    job.name = text(info.name);
    job.comment = text(info.admin_comment);
    return job;
}

}  // namespace

std::optional<JobStanding> load_job(uint32_t job) {
    job_info_msg_t* answer = nullptr;
    if (slurm_load_job(&answer, job, show) != 0) {
        if (errno == ESLURM_INVALID_JOB_ID)
            return std::nullopt;
        fail("Slurm does not say how the job stands");
    }
    const std::unique_ptr<job_info_msg_t, void (*)(job_info_msg_t*)> owner(answer,
                                                                           slurm_free_job_info_msg);
    // Asked for an array or the leader of a heterogeneous job it tells of all their jobs.
    for (uint32_t i = 0; i < answer->record_count; ++i)
        if (answer->job_array[i].job_id == job)
            return standing_of(answer->job_array[i]);
    return std::nullopt;
}

void set_comment(uint32_t job, std::string comment) {
    job_desc_msg_t change;
    slurm_init_job_desc_msg(&change);
    change.job_id = job;
    change.admin_comment = comment.data();
    if (slurm_update_job(&change) != 0)
        fail("Slurm does not take the job's AdminComment");
}

std::vector<NodeWords> load_nodes(std::string name) {
    node_info_msg_t* answer = nullptr;
    const int code = name.empty() ? slurm_load_node(0, &answer, show)
                                  : slurm_load_node_single(&answer, name.data(), show);
    if (code != 0)
        fail("Slurm does not tell of its nodes");
    const std::unique_ptr<node_info_msg_t, void (*)(node_info_msg_t*)> owner(
        answer, slurm_free_node_info_msg);
    std::vector<NodeWords> nodes;
    for (uint32_t i = 0; i < answer->record_count; ++i) {
        const node_info_t& node = answer->node_array[i];
        if (node.name == nullptr)
            continue;
        const char* active = node.features_act != nullptr ? node.features_act : node.features;
        nodes.push_back({node.name, text(active), text(node.extra)});
    }
    return nodes;
}

void set_extra(std::string node, std::string extra) {
    update_node_msg_t change;
    slurm_init_update_node_msg(&change);
    change.node_names = node.data();
    change.extra = extra.data();
    if (slurm_update_node(&change) != 0)
        fail("Slurm does not take the node's Extra");
}

}  // namespace eas::slurm
