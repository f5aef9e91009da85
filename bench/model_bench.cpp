// The energy model without a database: predictions, and threshold files.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "base/UniqueFile.h"
#include "bench/Contest.h"
#include "common/model/CoEfficients.h"
#include "common/model/EnergyPerfThreshold.h"
#include "common/model/EnergyTag.h"

namespace eas::bench {
namespace {

constexpr int first_frequency = 1200000;  // kHz
constexpr int step = 1000;                // kHz
constexpr int rows_per_round = 16000;
constexpr double microsecond = 1000;  // ns

/// `count` frequencies, the measured one a quarter up.
CoEfficients coefficients(int count) {
    CoEfficients set;
    for (int i = 0; i < count; ++i) {
        const double f = i == count / 4 ? 0.0 : 1.0 + 0.001 * i;
        set.setArrayData(first_frequency + i * step, f, 0.1 * f, 0.01 * f, f, 0.1 * f, 0.01 * f);
    }
    return set;
}

void predict(const CoEfficients& set) {
    const EnergyTag tag(&set, "cluster", "user", "1234567.0", "a-job-profile", 300.0, 1000, 40.0,
                        80.0, 1.25);
    if (tag.available() == 0)
        throw std::runtime_error("no prediction");
}

/// The "floor" is the goal: one microsecond for 16 rows.
void add_prediction(int rows) {
    add({"predict a tag of " + std::to_string(rows) + " rows", rows == 16 ? 1.0 : 0.0, 300,
         static_cast<double>(rows_per_round) / rows, [rows] {
             const int batch = rows_per_round / rows;
             const auto set = std::make_shared<CoEfficients>(coefficients(rows));
             std::vector<Contender> all{{"library", [set, batch] {
                                             return timed([&] {
                                                 for (int i = 0; i < batch; ++i)
                                                     predict(*set);
                                             });
                                         }}};
             if (rows == 16)
                 all.push_back({"1 us", [batch] { return batch * microsecond; }});
             return all;
         }});
}

/// A time section with a line for every other frequency above the measured one.
class ThresholdFile {
  public:
    explicit ThresholdFile(int frequencies) {
        const int fd = ::mkstemp(name_.data());
        if (fd < 0)
            throw std::runtime_error("no scratch file");
        std::string text =
            "Begin Min_Energy\nTHRESHOLD_RUNTIME_VAR = 5\nEnd Min_Energy\n"
            "Begin Min_Time\nCPU_FREQ RUNTIME_VAR\n";
        for (int i = frequencies / 4 + 1; i < frequencies; i += 2) {
            text += std::to_string(first_frequency + i * step) + "KHz -";
            text += std::to_string(0.5 + 0.001 * i) + "\n";
        }
        text += "End Min_Time\n";
        const bool written = ::write(fd, text.data(), text.size()) == ssize_t(text.size());
        ::close(fd);
        if (!written)
            throw std::runtime_error("no space for a scratch file");
    }
    ~ThresholdFile() { ::unlink(name_.c_str()); }
    ThresholdFile(const ThresholdFile&) = delete;
    ThresholdFile& operator=(const ThresholdFile&) = delete;

    [[nodiscard]] const char* name() const { return name_.c_str(); }

  private:
    std::string name_ = "/tmp/eas-thresholds.XXXXXX";
};

void read_lines(const char* name) {
    const UniqueFile file = open_for_reading(name);
    char line[1024];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
    }
}

/// The floor reads the same lines and does nothing with them.
void add_thresholds(int frequencies) {
    add({"thresholds, file of " + std::to_string(frequencies) + ", per freq.", 0, 30,
         static_cast<double>(frequencies), [frequencies] {
             const auto set = std::make_shared<CoEfficients>(coefficients(frequencies));
             const auto file = std::make_shared<ThresholdFile>(frequencies);
             return std::vector<Contender>{
                 {"library",
                  [=] {
                      return timed([&] {
                          const EnergyPerfThreshold thresholds(set.get(), file->name());
                          if (!thresholds.isValid())
                              throw std::runtime_error("thresholds are not valid");
                      });
                  }},
                 {"floor", [=] { return timed([&] { read_lines(file->name()); }); }}};
         }});
}

}  // namespace
}  // namespace eas::bench

int main(int argc, char** argv) {
    using namespace eas::bench;
    take_options(argc, argv);
    for (const int rows : {16, 160, 1600})
        add_prediction(rows);
    for (const int frequencies : {10, 100, 1000, 10000})
        add_thresholds(frequencies);
    return run(argc, argv);
}
