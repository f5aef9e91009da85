#include "tools/easctl/node/NodeMeter.h"

#include <algorithm>
#include <sstream>

#include "node/meter/MemoryRegisters.h"
#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/Signals.h"

namespace easctl {
namespace {

// In the order of easnode_extent.
constexpr std::array<const char*, 10> extent_names = {
    "none",    "node",  "packages-and-memory", "packages", "platform",
    "modules", "cores", "cache-misses",        "process",  "process-user"};

std::vector<std::string> words_of(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word);
    return words;
}

const char* list_or_null(const std::string& list) {
    return list.empty() ? nullptr : list.c_str();
}

int use_of_registers(const MeterOptions& options, NodeMeter::Use use) {
    if (use == NodeMeter::Use::look)
        return EASNODE_REGISTERS_LOOK;
    return options.force ? EASNODE_REGISTERS_TAKE : EASNODE_REGISTERS_IF_FREE;
}

easnode_meter* opened(const MeterOptions& options, pid_t process, NodeMeter::Use use) {
    const std::vector<std::string> words = words_of(options.power_command);
    std::vector<const char*> command;
    for (const std::string& word : words)
        command.push_back(word.c_str());
    command.push_back(nullptr);
    easnode_meter_options request{};
    request.size = sizeof request;
    request.process = process;
    request.allow_estimate = options.estimate ? 1 : 0;
    request.core_sources = list_or_null(options.core);
    request.memory_sources = list_or_null(options.memory);
    request.energy_sources = list_or_null(options.energy);
    request.command = words.empty() ? nullptr : command.data();
    request.registers = use_of_registers(options, use);
    easnode_meter* meter = nullptr;
    const int code = easnode_meter_open(&request, &meter);
    if (code == EASNODE_OK)
        return meter;
    const bool usage = code == EASNODE_NO_SUCH_SOURCE || code == EASNODE_BAD_ARGUMENT;
    throw Failure(usage ? ExitCode::usage : ExitCode::node,
                  std::string("the meter cannot be opened: ") + easnode_error_text(code),
                  usage ? "\"easctl node info\" lists the sources" : "");
}

/// The PMU and powercap read the same counters.
std::string common_name(const easnode_figure& figure) {
    const std::string name = figure.source;
    return name == "rapl-perf" || name == "powercap" ? "rapl" : name;
}

}  // namespace

void MeterOptions::add_to(CLI::App& command) {
    add_option(command, "--energy", energy,
               "sources of energy, separated by commas, instead of the default order")
        .type_name("NAMES");
    add_option(command, "--memory", memory, "the same of memory traffic").type_name("NAMES");
    add_option(command, "--power-command", power_command,
               "a program that prints the node's power in watts, with its arguments; its path\n"
               "begins with \"/\"")
        .type_name("WORDS");
    add_flag(command, "--estimate", estimate,
             "take last-level cache misses for memory traffic where it is not counted");
}

void MeterOptions::add_force_to(CLI::App& command) {
    add_flag(command, "--force", force,
             "programs the memory registers although they are in use already");
}

std::optional<double> value_of(const easnode_figure& figure) {
    return figure.quality == EASNODE_MISSING ? std::nullopt : std::optional(figure.value);
}

const char* name_of_extent(int extent) {
    const auto index = static_cast<std::size_t>(extent);
    return index < extent_names.size() ? extent_names[index] : "unknown";
}

std::string text_of(const easnode_figure& figure) {
    if (figure.quality == EASNODE_MISSING)
        return std::string("missing: ") + figure.reason;
    return std::string(figure.source) + ": " + figure.covers +
           (figure.quality == EASNODE_SCALED ? "; shared counters, scaled up" : "");
}

NodeMeter::NodeMeter(const MeterOptions& options, pid_t process, Use use)
    : meter_(opened(options, process, use)) {
    read();
    if (use == Use::measure && !options.force && !serving(EASNODE_MEMORY))
        refuse_counters_in_use();
}

void NodeMeter::refuse_counters_in_use() const {
    const cpuinfo_t processors = eas::node::known_processors();
    for (const easnode_source& source : sources(EASNODE_MEMORY)) {
        const bool tried =
            source.state == EASNODE_REFUSED && source.name == std::string("registers");
        const std::string user = tried ? eas::node::use_of_registers(processors) : "";
        if (!user.empty())
            throw Failure(ExitCode::node, "the memory counters are in use already: " + user,
                          "end the program that samples there; --force programs them all the "
                          "same, which spoils its figures");
    }
}

easnode_reading NodeMeter::read() {
    easnode_reading reading{};
    reading.size = sizeof reading;
    const int code = easnode_meter_read(meter_.get(), &reading);
    if (code != EASNODE_OK)
        throw Failure(ExitCode::node,
                      std::string("the meter cannot be read: ") + easnode_error_text(code));
    read_at_ = monotonic_seconds();
    read_within_ = 0;
    for (const easnode_figure* figure : {&reading.memory, &reading.energy}) {
        const double within = static_cast<double>(figure->read_within_ns) / 1e9;
        if (within > 0 && (read_within_ == 0 || within < read_within_))
            read_within_ = within;
    }
    return reading;
}

void NodeMeter::keep_up() {
    if (read_within_ > 0 && monotonic_seconds() - read_at_ > read_within_ / 2)
        read();
}

std::vector<easnode_source> NodeMeter::sources(easnode_figure_id figure) const {
    std::vector<easnode_source> all;
    easnode_source source{};
    source.size = sizeof source;
    while (easnode_meter_source(meter_.get(), figure, all.size(), &source) == EASNODE_OK)
        all.push_back(source);
    return all;
}

std::optional<easnode_source> NodeMeter::serving(easnode_figure_id figure) const {
    for (const easnode_source& source : sources(figure)) {
        if (source.state == EASNODE_SERVES)
            return source;
    }
    return std::nullopt;
}

std::string meter_text(const easnode_reading& reading) {
    const auto part = [](const easnode_figure& figure) {
        return figure.quality == EASNODE_MISSING
                   ? std::string("missing")
                   : common_name(figure) + '/' + name_of_extent(figure.extent);
    };
    return part(reading.energy) + ' ' + part(reading.memory);
}

}  // namespace easctl
