// The scheduler functions' work as a user would write it on SOCI, the C++ database library.
#pragma once

#include <cstdint>
#include <string>

#include "bench/Floor.h"

namespace eas::bench {

/// The database file when the engine is SQLite; else empty.
std::string& soci_sqlite_file();

// Each opens a session of its own. They throw std::exception.

/// The number of tags.
std::size_t soci_query(const Which& which);
void soci_generate(const Which& which);
void soci_remove(const Which& which);
/// The number of rows.
std::size_t soci_initialise(const std::string& cluster);

}  // namespace eas::bench
