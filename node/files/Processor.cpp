#include "node/files/Processor.h"

#include <climits>

#include "node/files/SmallFile.h"

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
    return value && *value <= INT_MAX ? static_cast<int>(*value) : -1;
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
}

}  // namespace

Processor parse_processor(std::string_view cpuinfo) {
    Processor processor;
    while (!cpuinfo.empty() && cpuinfo.front() != '\n') {
        const std::size_t end = cpuinfo.find('\n');
        take_line(cpuinfo.substr(0, end), processor);
        cpuinfo.remove_prefix(end == std::string_view::npos ? cpuinfo.size() : end + 1);
    }
    return processor;
}

Processor read_processor() {
    constexpr std::size_t first_block = 16384;  // the file of some hundred CPUs is far longer
    return parse_processor(read_beginning("/proc/cpuinfo", first_block).text);
}

}  // namespace eas::node
