#include "common/records/TQVN_EnergyPolicyTag.h"

#include <array>
#include <cstddef>

namespace {

using Row = EnergyPolicyTagRow;
using eas::column;

// The type is spelt out: g++ leaves a table whose type is deduced in writable memory.
constexpr std::array<eas::Column, 11> columns{
    column<decltype(Row::_energy_tag_name)>("energy_tag_name", offsetof(Row, _energy_tag_name)),
    column<decltype(Row::_user_name)>("user_name", offsetof(Row, _user_name)),
    column<decltype(Row::_default_frequency)>("default_frequency",
                                              offsetof(Row, _default_frequency)),
    column<decltype(Row::_cluster_name)>("cluster_name", offsetof(Row, _cluster_name)),
    column<decltype(Row::_frequency)>("frequency", offsetof(Row, _frequency)),
    column<decltype(Row::_job_id)>("job_id", offsetof(Row, _job_id)),
    column<decltype(Row::_predict_power)>("predict_power", offsetof(Row, _predict_power)),
    column<decltype(Row::_energy_saving_pct)>("energy_saving_pct",
                                              offsetof(Row, _energy_saving_pct)),
    column<decltype(Row::_predict_elapse_time)>("predict_elapse_time",
                                                offsetof(Row, _predict_elapse_time)),
    column<decltype(Row::_perf_degrad_pct)>("perf_degrad_pct", offsetof(Row, _perf_degrad_pct)),
    column<decltype(Row::_create_time)>("create_time", offsetof(Row, _create_time)),
};

}  // namespace

eas::Table TQVN_EnergyPolicyTag::table() const {
    return {"TQVN_EnergyPolicyTag", columns.data(), columns.size()};
}

const std::type_info& TQVN_EnergyPolicyTag::typeinfo() {
    return typeid(*this);
}
