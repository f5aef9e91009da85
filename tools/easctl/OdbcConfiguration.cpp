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

std::vector<std::string> OdbcConfiguration::data_source_files() {
    std::vector<std::string> files;
    const char* named = std::getenv("ODBCINI");
    const char* home = std::getenv("HOME");
    const char* system = std::getenv("ODBCSYSINI");
    if (named != nullptr)
        files.emplace_back(named);
    else if (home != nullptr)
        files.push_back(std::string(home) + "/.odbc.ini");
    files.push_back(std::string(system != nullptr ? system : "/etc") + "/odbc.ini");
    return files;
}

}  // namespace easctl
