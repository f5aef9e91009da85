// One row of the table TQVN_EnergyPolicyTag: what a tag predicts for one frequency.
#pragma once

#include <cstdint>

#include "db/base_class/TableRecord.h"

/// Nothing here is initialised: a tag has many rows, and each fills every field that it selects.
struct EnergyPolicyTagRow {
    char _energy_tag_name[257];
    char _user_name[257];
    std::int32_t _default_frequency;  ///< kHz
    char _cluster_name[41];
    std::int32_t _frequency;  ///< kHz
    char _job_id[1025];
    double _predict_power;              ///< W
    double _energy_saving_pct;          ///< fraction
    std::int32_t _predict_elapse_time;  ///< s
    double _perf_degrad_pct;            ///< fraction
    std::int64_t _create_time;          ///< s since 1970
};

class TQVN_EnergyPolicyTag : public eas::RecordOf<EnergyPolicyTagRow> {
  public:
    /// Written out, so that "TQVN_EnergyPolicyTag()" does not fill the fields with zeros either.
    TQVN_EnergyPolicyTag() noexcept {}  // NOLINT(modernize-use-equals-default)

    const std::type_info& typeinfo() override;

  private:
    [[nodiscard]] eas::Table table() const override;
};
