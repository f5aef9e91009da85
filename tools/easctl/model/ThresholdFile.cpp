#include "tools/easctl/model/ThresholdFile.h"

#include <array>
#include <utility>

#include "common/model/ThresholdListener.h"
#include "tools/easctl/cli/InputFile.h"

namespace easctl {
namespace {

using eas::LineRemark;
using eas::LineVerdict;

struct Wording {
    LineVerdict verdict;
    bool is_error;
    const char* text;  // "$" stands for the text in question, "#" for the other line
    const char* hint;
};

constexpr std::array wordings{
    Wording{LineVerdict::outside, true, "ignored: the line stands outside of both sections",
            "a section begins with \"Begin Min_Energy\" or \"Begin Min_Time\", once"},
    Wording{LineVerdict::no_assignment, true,
            "ignored: not of the form THRESHOLD_RUNTIME_VAR = PERCENT", ""},
    Wording{LineVerdict::unknown_key, true, "ignored: the only key here is THRESHOLD_RUNTIME_VAR",
            ""},
    Wording{LineVerdict::no_pair, true, "ignored: not of the form FREQUENCY PERCENT", ""},
    Wording{LineVerdict::no_number, true, "ignored: \"$\" is no plain number",
            "a percentage without sign of percent or exponent: 5, -2.5"},
    Wording{LineVerdict::limit_below_zero, true, "ignored: the percentage is below 0", ""},
    Wording{LineVerdict::demand_not_below_zero, true,
            "ignored: the percentage must be below 0, a gain of time", ""},
    Wording{LineVerdict::no_frequency, true, "ignored: \"$\" is no frequency",
            "GHz, MHz or KHz in this spelling, without a blank before it: 2400MHz"},
    Wording{LineVerdict::not_above_default, true, "ignored: $ is not above the default frequency",
            ""},
    Wording{LineVerdict::limit_given_before, true, "ignored: line # counts", ""},
    Wording{LineVerdict::demand_given_again, true, "ignored: line # gives the same frequency again",
            ""},
    Wording{LineVerdict::no_limit, false,
            "no line gives THRESHOLD_RUNTIME_VAR: no job may lose any time", ""},
    Wording{LineVerdict::no_header, true,
            "the section does not begin with the line CPU_FREQ RUNTIME_VAR",
            "the library refuses the whole file for this"},
    Wording{LineVerdict::never_closed, true, "the section that begins here is never closed",
            "add \"$\""},
    Wording{LineVerdict::empty, true, "the section is empty", ""},
    Wording{LineVerdict::no_demand, true, "no line of the section is accepted", ""},
    Wording{LineVerdict::climbs, true,
            "the values beyond this line, on the line through the last two, come out above 0",
            "give a value to the highest frequency"},
    Wording{LineVerdict::no_time_section, true,
            "there is no section Min_Time, which a cluster with frequencies above the default one "
            "needs",
            ""},
    Wording{LineVerdict::rest_unread, false, "what follows from here on is not read", ""},
};

std::string filled(const char* wording, const LineRemark& remark) {
    std::string text;
    for (const char c : std::string_view(wording)) {
        if (c == '$')
            text += remark.text;
        else if (c == '#')
            text += std::to_string(remark.other);
        else
            text += c;
    }
    return text;
}

/// Puts what the library's reader makes of the lines into words.
class Words final : public eas::ThresholdListener {
  public:
    Words(std::string path, const CoEfficients& model, ThresholdFile& file)
        : path_(std::move(path)), model_(model), file_(file) {}

    void hear(const LineRemark& remark) override {
        if (remark.verdict == LineVerdict::demand)
            file_.given[remark.frequency] = remark.line;
        else if (remark.verdict == LineVerdict::unknown_frequency)
            explain_unknown(remark);
        else if (remark.line == 1 && has_byte_order_mark(remark.text))
            file_.findings.error(
                where(remark), "ignored: the line begins with a byte order mark",
                "save the file as plain UTF-8: the library takes the mark for text");
        else
            explain(remark);
    }

  private:
    [[nodiscard]] std::string where(const LineRemark& remark) const {
        return remark.line != 0 ? place(path_, remark.line) : path_;
    }

    void explain(const LineRemark& remark) {
        for (const auto& [verdict, is_error, text, hint] : wordings) {
            if (verdict != remark.verdict)
                continue;
            const auto add = is_error ? &Findings::error : &Findings::warning;
            (file_.findings.*add)(where(remark), filled(text, remark), filled(hint, remark));
        }
    }

    void explain_unknown(const LineRemark& remark) {
        const int khz = remark.frequency;
        const bool is_cut = model_.getCoeffFreqIndex(khz + 1) >= 0;
        file_.findings.error(
            where(remark),
            "ignored: " + std::string(remark.text) + " is read as " + std::to_string(khz) +
                " kHz, " +
                (is_cut ? "since fractions of a kHz are cut off"
                        : "which the cluster does not have"),
            is_cut ? "write " + in_mhz(khz + 1) : "the cluster has " + frequencies());
    }

    static std::string in_mhz(int khz) {
        return khz % 1000 == 0 ? std::to_string(khz / 1000) + "MHz" : std::to_string(khz) + "KHz";
    }

    [[nodiscard]] std::string frequencies() const {
        std::vector<std::string> names;
        for (const int khz : model_.frequencyArray()) {
            if (khz > model_.getDefaultFrequency())
                names.push_back(in_mhz(khz));
        }
        return names.empty() ? "none above the default one" : joined(names);
    }

    std::string path_;
    const CoEfficients& model_;
    ThresholdFile& file_;
};

}  // namespace

EnergyPerfThreshold parse_thresholds(const std::string& text, CoEfficients& model) {
    EnergyPerfThreshold thresholds(&model, "");  // without a file
    thresholds.parseThresholds(stream_of(text).get());
    return thresholds;
}

ThresholdFile read_threshold_file(const std::string& path, CoEfficients& model) {
    const std::string text = read_input(path);
    ThresholdFile file{EnergyPerfThreshold(&model, ""), {}, {}};
    Words words(path, model, file);
    file.thresholds.parseThresholds(stream_of(text).get(), &words);
    if (!file.thresholds.isValid() && !file.findings.has_errors())
        file.findings.error(path, "the library refuses the file");
    return file;
}

}  // namespace easctl
