// The library's calls, through the library that ships. Each throws when a call fails.
#pragma once

#include <eas/interface.h>

#include <cstddef>
#include <string>

#include "bench/Floor.h"

namespace eas::bench {

inline constexpr const char* model_cluster = "bench";
inline constexpr const char* threshold_file = "/thresholds.conf";  // in the database's folder

/// For a function that takes what it does not change as char*.
inline char* text(const std::string& s) {
    return const_cast<char*>(s.c_str());
}

void library_initialise();
/// ns. Giving the result back is the caller's business, and not timed.
double library_query(const Which& which, int expected);
void library_select(const Which& which);
void library_generate(const Which& which);
/// Of one tag.
void library_remove(const Which& which);

/// Bytes of a record and what it owns.
std::size_t handed_out(const energyPolicyTag_t& tag);
void free_tags(energyPolicyTag_t* tags, int count);

}  // namespace eas::bench
