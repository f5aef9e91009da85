#include "tests/support/fakenode/NodeShape.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace eas::fake {
namespace {

// Longer than 1024 characters, as on real servers: a reader's line buffer overflows on it.
std::string flags_line() {
    std::string text = "fpu vme de pse tsc msr pae mce cx8 apic sep mtrr pge mca cmov pat pse36";
    for (int i = 0; text.size() < 1200; ++i)
        text += " ht_model_feature" + std::to_string(i);
    return text;
}

int id_at(const std::vector<int>& ids, int index) {
    return ids.empty() ? index : ids.at(static_cast<size_t>(index));
}

}  // namespace

std::string cpuinfo_text(const NodeShape& shape) {
    std::ostringstream out;
    const std::string flags = flags_line();
    for (int cpu = 0; cpu < shape.cpus(); ++cpu) {
        out << "processor\t: " << cpu
            << "\nvendor_id\t: GenuineIntel\ncpu family\t: 6\nmodel\t\t: " << shape.model
            << "\nmodel name\t: Intel(R) Xeon(R) CPU E5-2680 0 @ 2.70GHz\nstepping\t: 7"
            << "\nphysical id\t: " << id_at(shape.socket_ids, shape.socket_of(cpu))
            << "\nsiblings\t: " << shape.cores * shape.threads
            << "\ncore id\t\t: " << id_at(shape.core_ids, shape.core_of(cpu))
            << "\ncpu cores\t: " << shape.cores << "\napicid\t\t: " << cpu
            << "\ncpuid level\t: 13\nflags\t\t: " << flags
            << "\naddress sizes\t: 46 bits physical, 48 bits virtual\npower management:\n\n";
    }
    return out.str();
}

std::string mcfg_table(uint64_t base) {
    std::string table(60, '\0');
    table.replace(0, 4, "MCFG");
    table[4] = 60;
    for (size_t byte = 0; byte < 8; ++byte)
        table[44 + byte] = static_cast<char>(base >> (8 * byte) & 0xff);
    table[55] = '\xff';  // last bus of the allocation
    return table;
}

std::vector<WorkloadRow> read_workload(const std::string& path) {
    std::ifstream in(path);
    std::vector<WorkloadRow> rows;
    WorkloadRow row{};
    while (in >> row.khz >> row.watts >> row.cycles_per_instruction >> row.lines_per_instruction)
        rows.push_back(row);
    if (rows.empty() || !in.eof())
        throw std::runtime_error(path + ": not a workload");
    return rows;
}

}  // namespace eas::fake
