// Runs from the output of "sacct --parsable2".
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/easctl/history/RunReader.h"

namespace easctl {

/// The columns that easctl asks for. The last one may hold the separator.
inline constexpr const char* sacct_columns =
    "JobIDRaw,User,Account,Cluster,Start,End,State,NNodes,AdminComment";

/// Whether a first line names a job and an AdminComment.
bool is_sacct_header(std::string_view line);

/// A time as sacct writes it: seconds since 1970, or YYYY-MM-DDTHH:MM:SS of this machine's time
/// zone; no value for any other text ("Unknown", "None").
std::optional<double> parse_time(std::string_view text);

class SacctTable : public RunForm {
  public:
    /// Throws Failure when a column is named twice.
    explicit SacctTable(LineReader lines);

    Step next(Run& run) override;
    [[nodiscard]] const LineReader& lines() const override { return lines_; }

  private:
    using Place = std::optional<std::size_t>;

    Place find(std::string_view name) const;
    bool split(std::string_view line);
    [[nodiscard]] std::string_view field(Place place) const {
        return place ? fields_[*place] : std::string_view();
    }
    void take(Run& run) const;

    LineReader lines_;
    std::vector<std::string> columns_;
    std::vector<std::string_view> fields_;
    Place job_, user_, account_, cluster_, start_, end_, nodes_, comment_;
};

}  // namespace easctl
