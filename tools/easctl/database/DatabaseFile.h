// The file behind a SQLite data source, looked at before the driver is: that says of every trouble
// only that it cannot connect, and makes an empty file where a path is wrong.
#pragma once

#include <optional>
#include <string>

namespace easctl {

struct FileTrouble {
    bool denied;       ///< else something is missing
    bool can_be_made;  ///< only the file is missing, not its folder
    std::string found;
    std::string remedy;
};

/// What keeps this user from reading the file; empty also where the data source has none.
std::optional<FileTrouble> trouble_with_file(const std::string& dsn);
/// What keeps this user from changing it; it can be read.
std::optional<FileTrouble> trouble_with_writing(const std::string& dsn);

}  // namespace easctl
