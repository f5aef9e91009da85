// The floor: the library's ODBC conversations call for call, straight to the driver manager, and
// nothing else: what is fetched stays where the driver wrote it. Also what a scheduler that is
// written on a database library would do (SOCI, see SociClient.h) works on these rows.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <cstdint>
#include <string>

namespace eas::bench {

/// A row of TQVN_EnergyPolicyTag.
struct TagRow {
    char tag[257];
    char user[257];
    std::int32_t default_frequency;
    char cluster[41];
    std::int32_t frequency;
    char job[1025];
    double power;
    double saving;
    std::int32_t time;
    double degradation;
    std::int64_t created;
};

constexpr int default_frequency = 2000000;  // kHz
constexpr int frequencies_per_tag = 16;

/// One tag of one user, or all tags of a cluster when they are empty.
struct Which {
    std::string cluster;
    std::string user;
    std::string tag;

    [[nodiscard]] std::string condition() const;
};

// Each opens a connection of its own, as the library does. They throw std::runtime_error.

/// The number of rows.
std::int64_t floor_query(const Which& which);
void floor_generate(const Which& which);
void floor_remove(const Which& which);
/// The coefficients of a cluster. The number of rows.
std::int64_t floor_initialise(const std::string& cluster);

}  // namespace eas::bench
