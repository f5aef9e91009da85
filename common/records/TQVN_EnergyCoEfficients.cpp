#include "common/records/TQVN_EnergyCoEfficients.h"

#include <array>
#include <cstddef>

namespace {

using Row = EnergyCoEfficientsRow;
using eas::column;

// The type is spelt out: g++ leaves a table whose type is deduced in writable memory.
constexpr std::array<eas::Column, 9> columns{
    column<decltype(Row::_frequency)>("frequency", offsetof(Row, _frequency)),
    column<decltype(Row::_default_frequency)>("default_frequency",
                                              offsetof(Row, _default_frequency)),
    column<decltype(Row::_cluster_name)>("cluster_name", offsetof(Row, _cluster_name)),
    column<decltype(Row::_factor_a)>("factor_a", offsetof(Row, _factor_a)),
    column<decltype(Row::_factor_b)>("factor_b", offsetof(Row, _factor_b)),
    column<decltype(Row::_factor_c)>("factor_c", offsetof(Row, _factor_c)),
    column<decltype(Row::_factor_d)>("factor_d", offsetof(Row, _factor_d)),
    column<decltype(Row::_factor_e)>("factor_e", offsetof(Row, _factor_e)),
    column<decltype(Row::_factor_f)>("factor_f", offsetof(Row, _factor_f)),
};

}  // namespace

eas::Table TQVN_EnergyCoEfficients::table() const {
    return {"TQVN_EnergyCoEfficients", columns.data(), columns.size()};
}

const std::type_info& TQVN_EnergyCoEfficients::typeinfo() {
    return typeid(*this);
}

void TQVN_EnergyCoEfficients::dump(std::ostream& out) {
    if (_columns == 0)
        return;
    out << " &_columns = " << &_columns << "\n" << std::flush;
    out << " &_ind= " << &_ind << "\n" << std::flush;
    out << " &_frequency = " << &_frequency << "\n" << std::flush;
    dump_columns(out);
}

void TQVN_EnergyCoEfficients::dump1(std::ostream& out) {
    TableRecord::dump(out);
}
