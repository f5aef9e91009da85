// Where the database is: the data-source name in the cluster's locator file.
#pragma once

#include <cstdio>
#include <string>

/// Path of the locator file.
inline constexpr const char* cfgloc = "/etc/zemra/cfgloc";

/// The data-source name that the locator file gives; empty when the file is missing, unreadable or
/// empty, or its first line is not of the form "mysql:dbname=NAME". Not reentrant.
std::string get_dsn();

namespace eas {

/// The same for a locator file that is open at its first line.
std::string parse_locator(std::FILE* file);

}  // namespace eas
