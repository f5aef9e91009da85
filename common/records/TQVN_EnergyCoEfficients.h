// One row of the table TQVN_EnergyCoEfficients: the model coefficients of a cluster at one
// frequency.
#pragma once

#include <cstdint>
#include <ostream>

#include "db/base_class/TableRecord.h"

struct EnergyCoEfficientsRow {
    std::int32_t _frequency = 0;          ///< kHz
    std::int32_t _default_frequency = 0;  ///< kHz; the coefficients are relative to it
    char _cluster_name[41] = "";
    double _factor_a = 0.0;
    double _factor_b = 0.0;
    double _factor_c = 0.0;
    double _factor_d = 0.0;
    double _factor_e = 0.0;
    double _factor_f = 0.0;
};

class TQVN_EnergyCoEfficients : public eas::RecordOf<EnergyCoEfficientsRow> {
  public:
    const std::type_info& typeinfo() override;
    /// The record, after three lines with the places of its members for a debugger's session.
    void dump(std::ostream& out) override;
    /// The record alone.
    void dump1(std::ostream& out);

  private:
    [[nodiscard]] eas::Table table() const override;
};
