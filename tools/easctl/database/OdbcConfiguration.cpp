#include "tools/easctl/database/OdbcConfiguration.h"

#include <dlfcn.h>
#include <pwd.h>
#include <strings.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace easctl {

OdbcConfiguration::OdbcConfiguration()
    : library_(::dlopen("libodbcinst.so.2", RTLD_NOW | RTLD_LOCAL)) {
    if (library_ != nullptr)
        read_ = reinterpret_cast<Read>(::dlsym(library_, "SQLGetPrivateProfileString"));
}

OdbcConfiguration::~OdbcConfiguration() {
    if (library_ != nullptr)
        ::dlclose(library_);
}

std::string OdbcConfiguration::value(const std::string& section, const std::string& key,
                                     const char* file) const {
    if (!available())
        return {};
    std::array<char, 4096> text{};
    read_(section.c_str(), key.empty() ? nullptr : key.c_str(), "", text.data(),
          static_cast<int>(text.size()) - 1, file);
    return text.data();
}

std::string OdbcConfiguration::remedy_of_denied(const std::string& file) {
    return "as root: chgrp GROUP " + file + " && chmod 640 " + file +
           ", with a group of the scheduler's daemon";
}

std::optional<OdbcConfiguration::HalfRead> OdbcConfiguration::half_read(
    const std::string& dsn) const {
    const std::vector<std::string> files = data_source_files();
    const std::string& own = files.front();
    if (files.size() == 1 || ::access(own.c_str(), R_OK) != 0 || ::access(own.c_str(), W_OK) == 0 ||
        value(dsn, "", own.c_str()).empty())
        return std::nullopt;
    return HalfRead{own +
                        ": this user may read it, but not write it: the driver manager loads the "
                        "driver, and then hands nothing of the file to it",
                    "as root: move it to odbc.ini in a folder of its own, ln -s /etc/odbcinst.ini "
                    "beside it, and set ODBCSYSINI to that folder instead of ODBCINI"};
}

bool OdbcConfiguration::can_open(const std::string& driver, std::string& why) const {
    std::vector<std::string> candidates{driver};
    Dl_info place{};
    // The driver manager looks for a bare name in the folder of drivers beside its own library.
    if (driver.find('/') == std::string::npos && available() &&
        ::dladdr(reinterpret_cast<void*>(read_), &place) != 0 && place.dli_fname != nullptr) {
        const std::string library = place.dli_fname;
        candidates.push_back(library.substr(0, library.rfind('/') + 1) + "odbc/" + driver);
    }
    for (const std::string& candidate : candidates) {
        if (::dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL) != nullptr)
            return true;
        const char* error = ::dlerror();
        why = error != nullptr ? error : candidate;
    }
    return false;
}

namespace {

std::string system_folder() {
    const char* system = std::getenv("ODBCSYSINI");
    return system != nullptr ? system : "/etc";
}

/// Where the driver manager looks for the user's data sources, whatever $HOME says; for the drivers
/// it is $HOME that counts.
std::string home_of_user() {
    const passwd* user = ::getpwuid(::getuid());
    return user != nullptr ? user->pw_dir : "/home";
}

}  // namespace

std::vector<int> OdbcConfiguration::sections(const std::string& file, const std::string& name) {
    std::vector<int> lines;
    std::ifstream in(file);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        // As the driver manager reads it: no blanks around the name, no difference of case.
        const std::size_t open = line.find_first_not_of(" \t");
        if (open == std::string::npos || line[open] != '[')
            continue;
        const std::size_t begin = line.find_first_not_of(" \t", open + 1);
        std::size_t end = line.find(']', open);
        while (end != std::string::npos && begin < end && std::strchr(" \t", line[end - 1]))
            --end;
        if (end != std::string::npos && begin < end &&
            ::strcasecmp(line.substr(begin, end - begin).c_str(), name.c_str()) == 0)
            lines.push_back(number);
    }
    return lines;
}

std::vector<std::string> OdbcConfiguration::data_source_files() {
    std::vector<std::string> files;
    const char* named = std::getenv("ODBCINI");
    files.push_back(named != nullptr ? named : home_of_user() + "/.odbc.ini");
    const std::string last = system_folder() + "/odbc.ini";
    if (files[0] != last)
        files.push_back(last);
    return files;
}

std::vector<std::string> OdbcConfiguration::driver_files() {
    std::vector<std::string> files;
    if (const char* home = std::getenv("HOME"))
        files.push_back(std::string(home) + "/.odbcinst.ini");
    const char* named = std::getenv("ODBCINSTINI");
    files.push_back(system_folder() + '/' + (named != nullptr ? named : "odbcinst.ini"));
    return files;
}

std::string OdbcConfiguration::denied_of(const std::vector<std::string>& files) {
    // That of the whole system first: a home that cannot be looked into is somebody else's.
    for (auto path = files.rbegin(); path != files.rend(); ++path) {
        const bool seen = ::access(path->c_str(), F_OK) == 0 || path == files.rbegin();
        if (seen && ::access(path->c_str(), R_OK) != 0 && errno == EACCES)
            return *path;
    }
    return {};
}

}  // namespace easctl
