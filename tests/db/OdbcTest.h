// What the tests of the connection and of the pool share: SQLite behind a driver manager that
// refuses, delays and misreports where a test says so. Whatever happens, no handle may be left.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "db/base_class/DBLibrary.h"
#include "gmock/gmock.h"
#include "tests/support/FaultyDriverManager/FaultyDriverManager.h"
#include "tests/support/ScratchDatabase.h"
#include "tests/support/TraceCapture.h"

namespace eas::test {

class OdbcTest : public ::testing::Test {
  protected:
    void SetUp() override {
        answer("", {});
        ASSERT_TRUE(DBLibrary::init("libodbc.so"));
        ::unsetenv("ABORT_ON_DB_FAILED");
    }
    void TearDown() override {
        EXPECT_TRUE(odbc.end_faults());
        EXPECT_EQ(odbc.live_handles(), 0);
        DBLibrary::release();
    }

    /// The next answers of an entry point; a success takes effect. Begins a new list of calls.
    void answer(const std::string& entry_point, const std::vector<SQLRETURN>& codes) {
        std::vector<Fault> faults;
        for (const SQLRETURN code : codes)
            faults.push_back(
                {entry_point, static_cast<int>(faults.size()) + 1, code, SQL_SUCCEEDED(code)});
        odbc.inject(faults);
    }
    /// The calls since then, "name(texts)".
    std::vector<std::string> calls() {
        std::vector<std::string> all;
        for (const auto& call : odbc.calls())
            all.push_back(call.entry_point + "(" + call.said + ")");
        return all;
    }
    int count(const std::string& entry_point) {
        return static_cast<int>(odbc.said(entry_point).size());
    }

    ScratchDatabase database{Engine::sqlite};
    FaultyDriverManager& odbc = FaultyDriverManager::load();
    TraceCapture log;
};

}  // namespace eas::test
