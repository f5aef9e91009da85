#include "adapters/slurm/JobRecord.h"

#include <iomanip>
#include <set>
#include <sstream>

namespace eas::slurm {

namespace line {

std::string request(const JobRequest& request) {
    std::ostringstream out;
    out << "job " << request.job << ' ' << request.user;
    if (!request.tag.empty())
        out << ' ' << request.tag << ' ' << request.policy;
    out << '\n';
    return out.str();
}

std::string reading(const char* name, const MeterReading& reading) {
    return std::string(name) + ' ' + std::to_string(reading.time) + ' ' +
           std::to_string(reading.microjoules) + '\n';
}

std::string setting(const CpuSetting& setting) {
    return "cpu " + std::to_string(setting.cpu) + ' ' + setting.governor + ' ' +
           std::to_string(setting.speed) + '\n';
}

std::string disturbed(const std::string& reason) {
    return "disturbed " + reason + '\n';
}

std::string given_back() {
    return "given-back\n";
}

std::string other_node() {
    return "other-node\n";
}

std::string step_begins(uint32_t step, bool sampled) {
    return (sampled ? "sampled " : "begin ") + std::to_string(step) + '\n';
}

std::string step_ends(uint32_t step) {
    return "end-of-step " + std::to_string(step) + '\n';
}

std::string usage(uint32_t step, double cycles, double instructions, double memory_bytes) {
    std::ostringstream out;
    out << "usage " << step << ' ' << std::setprecision(17) << cycles << ' ' << instructions << ' '
        << memory_bytes << '\n';
    return out.str();
}

std::string no_counters(uint32_t step, const std::string& reason) {
    return "no-counters " + std::to_string(step) + ' ' + reason + '\n';
}

}  // namespace line

namespace {

/// Follows the lines of a record; remembers which steps run.
class Replay {
  public:
    void follow(const std::string& text) {
        std::istringstream words(text);
        std::string name;
        words >> name;
        if (name == "job") {
            words >> record_.request.job >> record_.request.user >> record_.request.tag >>
                record_.request.policy;
        } else if (name == "start" || name == "end") {
            MeterReading reading;
            if (words >> reading.time >> reading.microjoules)
                (name == "start" ? record_.start : record_.end) = reading;
        } else if (name == "cpu") {
            CpuSetting setting;
            if (words >> setting.cpu >> setting.governor >> setting.speed)
                record_.settings.push_back(setting);
        } else if (name == "other-node") {
            record_.first_node = false;
        } else if (name == "given-back") {
            record_.settings.clear();
        } else if (name == "disturbed") {
            std::getline(words >> std::ws, record_.disturbed);
        } else {
            follow_step(name, words);
        }
    }

    JobRecord finish() {
        record_.being_sampled = !sampled_.empty();
        if (record_.usage.gap.empty() && (!sampled_.empty() || !others_.empty()))
            record_.usage.gap = "a step of the job ended without its counters";
        return std::move(record_);
    }

  private:
    void follow_step(const std::string& name, std::istringstream& words) {
        uint32_t step = 0;
        if (!(words >> step))
            return;
        if (name == "sampled") {
            sampled_.insert(step);
        } else if (name == "begin") {
            others_.insert(step);
        } else if (name == "end-of-step") {
            others_.erase(step);
        } else if (name == "no-counters") {
            sampled_.erase(step);
            if (record_.usage.gap.empty())
                std::getline(words >> std::ws, record_.usage.gap);
        } else if (name == "usage") {
            add_usage(step, words);
        }
    }

    void add_usage(uint32_t step, std::istringstream& words) {
        double cycles = 0, instructions = 0, bytes = 0;
        if (!(words >> cycles >> instructions >> bytes))
            return;
        sampled_.erase(step);
        record_.usage.cycles += cycles;
        record_.usage.instructions += instructions;
        record_.usage.memory_bytes += bytes;
        ++record_.usage.samples;
        if (!others_.empty() && record_.usage.gap.empty())
            record_.usage.gap = "steps of the job overlapped";
    }

    JobRecord record_;
    std::set<uint32_t> sampled_, others_;
};

}  // namespace

JobRecord parse_record(const std::string& text) {
    Replay replay;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        replay.follow(line);
    return replay.finish();
}

}  // namespace eas::slurm
