// JobRecord.h - what the plugin keeps of a job between its prolog and its epilog on a node, as
// lines of text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "adapters/slurm/JobRequest.h"

namespace eas::slurm {

/// What a CPU was set to before the plugin touched it.
struct CpuSetting {
    int cpu = 0;
    std::string governor;
    long speed = 0;  // KHz; 0: the governor has none
};

struct MeterReading {
    int64_t time = 0;               // ns, a clock that goes on while the machine sleeps
    unsigned long microjoules = 0;  // since the meter was started; 0: no meter
};

/// What the steps of a job counted.
struct JobUsage {
    double cycles = 0;
    double instructions = 0;
    double memory_bytes = 0;
    int samples = 0;
    std::string gap;  // why the figures do not cover the job; empty: they do
};

struct JobRecord {
    JobRequest request;  // the purpose for which this node is set up
    std::optional<MeterReading> start, end;
    std::vector<CpuSetting> settings;  // to be set back; empty: nothing is, or no longer
    JobUsage usage;
    bool first_node = true;      // which samples and generates the tag
    bool being_sampled = false;  // a step of the job runs that counts for all of them
    std::string disturbed;       // why the measurement is not the job's own; empty: it is
};

/// The lines of a record.
namespace line {
std::string request(const JobRequest& request);
std::string reading(const char* name, const MeterReading& reading);  // "start" or "end"
std::string setting(const CpuSetting& setting);
std::string disturbed(const std::string& reason);
std::string given_back();  // the settings above hold again
std::string other_node();  // the tag is not this node's business
std::string step_begins(uint32_t step, bool sampled);
std::string step_ends(uint32_t step);
std::string usage(uint32_t step, double cycles, double instructions, double memory_bytes);
std::string no_counters(uint32_t step, const std::string& reason);
}  // namespace line

/// Lines that make no sense are passed over.
JobRecord parse_record(const std::string& text);

}  // namespace eas::slurm
