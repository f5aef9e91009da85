#include "tools/easctl/database/Diagnostics.h"

#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <string_view>

#include "db/base_class/DBTracer.h"
#include "tools/easctl/database/OdbcConfiguration.h"

namespace easctl {

Diagnostics::Diagnostics() : log_(::memfd_create("easctl", MFD_CLOEXEC)) {
    DBTracer::setlogmask(1 << eas::severity_error);
    DBTracer::logprefix(false);
    dbtrace_config(log_.get());
}

Diagnostics::~Diagnostics() {
    dbtrace_config(-1);
}

std::string Diagnostics::take() {
    std::string text(static_cast<std::size_t>(::lseek(log_.get(), 0, SEEK_END) - read_), '\0');
    const ssize_t length = ::pread(log_.get(), text.data(), text.size(), read_);
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    read_ += length > 0 ? length : 0;
    std::string said;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        line.erase(line.find_last_not_of(" \r") + 1);
        if (line.empty() || said.find(line) != std::string::npos)
            continue;
        said += (said.empty() ? "" : "; ") + line;
    }
    return said;
}

std::string advice_on(const std::string& said, const std::string& dsn) {
    struct Advice {
        std::string_view mark;
        std::string_view text;
    };
    static constexpr std::string_view no_such_source = "SQL State=IM002";
    static constexpr std::string_view damaged_file =
        "the file that [%] names as Database is damaged, or no database of SQLite: put a backup in "
        "its place, or move it away and make a new one with easctl db init";
    static constexpr std::array advice{
        Advice{no_such_source, "add a section [%] to /etc/odbc.ini, or name another with --dsn"},
        Advice{"an't open lib",
               "install the driver (libsqliteodbc or odbc-mariadb) and see /etc/odbcinst.ini"},
        Advice{"SQL State=28000",
               "the account of [%] is wrong: UID and PWD in odbc.ini, or --user "
               "with EASCTL_DB_PASSWORD"},
        Advice{"ccess denied", "the account of [%] may not do this: see mariadb-grants.sql"},
        Advice{"command denied", "the account of [%] may not do this: see mariadb-grants.sql"},
        Advice{"an't connect", "does the server run, and are SERVER, PORT or SOCKET of [%] right?"},
        Advice{"SQL State=08", "does the server run, and are SERVER, PORT or SOCKET of [%] right?"},
        Advice{"Unknown database",
               "create the database that [%] names as DATABASE, then run "
               "easctl db init"},
        Advice{"unable to open database",
               "the file that [%] names as Database, and its folder, "
               "must exist and be writable for this user"},
        Advice{"readonly database", "this user may not write the file that [%] names as Database"},
        Advice{"not a database", damaged_file},
        Advice{"malformed", damaged_file},
        Advice{"database is locked", "another process holds the file; raise Timeout in [%]"},
        Advice{"no such table", "make the tables with: easctl db init --dsn %"},
        Advice{"doesn't exist", "make the tables with: easctl db init --dsn %"},
        Advice{"SQL State=42S02", "make the tables with: easctl db init --dsn %"},
    };
    std::string denied = OdbcConfiguration::denied_of(OdbcConfiguration::data_source_files());
    if (denied.empty())
        denied = OdbcConfiguration::denied_of(OdbcConfiguration::driver_files());
    for (const Advice& one : advice) {
        if (said.find(one.mark) == std::string::npos)
            continue;
        if (one.mark == no_such_source && !denied.empty())
            return OdbcConfiguration::remedy_of_denied(denied);
        std::string text(one.text);
        const std::size_t place = text.find('%');
        return place == std::string::npos ? text : text.replace(place, 1, dsn);
    }
    return {};
}

}  // namespace easctl
