#include "tools/easctl/model/MeasurementFile.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "tools/easctl/cli/CsvFile.h"
#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/Output.h"
#include "tools/easctl/cli/Units.h"

namespace easctl {
namespace {

constexpr std::size_t longest_name = 64;

}  // namespace

void KernelRun::add(const KernelRun& other) {
    const double seconds = elapsed_s + other.elapsed_s;
    power_w = (power_w * elapsed_s + other.power_w * other.elapsed_s) / seconds;
    elapsed_s = seconds;
    cycles += other.cycles;
    instructions += other.instructions;
    memory_bytes += other.memory_bytes;
    runs += other.runs;
}

/// One pass over the file.
class MeasurementFile::Reader {
  public:
    Reader(MeasurementFile& into, CsvFile& csv) : into_(into), csv_(csv) {
        for (std::size_t i = 0; i < column_.size(); ++i) {
            const auto place = csv.column(measurement_columns[i]);
            if (!place)
                throw Failure(ExitCode::input,
                              csv.where() + ": no column \"" + measurement_columns[i] + "\"",
                              "name these columns in the first line: " + all_columns());
            column_[i] = *place;
        }
        nominal_ = csv.column("nominal_khz");
        meter_ = csv.column("meter");
    }

    void read_rows() {
        for (auto step = csv_.next(); step != CsvFile::Step::end; step = csv_.next()) {
            if (step == CsvFile::Step::bad_row)
                fail(csv_.problem());
            read_row();
        }
    }

  private:
    enum Column { kernel, frequency, elapsed, power, cycles, instructions, bytes };

    static std::string all_columns() {
        std::string text;
        for (const char* name : measurement_columns)
            text += (text.empty() ? "" : ",") + std::string(name);
        return text;
    }

    [[noreturn]] void fail(const std::string& what) const {
        throw Failure(ExitCode::input, csv_.where() + ": " + what);
    }

    [[nodiscard]] std::string text(std::size_t place) const {
        return std::string(csv_.fields()[place]);
    }

    [[nodiscard]] double positive(Column which, bool zero_too = false) const {
        const auto value = parse_number(csv_.fields()[column_[which]]);
        if (!value || *value < 0 || (!zero_too && *value == 0))
            fail(std::string(measurement_columns[which]) + ": \"" + text(column_[which]) +
                 "\" is not a number " + (zero_too ? "of 0 or more" : "above 0"));
        return *value;
    }

    [[nodiscard]] int khz(std::size_t place, const char* name) const {
        const auto value = parse_number(csv_.fields()[place]);
        if (!value || *value < lowest_khz || *value > highest_khz || *value != std::floor(*value))
            fail(std::string(name) + ": \"" + text(place) +
                 "\" is not a frequency in kHz; 2.3 GHz is 2300000");
        return static_cast<int>(*value);
    }

    [[nodiscard]] std::size_t kernel_index() {
        const std::string name = text(column_[kernel]);
        if (name.empty() || name.size() > longest_name || printable(name) != name)
            fail("kernel: a name has 1 to 64 characters, none of them a control character");
        auto& known = into_.kernels_;
        const auto found = std::find_if(known.begin(), known.end(),
                                        [&](const KernelName& one) { return one.name == name; });
        const auto index = static_cast<std::size_t>(found - known.begin());
        if (found == known.end())
            known.push_back({name, csv_.lines().line()});
        return index;
    }

    void read_row() {
        const int at = khz(column_[frequency], measurement_columns[frequency]);
        KernelRun run{positive(elapsed),      positive(power),       positive(cycles),
                      positive(instructions), positive(bytes, true), 1};
        const std::size_t index = kernel_index();
        into_.frequencies_.try_emplace(at, csv_.lines().line());
        into_.runs_[{index, at}].add(run);
        if (meter_)
            check_meter(text(*meter_));
        if (!nominal_)
            return;
        const int nominal = khz(*nominal_, "nominal_khz");
        if (into_.nominal_khz_ != 0 && into_.nominal_khz_ != nominal)
            fail("nominal_khz: " + std::to_string(nominal) + " here, " +
                 std::to_string(into_.nominal_khz_) + " above: measurements of different nodes");
        into_.nominal_khz_ = nominal;
    }

    void check_meter(const std::string& meter) {
        if (!into_.meter_.empty() && into_.meter_ != meter)
            fail("meter: \"" + meter + "\" here, \"" + into_.meter_ +
                 "\" above: what two meters measured has no common measure");
        into_.meter_ = meter;
    }

    MeasurementFile& into_;
    CsvFile& csv_;
    std::array<std::size_t, measurement_columns.size()> column_{};
    std::optional<std::size_t> nominal_, meter_;
};

MeasurementFile::MeasurementFile(const std::string& path) : path_(path) {
    CsvFile csv(path);
    Reader(*this, csv).read_rows();
}

const KernelRun* MeasurementFile::find(std::size_t kernel, int khz) const {
    const auto found = runs_.find({kernel, khz});
    return found != runs_.end() ? &found->second : nullptr;
}

}  // namespace easctl
