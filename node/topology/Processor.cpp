#include "node/topology/Processor.h"

#include <array>
#include <climits>
#include <cstdio>

#include "base/UniqueFile.h"
#include "node/files/PseudoFile.h"

namespace eas::node {
namespace {

Vendor vendor_of(std::string_view id) noexcept {
    if (id == "GenuineIntel")
        return Vendor::intel;
    if (id == "AuthenticAMD")
        return Vendor::amd;
    return id == "HygonGenuine" ? Vendor::hygon : Vendor::other;
}

int small_number(std::string_view text) noexcept {
    const auto value = parse_number(text);
    return value && *value >= 0 && *value <= INT_MAX ? static_cast<int>(*value) : -1;
}

void take_line(std::string_view line, Processor& processor) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos)
        return;
    const std::string_view key = trimmed(line.substr(0, colon));
    const std::string_view value = trimmed(line.substr(colon + 1));
    if (key == "vendor_id")
        processor.vendor = vendor_of(value);
    else if (key == "cpu family")
        processor.family = small_number(value);
    else if (key == "model")
        processor.model = small_number(value);
    else if (key == "model name")
        processor.name = value;
    else if (key == "CPU implementer")
        processor.implementer = value;
    else if (key == "CPU part")
        processor.part = value;
}

}  // namespace

Processor parse_processor(std::string_view cpuinfo) {
    Processor processor;
    while (!cpuinfo.empty() && cpuinfo.front() != '\n') {
        const std::size_t end = cpuinfo.find('\n');
        take_line(cpuinfo.substr(0, end), processor);
        cpuinfo.remove_prefix(end == std::string_view::npos ? cpuinfo.size() : end + 1);
    }
    // Arm's kernel gives numbers of its licensees in place of a name.
    if (processor.name.empty() && !processor.implementer.empty())
        processor.name = "implementer " + processor.implementer + ", part " + processor.part;
    return processor;
}

Processor read_processor() {
    const UniqueFile cpuinfo = open_for_reading("/proc/cpuinfo");
    if (cpuinfo == nullptr)
        return {};
    // The first block lies in it; the kernel interrupts each CPU whose block is read.
    std::array<char, 16384> text;
    const std::size_t length = std::fread(text.data(), 1, text.size(), cpuinfo.get());
    return parse_processor({text.data(), length});
}

}  // namespace eas::node
