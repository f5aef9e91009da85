// Texts in the place of /proc/cpuinfo, read by each of its three readers.
#include <algorithm>
#include <iterator>
#include <set>
#include <vector>

#include "common/node/CpuTopology.h"
#include "common/node/NodeThreads.h"
#include "fuzz/Fuzz.h"

using eas::fuzz::check;

namespace {

bool within(int value, int limit) {
    return value >= 0 && value < limit;
}

/// Holds whatever was read, since a rejected processor leaves the record partly filled.
void check_ids(const cpuinfo_t& processors) {
    check(within(processors.numSockets, max_sockets + 1), "sockets fit the record");
    check(within(processors.numThreads, max_cpus + 1), "CPUs fit the record");
    std::set<int> sockets;
    for (int s = 0; s < max_sockets; ++s) {
        const int id = processors.SId[s];
        check(s < processors.numSockets ? within(id, max_sockets) : id == -1,
              "socket ids are in front");
        if (id != -1)
            check(within(processors.cpuId[id], max_cpus), "every socket has a first CPU");
        if (id != -1)
            check(sockets.insert(id).second, "a socket is listed once");
    }
    check(std::count(std::begin(processors.cpuId), std::end(processors.cpuId), -1) ==
              max_sockets - processors.numSockets,
          "no other socket has a first CPU");
    for (const int socket : processors.socketId)
        check(socket == -1 || sockets.count(socket) == 1, "CPUs belong to listed sockets");
}

void check_topology(std::string& text) {
    const auto [result, processors] = eas::read_topology(eas::fuzz::stream_of(text).get());
    check(result == 0 || result == -2, "the result is a documented one");
    check_ids(processors);
    if (result != 0)
        return;
    const std::vector<int> models = {0, 23, 26, 28, 37, 42, 44, 45, 46, 47, 62};
    check(processors.family == 0 || processors.family == 6, "another family is rejected");
    check(std::count(models.begin(), models.end(), processors.model) == 1, "so is another model");
    check(within(processors.numCores, processors.numThreads + 1), "no more cores than threads");
    const int threads = processors.numCores > 0 ? processors.numThreads / processors.numCores : 1;
    check(processors.threads_per_core == threads, "threads per core follow from both");
}

void check_cpu_ids(std::string& text) {
    constexpr std::size_t line_buffer = 64;
    std::size_t processors = 0;
    eas::fuzz::for_each_line(text, line_buffer, [&](std::string_view line) {
        processors += line.substr(0, 9) == "processor";
    });
    std::vector<int> ids = {7};
    eas::append_cpu_ids(eas::fuzz::stream_of(text).get(), ids);
    check(ids.size() == processors + 1 && ids[0] == 7, "one id for each processor line");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text = eas::fuzz::text_of(data, size);
    check_topology(text);
    check_cpu_ids(text);
    for (const int cpu : {0, 1, -1})
        check(eas::count_node_threads(eas::fuzz::stream_of(text).get(), cpu) >= -1,
              "threads are counted or not found");
    return 0;
}
