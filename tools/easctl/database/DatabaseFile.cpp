#include "tools/easctl/database/DatabaseFile.h"

#include <pwd.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "tools/easctl/database/OdbcConfiguration.h"

namespace easctl {
namespace {

bool is_sqlite(const OdbcConfiguration& odbc, const std::string& driver) {
    return ::strcasestr(driver.c_str(), "sqlite") != nullptr ||
           ::strcasestr(odbc.value(driver, "Driver", "odbcinst.ini").c_str(), "sqlite") != nullptr;
}

/// Empty where there is no file, or one that only SQLite can tell.
std::string path_of(const std::string& dsn) {
    const OdbcConfiguration odbc;
    if (!is_sqlite(odbc, odbc.value(dsn, "Driver", "odbc.ini")))
        return {};
    const std::string path = odbc.value(dsn, "Database", "odbc.ini");
    return path.empty() || path[0] == ':' || path.compare(0, 5, "file:") == 0 ? std::string()
                                                                              : path;
}

std::string folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return path.substr(0, std::max<std::size_t>(slash, 1));
}

std::string user_name() {
    const passwd* user = ::getpwuid(::geteuid());
    return user != nullptr ? user->pw_name : std::to_string(::geteuid());
}

FileTrouble denied(const std::string& path, const std::string& what, const std::string& remedy) {
    return {true, false, path + ": " + what + " for user " + user_name(), remedy};
}

FileTrouble without_way_to(const std::string& path) {
    const std::string folder = folder_of(path);
    return denied(path, "out of reach",
                  "as root: chmod o+x " + folder + ", and the folders above it");
}

FileTrouble missing(const std::string& path, const std::string& dsn) {
    struct stat status {};
    const std::string folder = folder_of(path);
    if (::stat(folder.c_str(), &status) != 0)
        return {false, false, path + ": there is no such folder",
                "mkdir -p " + folder + ", then easctl db init --dsn " + dsn +
                    "; or correct Database in [" + dsn + "] of odbc.ini"};
    if (::access(folder.c_str(), W_OK) != 0)
        return {
            false, false, path + ": there is no such file",
            "as root: chown " + user_name() + ' ' + folder + ", then easctl db init --dsn " + dsn};
    return {false, true, path + ": there is no such file",
            "easctl db init --dsn " + dsn + " makes it; or correct Database in [" + dsn +
                "] of odbc.ini"};
}

}  // namespace

std::optional<FileTrouble> trouble_with_file(const std::string& dsn) {
    const std::string path = path_of(dsn);
    struct stat status {};
    if (path.empty())
        return std::nullopt;
    if (::stat(path.c_str(), &status) != 0)
        return errno == EACCES ? without_way_to(path) : missing(path, dsn);
    if (S_ISDIR(status.st_mode))
        return FileTrouble{false, false, path + ": is a folder, not a file",
                           "correct Database in [" + dsn + "] of odbc.ini"};
    if (::access(path.c_str(), R_OK) != 0)
        return denied(path, "not readable",
                      "as root: chown " + user_name() + ' ' + path +
                          ", if the scheduler's daemon runs as " + user_name());
    return std::nullopt;
}

std::optional<FileTrouble> trouble_with_writing(const std::string& dsn) {
    const std::string path = path_of(dsn);
    if (path.empty())
        return std::nullopt;
    // SQLite keeps its journal in the folder.
    for (const std::string& one : {path, folder_of(path)}) {
        if (::access(one.c_str(), W_OK) == 0)
            continue;
        if (errno == EROFS)
            return FileTrouble{true, false, one + ": " + std::strerror(EROFS),
                               "name a file on another file system in [" + dsn + "] of odbc.ini"};
        return denied(one, "not writable",
                      "as root: chown " + user_name() + ' ' + folder_of(path) + ' ' + path +
                          ", if the scheduler's daemon runs as " + user_name());
    }
    return std::nullopt;
}

}  // namespace easctl
