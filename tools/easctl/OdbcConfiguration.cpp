#include "tools/easctl/OdbcConfiguration.h"

#include <dlfcn.h>

#include <array>
#include <cstdlib>

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

std::vector<std::string> OdbcConfiguration::data_source_files() {
    std::vector<std::string> files;
    const char* named = std::getenv("ODBCINI");
    const char* home = std::getenv("HOME");
    const char* system = std::getenv("ODBCSYSINI");
    if (named != nullptr)
        files.emplace_back(named);
    else if (home != nullptr)
        files.push_back(std::string(home) + "/.odbc.ini");
    const std::string last = std::string(system != nullptr ? system : "/etc") + "/odbc.ini";
    if (files.empty() || files[0] != last)
        files.push_back(last);
    return files;
}

}  // namespace easctl
