#include "tests/support/ScratchDatabase.h"

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/support/DriverLeaks.h"

namespace eas::test {
namespace {

using Keywords = std::map<std::string, std::string>;

std::string server_folder = EAS_TEST_MARIADB_DIR;

/// The path of the server's socket; empty when no server runs for the tests.
std::string server_socket() {
    std::ifstream in(std::filesystem::path(server_folder) / "socket");
    std::string path;
    std::getline(in, path);
    return path;
}

/// A sample data source with other values for some keywords; an empty value removes one.
std::string with_keywords(const std::string& sample, Keywords keywords) {
    std::istringstream in(sample);
    std::string out;
    for (std::string line; std::getline(in, line);) {
        const auto found = keywords.find(line.substr(0, line.find(" = ")));
        if (found == keywords.end()) {
            out += line + '\n';
        } else {
            if (!found->second.empty())
                out += found->first + " = " + found->second + '\n';
            keywords.erase(found);
        }
    }
    for (const auto& [key, text] : keywords) {
        if (!text.empty())
            out += key + " = " + text + '\n';
    }
    return out;
}

}  // namespace

std::string name_of(Engine engine) {
    return engine == Engine::sqlite ? "sqlite" : "mariadb";
}

std::string source_file(const std::string& name) {
    const std::string text = read_file(std::filesystem::path(EAS_SOURCE_DIR) / name);
    if (text.empty())
        throw std::runtime_error("cannot read " + name);
    return text;
}

void ScratchDatabase::use_server(const std::string& folder) {
    server_folder = folder;
}

void ScratchDatabase::reconnect() {
    plain_ = std::make_unique<PlainOdbc>("easdb");
}

std::optional<std::string> ScratchDatabase::missing(Engine engine) {
    if (engine == Engine::mariadb && server_socket().empty()) {
        return std::string(
                   "no MariaDB server: install mariadb-server, then run through ctest, or "
                   "tests/support/mariadb-server.sh start ") +
               server_folder;
    }
    return std::nullopt;
}

ScratchDatabase::ScratchDatabase(Engine engine, const Keywords& keywords, bool pooled)
    : engine_(engine) {
    schema_ =
        "eas_" + std::to_string(::getpid()) + folder().extension().string().replace(0, 1, "_");
    write_configuration(keywords, pooled);
    ::setenv("ODBCINI", (folder() / "odbc.ini").c_str(), 1);
    ::setenv("ODBCSYSINI", folder().c_str(), 1);
    if (engine == Engine::mariadb)
        PlainOdbc("server").run("create database " + schema_);
    plain_ = std::make_unique<PlainOdbc>("easdb");
    keep_drivers_mapped();
    plain_->run_script(source_file("sql/" + name_of(engine) + ".sql"));
}

void ScratchDatabase::write_configuration(const Keywords& keywords, bool pooled) const {
    std::string drivers = source_file("examples/odbc/odbcinst.ini");
    if (pooled) {
        drivers += "\n[ODBC]\nPooling = Yes\n";
        const std::string setting = "\nCPTimeout = 60";
        for (std::size_t at = 0; (at = drivers.find("\nDriver =", at)) != std::string::npos;
             at += setting.size() + 1)
            drivers.insert(at, setting);
    }
    std::ofstream(folder() / "odbcinst.ini") << drivers;
    Keywords all = keywords;
    std::ofstream odbc_ini(folder() / "odbc.ini");
    if (engine_ == Engine::sqlite) {
        all.insert({{"Database", (folder() / "easdb.sqlite").string()}, {"SyncPragma", "OFF"}});
    } else {
        const std::string socket = server_socket();
        all.insert({{"SERVER", ""}, {"PORT", ""}, {"SOCKET", socket}, {"DATABASE", schema_}});
        all.insert({{"UID", "root"}, {"PWD", ""}});
        odbc_ini << "[server]\nDriver = MariaDB Unicode\nUID = root\nSOCKET = " << socket << "\n\n";
    }
    odbc_ini << with_keywords(source_file("examples/odbc/odbc.ini." + name_of(engine_)), all);
}

ScratchDatabase::~ScratchDatabase() {
    try {
        if (engine_ == Engine::mariadb)
            PlainOdbc("server").run("drop database " + schema_);
    } catch (const std::runtime_error& e) {
        ADD_FAILURE() << e.what();
    }
}

void ScratchDatabase::seed_coefficients(const std::string& cluster, int default_frequency,
                                        int first, int step, int count) {
    for (int i = count - 1; i >= 0; --i) {
        const int frequency = first + i * step;
        std::string values = std::to_string(frequency) + "," + std::to_string(default_frequency);
        values += ",?";
        for (int factor = 1; factor <= 6; ++factor) {
            const bool is_default = frequency == default_frequency;
            values += is_default ? ",0" : "," + std::to_string(factor * frequency / 1e6);
        }
        plain_->run("insert into TQVN_EnergyCoEfficients values (" + values + ")", {cluster});
    }
}

std::int64_t ScratchDatabase::rows(const std::string& table, const std::string& condition) {
    return plain_->number("select count(*) from " + table + " " + condition);
}

}  // namespace eas::test
