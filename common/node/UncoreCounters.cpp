#include "common/node/UncoreCounters.h"

#include "common/node/CpuTopology.h"
#include "common/node/MemoryChannels.h"
#include "common/node/ProcessorModel.h"
#include "common/node/UncoreMsrCounters.h"

namespace {

constexpr std::uint64_t bytes_per_line = 64;

using Method = eas::MemoryMethod;
using eas::memory_method;

int init_memory_channels() {
    for (int s = 0; s < cinfo.numSockets; ++s) {
        const auto socket = static_cast<unsigned>(s);
        if (get_memory_channels(socket) == channels_per_socket &&
            program_memory_channels(socket) == 0) {
            continue;
        }
        // The failing socket keeps what it mapped until the tear-down, which gives it back.
        for (unsigned earlier = 0; earlier < socket; ++earlier)
            cleanup_memory_channels(earlier);
        return -1;
    }
    return 0;
}

std::uint64_t bytes_of_socket(Method method, unsigned socket) {
    switch (method) {
        case Method::uncore_msrs:
            return getuncrw(socket) * bytes_per_line;
        case Method::memory_channels:
            return getmcreads(socket) * bytes_per_line + getmcwrites(socket) * bytes_per_line;
        case Method::uncore_boxes:
            return getboxrw(socket) * bytes_per_line;
        case Method::none:
            break;
    }
    return 0;
}

}  // namespace

int init_uncore_counters() {
    switch (memory_method(cinfo.model)) {
        case Method::uncore_msrs:
            init_uncore_msrs();
            break;
        case Method::memory_channels:
            return init_memory_channels();
        case Method::uncore_boxes:
            init_uncore_boxes();
            break;
        case Method::none:
            break;
    }
    return 0;
}

int read_uncore_counters(hwrusage* usage) {
    const Method method = memory_method(cinfo.model);
    std::uint64_t bytes = 0;
    for (int s = 0; s < cinfo.numSockets; ++s) {
        bytes += bytes_of_socket(method, static_cast<unsigned>(s));
    }
    usage->membytes_xferred = bytes;
    usage->netbytes_xferred = 0;
    return 0;
}

int cleanup_uncore(unsigned socket) {
    switch (memory_method(cinfo.model)) {
        case Method::uncore_msrs:
            return cleanup_uncore_msrs(socket);
        case Method::memory_channels:
            return cleanup_memory_channels(socket);
        case Method::uncore_boxes:
            return cleanup_uncore_boxes(socket);
        case Method::none:
            break;
    }
    return 0;
}
