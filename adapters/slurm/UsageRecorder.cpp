#include "adapters/slurm/UsageRecorder.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <string_view>
#include <utility>

#include "adapters/slurm/EasLibrary.h"

namespace eas::slurm {
namespace {

constexpr char finish_word = 'f';

void reply(int channel, std::string_view text) {
    ::send(channel, text.data(), text.size(), MSG_NOSIGNAL);
}

double difference(uint64_t first, uint64_t last) {
    return last > first ? static_cast<double>(last - first) : 0.0;
}

/// True when the step has ended and wants its figures; false when its daemon has gone.
bool wait_for_end(int channel) {
    char word = 0;
    pollfd ready{channel, POLLIN, 0};
    while (::poll(&ready, 1, -1) < 0) {
    }
    return ::recv(channel, &word, 1, 0) == 1 && word == finish_word;
}

/// The sampler's life; the alarm ends it should the hardware not answer.
void sample(const PluginArguments& arguments, uint32_t job, uint32_t step, int channel) {
    ::alarm(static_cast<unsigned>(arguments.limit));
    const StateFolder folder(arguments.state);
    const EasLibrary library(arguments.library);
    hwrusage first{}, last{};
    constexpr pid_t whole_node = -1;
    if (library.hardware_usage(whole_node, &first) != 0)
        return reply(channel, "the counters of this node are not supported");
    reply(channel, "+");
    ::alarm(0);
    const bool wanted = wait_for_end(channel);
    ::alarm(static_cast<unsigned>(arguments.limit));
    const bool counted = wanted && library.hardware_usage(whole_node, &last) == 0;
    library.hardware_usage(whole_node, nullptr);
    if (!counted)
        return;
    folder.append(job, line::usage(step, difference(first.cycles, last.cycles),
                                   difference(first.instructions, last.instructions),
                                   difference(first.membytes_xferred, last.membytes_xferred)));
    reply(channel, "+");
}

void sample_or_say(const PluginArguments& arguments, uint32_t job, uint32_t step, int channel) {
    try {
        sample(arguments, job, step, channel);
    } catch (const std::exception& error) {
        reply(channel, error.what());
    }
}

}  // namespace

UsageRecorder::UsageRecorder(PluginArguments arguments, uint32_t job, uint32_t step)
    : arguments_(std::move(arguments)), job_(job), step_(step) {
    const StateFolder folder(arguments_.state);
    try {
        begin(folder);
    } catch (const std::exception& error) {  // the step runs uncounted
        if (folder.read(job_))
            folder.append(job_, line::no_counters(step_, error.what()));
        throw;
    }
}

void UsageRecorder::begin(const StateFolder& folder) {
    const Descriptor lock = folder.lock(arguments_.lock_wait());
    const std::optional<JobRecord> record = folder.read(job_);
    if (!record || record->request.purpose() != Purpose::measure || !record->first_node ||
        !record->disturbed.empty())
        return;
    const bool counts = !record->being_sampled;
    folder.append(job_, line::step_begins(step_, counts));
    noted_ = true;
    if (!counts)
        return;
    sampler_ = std::make_unique<Companion>(
        [this](int channel) { sample_or_say(arguments_, job_, step_, channel); });
    expect_answer(folder);
}

void UsageRecorder::expect_answer(const StateFolder& folder) const {
    const std::string answer = sampler_->answer(arguments_.limit);
    if (answer != "+")
        folder.append(
            job_, line::no_counters(step_, answer.empty() ? "the counters do not answer" : answer));
}

void UsageRecorder::finish() {
    if (!noted_)
        return;
    const StateFolder folder(arguments_.state);
    if (sampler_ == nullptr)
        return folder.append(job_, line::step_ends(step_));
    sampler_->send(finish_word);
    expect_answer(folder);
}

}  // namespace eas::slurm
