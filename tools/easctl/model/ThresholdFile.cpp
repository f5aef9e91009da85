#include "tools/easctl/model/ThresholdFile.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/Numbers.h"
#include "common/model/TextHelpers.h"
#include "tools/easctl/cli/InputFile.h"

namespace easctl {
namespace {

namespace keyword = eas::threshold_keyword;

bool is(const std::string& line, std::string_view keyword) {
    return eas::compare_section(line, keyword) == 0;
}

/// Walks the file as the library does, and says of every line that it drops why.
class Walk {
  public:
    Walk(std::string path, const CoEfficients& model, ThresholdFile& file)
        : path_(std::move(path)), model_(model), file_(file) {}

    void run(std::FILE* stream) {
        std::array<char, 1024> buffer;
        int line = 1;
        while (std::fgets(buffer.data(), static_cast<int>(buffer.size()), stream) != nullptr) {
            const bool whole = std::strchr(buffer.data(), '\n') != nullptr;
            if (buffer[0] != '#') {
                if (char* comment = std::strchr(buffer.data(), '#'))
                    *comment = '\0';
                const std::string text = ltrunc(buffer.data());
                if (!text.empty())
                    take(text, line);
            }
            line += whole ? 1 : 0;
        }
        conclude();
    }

  private:
    struct Section {
        int opened = 0;  ///< the line; 0: not yet
        bool closed = false;
        int lines = 0;
        [[nodiscard]] bool open() const { return opened != 0 && !closed; }
    };

    void drop(int line, const std::string& why, const std::string& hint = {}) {
        file_.findings.error(place(path_, line), why, hint);
    }

    void take(const std::string& text, int line) {
        if (energy_.closed && time_.closed) {
            if (!std::exchange(said_rest_, true))
                file_.findings.warning(place(path_, line), "nothing is read from here on");
        } else if (energy_.open()) {
            take_inside(energy_, keyword::EEND, text, line, &Walk::take_energy);
        } else if (time_.open()) {
            take_inside(time_, keyword::TEND, text, line, &Walk::take_time);
        } else if (energy_.opened == 0 && is(text, keyword::EBEG)) {
            energy_.opened = line;
        } else if (time_.opened == 0 && is(text, keyword::TBEG)) {
            time_.opened = line;
        } else if (line == 1 && has_byte_order_mark(text)) {
            drop(line, "ignored: the line begins with a byte order mark",
                 "save the file as plain UTF-8: the library takes the mark for text");
        } else {
            drop(line, "ignored: the line stands outside of both sections",
                 "a section begins with \"Begin Min_Energy\" or \"Begin Min_Time\", once");
        }
    }

    void take_inside(Section& section, std::string_view end, const std::string& text, int line,
                     void (Walk::*take_line)(const std::string&, int)) {
        if (is(text, end)) {
            section.closed = true;
            return;
        }
        (this->*take_line)(text, line);
        ++section.lines;
    }

    void take_energy(const std::string& text, int line) {
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos || equals == 0 || equals + 1 == text.size())
            return drop(line, "ignored: not of the form THRESHOLD_RUNTIME_VAR = PERCENT");
        const std::string key = text.substr(0, std::min(equals, text.find_first_of(" \t")));
        if (!is(key, keyword::TKEY))
            return drop(line, "ignored: the only key here is THRESHOLD_RUNTIME_VAR");
        std::string value = text.substr(equals + 1);
        value.erase(0, value.find_last_of(" \t") + 1);  // to 0, without a blank
        if (isfloat(value.c_str()) == 0)
            return drop(line, "ignored: \"" + value + "\" is no plain number",
                        "a percentage without sign of percent or exponent: 5, 2.5");
        if (!(eas::to_double(value.c_str()) >= 0.0))
            return drop(line, "ignored: the percentage is below 0");
        if (limit_line_ != 0)
            return drop(line, "ignored: line " + std::to_string(limit_line_) + " counts");
        limit_line_ = line;
    }

    void take_time(const std::string& text, int line) {
        if (time_.lines == 0) {
            if (text.find_first_of(" \t") == std::string::npos || !is(text, keyword::FREQ_TVAR))
                drop(line, "the section does not begin with the line CPU_FREQ RUNTIME_VAR",
                     "the library refuses the whole file for this");
            return;
        }
        const std::size_t first = text.find_first_of(" \t");
        if (first == std::string::npos)
            return drop(line, "ignored: not of the form FREQUENCY PERCENT");
        const std::string frequency = text.substr(0, first);
        const std::string value = text.substr(text.find_last_of(" \t") + 1);
        const int khz = accepted_frequency(frequency, line);
        if (khz == 0 || !accepted_value(value, line))
            return;
        const auto [entry, is_new] = file_.given.emplace(khz, line);
        if (!is_new)
            drop(std::exchange(entry->second, line),
                 "ignored: line " + std::to_string(line) + " gives the same frequency again");
    }

    /// KHz as the library reads a frequency; 0 or less when it cannot.
    [[nodiscard]] int read_frequency(const std::string& text) const {
        int khz = 0;
        for (const char* unit : {"GHz", "MHz", "KHz"}) {
            khz = file_.thresholds.get_freq_by_unit(text, unit);
            if (khz >= 1)
                return khz;
        }
        return khz == 0 && isfloat(text.c_str()) != 0
                   ? eas::truncate_to_int(1e6 * eas::to_double(text.c_str()))
                   : -1;
    }

    /// The frequency if the library accepts it, else 0.
    int accepted_frequency(const std::string& text, int line) {
        int khz = 0;
        if (file_.thresholds.get_freq(text, khz) == 0)
            return khz;
        khz = read_frequency(text);
        const int default_khz = model_.getDefaultFrequency();
        if (khz < 1) {
            drop(line, "ignored: \"" + text + "\" is no frequency",
                 "GHz, MHz or KHz in this spelling, without a blank before it: 2400MHz");
        } else if (model_.getCoeffFreqIndex(khz) < 0) {
            const int near = neighbour(khz);
            drop(line,
                 "ignored: " + text + " is read as " + std::to_string(khz) + " KHz, " +
                     (near != 0 ? "since fractions of a KHz are cut off"
                                : "which the cluster does not have"),
                 near != 0 ? "write " + in_mhz(near) : "the cluster has " + frequencies());
        } else if (khz <= default_khz) {
            drop(line,
                 "ignored: " + text + " is not above the default frequency, " + ghz(default_khz));
        }
        return 0;
    }

    /// The cluster's frequency that a number missed only by being cut; 0: none.
    [[nodiscard]] int neighbour(int khz) const {
        return model_.getCoeffFreqIndex(khz + 1) >= 0 ? khz + 1 : 0;
    }

    static std::string in_mhz(int khz) {
        return khz % 1000 == 0 ? std::to_string(khz / 1000) + "MHz" : std::to_string(khz) + "KHz";
    }

    [[nodiscard]] std::string frequencies() const {
        std::string text;
        for (const int khz : model_.frequencyArray()) {
            if (khz > model_.getDefaultFrequency())
                text += (text.empty() ? "" : ", ") + in_mhz(khz);
        }
        return text.empty() ? "none above the default one" : text;
    }

    bool accepted_value(const std::string& text, int line) {
        double value = 0.0;
        if (file_.thresholds.get_timevar(text, value) == 0)
            return true;
        if (isfloat(text.c_str()) == 0)
            drop(line, "ignored: \"" + text + "\" is no plain number",
                 "a percentage without sign of percent or exponent: -5, -2.5");
        else
            drop(line, "ignored: the percentage must be below 0, a gain of time");
        return false;
    }

    void conclude() {
        for (const Section* section : {&energy_, &time_}) {
            if (section->open())
                drop(section->opened, "the section that begins here is never closed",
                     section == &energy_ ? "add \"End Min_Energy\"" : "add \"End Min_Time\"");
            else if (section->closed && section->lines == 0 && section == &time_)
                drop(section->opened, "the section is empty");
        }
        if (energy_.closed && limit_line_ == 0)
            file_.findings.warning(place(path_, energy_.opened),
                                   "no line gives THRESHOLD_RUNTIME_VAR: no job may lose any time");
        if (!file_.thresholds.isValid())
            explain_refusal();
    }

    void explain_refusal() {
        const bool top = model_.getNominalFrequency() == model_.getDefaultFrequency();
        if (time_.opened == 0 && !top)
            file_.findings.error(path_,
                                 "there is no section Min_Time, which a cluster with "
                                 "frequencies above the default one needs");
        else if (time_.closed && time_.lines > 0 && file_.given.empty() && !top)
            drop(time_.opened, "no line of the section is accepted");
        else if (time_.closed && !file_.given.empty())
            drop(file_.given.rbegin()->second,
                 "the values beyond this line, on the line through the last two, come out above 0",
                 "give the highest frequency a value: " + frequencies());
        else if (!file_.findings.has_errors())
            file_.findings.error(path_, "the library refuses the file");
    }

    std::string path_;
    const CoEfficients& model_;
    ThresholdFile& file_;
    Section energy_;
    Section time_;
    int limit_line_ = 0;
    bool said_rest_ = false;
};

}  // namespace

EnergyPerfThreshold parse_thresholds(const std::string& text, CoEfficients& model) {
    EnergyPerfThreshold thresholds(&model, "");  // without a file
    thresholds.parseThresholds(stream_of(text).get());
    return thresholds;
}

ThresholdFile read_threshold_file(const std::string& path, CoEfficients& model) {
    const std::string text = read_input(path);
    ThresholdFile file{parse_thresholds(text, model), {}, {}};
    Walk(path, model, file).run(stream_of(text).get());
    return file;
}

}  // namespace easctl
