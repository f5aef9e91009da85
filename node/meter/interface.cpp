// The edge of the meter: each function checks its arguments, makes one internal call, and turns
// what it gives, or throws, into a return code.
#include <array>
#include <cerrno>
#include <csignal>
#include <memory>

#include "node/Edge.h"
#include "node/meter/Meter.h"

struct easnode_meter {
    eas::node::Meter meter;
};

namespace {

using eas::node::at_the_edge;
using eas::node::fill_record;
using eas::node::is_record;
using eas::node::MeterPlan;
using eas::node::SourceList;

constexpr unsigned usual_timeout = 2000;  // ms

bool is_valid(const easnode_meter_options& options) {
    const bool has_command = options.command != nullptr;
    const bool command_is_path =
        has_command && options.command[0] != nullptr && options.command[0][0] == '/';
    return options.process >= 0 && has_command == command_is_path &&
           options.registers >= EASNODE_REGISTERS_IF_FREE &&
           options.registers <= EASNODE_REGISTERS_LOOK &&
           (options.command_gives == EASNODE_COMMAND_WATTS ||
            options.command_gives == EASNODE_COMMAND_JOULES);
}

/// The plan of valid options, or the code of what is wrong.
int make_plan(const easnode_meter_options& options, MeterPlan& plan) {
    if (options.process > 0 && ::kill(options.process, 0) != 0 && errno == ESRCH)
        return EASNODE_NO_SUCH_PROCESS;
    plan.request.process = options.process;
    plan.request.registers = options.registers;
    for (auto argument = options.command; argument != nullptr && *argument != nullptr; ++argument)
        plan.request.command.emplace_back(*argument);
    plan.request.command_gives_joules = options.command_gives == EASNODE_COMMAND_JOULES;
    const unsigned timeout =
        options.command_timeout_ms != 0 ? options.command_timeout_ms : usual_timeout;
    plan.request.command_limit = timeout * eas::node::millisecond;
    const std::array<const char*, eas::node::source_lists> lists = {
        options.core_sources, options.memory_sources, options.energy_sources};
    for (std::size_t i = 0; i < lists.size(); ++i) {
        auto order = parse_sources(static_cast<SourceList>(i), lists[i],
                                   options.allow_estimate != 0, options.command != nullptr);
        if (!order)
            return EASNODE_NO_SUCH_SOURCE;
        plan.order[i] = std::move(*order);
    }
    return EASNODE_OK;
}

}  // namespace

int easnode_meter_open(const easnode_meter_options* options, easnode_meter** meter) {
    if (meter == nullptr)
        return EASNODE_BAD_ARGUMENT;
    *meter = nullptr;
    if (options != nullptr && !is_record(options))
        return EASNODE_BAD_ARGUMENT;
    easnode_meter_options wanted{};
    if (options != nullptr)
        wanted = *options;
    if (!is_valid(wanted))
        return EASNODE_BAD_ARGUMENT;
    return at_the_edge([&] {
        MeterPlan plan;
        const int code = make_plan(wanted, plan);
        if (code == EASNODE_OK)
            *meter =
                std::make_unique<easnode_meter>(easnode_meter{eas::node::Meter(std::move(plan))})
                    .release();
        return code;
    });
}

int easnode_meter_read(easnode_meter* meter, easnode_reading* reading) {
    if (meter == nullptr || !is_record(reading))
        return EASNODE_BAD_ARGUMENT;
    return at_the_edge([&] {
        easnode_reading now{};
        meter->meter.read(now);
        fill_record(reading, now);
        return EASNODE_OK;
    });
}

int easnode_meter_source(const easnode_meter* meter, int figure, size_t index,
                         easnode_source* source) {
    if (meter == nullptr || !is_record(source) || figure < 0 || figure >= EASNODE_FIGURES)
        return EASNODE_BAD_ARGUMENT;
    return at_the_edge([&] {
        easnode_source found{};
        if (!meter->meter.describe(figure, index, found))
            return EASNODE_BAD_ARGUMENT;
        fill_record(source, found);
        return EASNODE_OK;
    });
}

void easnode_meter_close(easnode_meter* meter) {
    const eas::DeferCancellation deferred;
    const std::unique_ptr<easnode_meter> owner(meter);
}
