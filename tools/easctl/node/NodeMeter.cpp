#include "tools/easctl/node/NodeMeter.h"

#include <algorithm>
#include <sstream>

#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/Signals.h"

namespace easctl {
namespace {

constexpr const char* registers_name = "registers";
constexpr const char* registers_cover =
    "memory controllers, all sockets, read+write, by registers that easctl programs";

// In the order of easnode_extent.
constexpr std::array<const char*, 10> extent_names = {
    "none",    "node",  "packages-and-memory", "packages", "platform",
    "modules", "cores", "cache-misses",        "process",  "process-user"};

template <std::size_t Size>
void copy_text(char (&to)[Size], const std::string& from) {
    const std::size_t length = std::min(from.size(), Size - 1);
    std::copy_n(from.begin(), length, to);
    to[length] = '\0';
}

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

bool names_registers(const std::string& memory) {
    return memory.empty() || memory == registers_name;
}

easnode_meter* opened(const MeterOptions& options, pid_t process) {
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
    request.memory_sources =
        options.memory == registers_name ? "none" : list_or_null(options.memory);
    request.energy_sources = list_or_null(options.energy);
    request.command = words.empty() ? nullptr : command.data();
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
    : meter_(opened(options, process)) {
    easnode_reading reading = read();
    if (reading.memory.quality != EASNODE_MISSING || !names_registers(options.memory))
        return;
    if (use == Use::look) {
        no_registers_ = RegisterTraffic::why_not();
        registers_serve_ = no_registers_.empty();
        return;
    }
    registers_ = RegisterTraffic::start(options.force, no_registers_);
    registers_serve_ = registers_ != nullptr;
}

easnode_reading NodeMeter::read() {
    easnode_reading reading{};
    reading.size = sizeof reading;
    const int code = easnode_meter_read(meter_.get(), &reading);
    if (code != EASNODE_OK)
        throw Failure(ExitCode::node,
                      std::string("the meter cannot be read: ") + easnode_error_text(code));
    add_registers(reading.memory);
    read_at_ = monotonic_seconds();
    read_within_ = 0;
    for (const easnode_figure* figure : {&reading.memory, &reading.energy}) {
        const double within = static_cast<double>(figure->read_within_ns) / 1e9;
        if (within > 0 && (read_within_ == 0 || within < read_within_))
            read_within_ = within;
    }
    return reading;
}

void NodeMeter::add_registers(easnode_figure& memory) const {
    if (!registers_serve_ || memory.quality != EASNODE_MISSING)
        return;
    memory = {};
    copy_text(memory.source, registers_name);
    copy_text(memory.covers, registers_cover);
    memory.quality = EASNODE_COUNTED;
    memory.extent = EASNODE_NODE;
    memory.value = registers_ != nullptr ? registers_->bytes() : 0;
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
    if (figure != EASNODE_MEMORY)
        return all;
    source = {};
    source.size = sizeof source;
    copy_text(source.name, registers_name);
    source.state = EASNODE_NOT_TRIED;
    if (registers_serve_)
        source.state = EASNODE_SERVES;
    else if (!no_registers_.empty())
        source.state = EASNODE_REFUSED;
    source.extent = registers_serve_ ? EASNODE_NODE : EASNODE_NO_EXTENT;
    copy_text(source.text, registers_serve_ ? registers_cover : no_registers_);
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
