// A database for one test: its own folder with the ODBC configuration that is sampled in
// examples/odbc, the data source "easdb" with the tables of sql/, and nothing left at the end.
//
// The configuration is named by ODBCINI and ODBCSYSINI for the whole process; one exists at a time.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "gtest/gtest.h"
#include "tests/support/PlainOdbc.h"
#include "tests/support/ScratchFolder.h"

namespace eas::test {

enum class Engine { sqlite, mariadb };

/// "sqlite" or "mariadb"; also as the suffix of a test that runs on both.
std::string name_of(Engine engine);
inline std::string engine_suffix(const ::testing::TestParamInfo<Engine>& info) {
    return name_of(info.param);
}
inline void PrintTo(Engine engine, std::ostream* out) {
    *out << name_of(engine);
}
inline auto both_engines() {
    return ::testing::Values(Engine::sqlite, Engine::mariadb);
}

class ScratchDatabase {
  public:
    /// Why there can be none of this engine here, or nothing.
    static std::optional<std::string> missing(Engine engine);

    /// From now on the server is that of mariadb-server.sh in `folder`.
    static void use_server(const std::string& folder);

    /// `keywords` replace or add keywords of the data source; `pooled` has the driver manager pool
    /// connections, all those of the process. Throws std::runtime_error.
    explicit ScratchDatabase(Engine engine, const std::map<std::string, std::string>& keywords = {},
                             bool pooled = false);
    ~ScratchDatabase();
    ScratchDatabase(const ScratchDatabase&) = delete;
    ScratchDatabase& operator=(const ScratchDatabase&) = delete;

    [[nodiscard]] Engine engine() const { return engine_; }
    [[nodiscard]] const std::filesystem::path& folder() const { return folder_.path(); }
    /// The database's name on the MariaDB server.
    [[nodiscard]] const std::string& schema() const { return schema_; }
    /// A connection beside the library under test.
    [[nodiscard]] PlainOdbc& plain() { return *plain_; }
    /// Closes it, and opens a fresh one, for when the database goes away.
    void disconnect() { plain_.reset(); }
    void reconnect();

    /// Stores coefficients of a cluster: one row for each frequency from `first` in steps of `step`
    /// kHz, highest first; those of the default frequency are all zero.
    void seed_coefficients(const std::string& cluster, int default_frequency, int first, int step,
                           int count);

    /// The rows of a table, under a condition such as "where frequency > 0".
    std::int64_t rows(const std::string& table, const std::string& condition = {});

  private:
    void write_configuration(const std::map<std::string, std::string>& keywords, bool pooled) const;

    Engine engine_;
    ScratchFolder folder_;
    std::string schema_;
    std::unique_ptr<PlainOdbc> plain_;
};

/// A test on one engine, or on both: INSTANTIATE_TEST_SUITE_P(On, TheTest, both_engines(),
/// engine_suffix). Skips where the engine is not installed.
class DatabaseTest : public ::testing::TestWithParam<Engine> {
  protected:
    void SetUp() override {
        if (const auto why = ScratchDatabase::missing(GetParam()))
            GTEST_SKIP() << *why;
        database_.emplace(GetParam(), keywords(), pooled_);
        set_up_database();
    }

    /// What more a test's database needs.
    virtual void set_up_database() {}

    /// What replaces or adds keywords of the data source.
    [[nodiscard]] virtual std::map<std::string, std::string> keywords() const { return {}; }

    ScratchDatabase& database() { return *database_; }
    PlainOdbc& plain() { return database_->plain(); }

    bool pooled_ = false;

  private:
    std::optional<ScratchDatabase> database_;
};

/// The whole of a file of the source tree, such as "sql/sqlite.sql".
std::string source_file(const std::string& name);

}  // namespace eas::test
