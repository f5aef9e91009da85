// Every fault of the driver manager: each call that a function makes fails in turn, with each code,
// instead of taking effect and after it, once and for good.
#include <csignal>
#include <iostream>
#include <optional>

#include "tests/faults/Operations.h"

namespace {

int sleeps = 0;

}  // namespace

// A second between two attempts to connect is not waited for.
extern "C" unsigned sleep(unsigned seconds) {
    sleeps += static_cast<int>(seconds);
    return 0;
}

namespace {

using namespace eas::test;

constexpr SQLRETURN unexpected = 77;
constexpr SQLRETURN codes[] = {SQL_ERROR,           SQL_INVALID_HANDLE, SQL_NO_DATA,
                               SQL_STILL_EXECUTING, SQL_NEED_DATA,      SQL_SUCCESS_WITH_INFO,
                               unexpected};

bool is_failure(SQLRETURN code) {
    return code < 0 || code == unexpected;
}

bool is(const Fault& fault, const char* entry_point) {
    return fault.entry_point == entry_point;
}

/// What no driver manager does: make a handle and report an error; free one and report SQL_ERROR,
/// which says that it is still valid; keep one and report anything else.
bool is_absurd(const Fault& fault) {
    if (is(fault, "SQLAllocHandle"))
        return fault.takes_effect && fault.code < 0;
    return is(fault, "SQLFreeHandle") && fault.takes_effect == (fault.code == SQL_ERROR);
}

/// A fault for good of what frees: then a handle cannot but stay.
bool keeps_handles(const Fault& fault) {
    return fault.for_good && !fault.takes_effect &&
           (is(fault, "SQLFreeHandle") || is(fault, "SQLDisconnect") || is(fault, "SQLEndTran"));
}

/// The code that a failed call must end in; none where the driver manager only misleads.
std::optional<int> determined(const OperationRow& row, const Fault& fault) {
    const bool failed = is_failure(fault.code);
    if (is(fault, "SQLConnect") && !failed && fault.code != SQL_SUCCESS_WITH_INFO)
        return fault.for_good || fault.takes_effect ? EAS_NO_CONNECTION
                                                    : EAS_OK;  // another attempt
    if (is(fault, "SQLConnect") || is(fault, "SQLSetEnvAttr") ||
        (is(fault, "SQLAllocHandle") && fault.call <= 2))
        return failed ? std::optional<int>(EAS_NO_CONNECTION) : std::nullopt;
    const bool of_statement = is(fault, "SQLAllocHandle") || is(fault, "SQLExecDirect") ||
                              is(fault, "SQLBindCol") || is(fault, "SQLFetch") ||
                              is(fault, "SQLBindParameter");
    if (!of_statement)
        return EAS_OK;  // the commit's answer, and what ends a call, change no result
    if (!failed)
        return std::nullopt;
    // The lookup before a tag is generated is not decisive.
    const int first = is(fault, "SQLAllocHandle") ? 3 : 1;
    const bool lookup = is(fault, "SQLBindCol") || is(fault, "SQLFetch") ||
                        (!is(fault, "SQLBindParameter") && fault.call == first);
    if (row.operation == Operation::generate && lookup &&
        (!fault.for_good || is(fault, "SQLBindCol") || is(fault, "SQLFetch")))
        return EAS_OK;
    return row.database_code;
}

class OdbcFaults : public OperationTest {
  protected:
    void SetUp() override {
        manager_.on_crossing(watch_elsewhere);
        ::setenv("ABORT_ON_DB_FAILED", "NO", 1);
        OperationTest::SetUp();
    }

    void try_fault(const OperationRow& row, const Fault& fault) {
        SCOPED_TRACE(std::string(row.name) + ": call " + std::to_string(fault.call) + " of " +
                     fault.entry_point + " answers " + std::to_string(fault.code) +
                     (fault.takes_effect ? " with effect" : "") +
                     (fault.for_good ? ", always" : ""));
        prepare(row.operation);
        manager_.inject(fault);
        const int code = run(row.operation);
        EXPECT_TRUE(manager_.end_fault()) << "the fault was not met";
        ++injected_;
        if (keeps_handles(fault))
            manager_.free_left_overs();
        EXPECT_EQ(manager_.live_handles(), 0);
        EXPECT_LE(code, 0);
        EXPECT_GE(code, row.lowest_code);
        EXPECT_EQ(code, determined(row, fault).value_or(code));
        expect_all_or_nothing(row.operation, code);
        expect_recovered(row.operation);
        EXPECT_EQ(manager_.live_handles(), 0);
        EXPECT_EQ(live_blocks(), blocks_);
        EXPECT_EQ(open_descriptors(), descriptors_);
    }

    void try_faults(const OperationRow& row, const FaultyDriverManager::Calls& calls) {
        for (int call = 1; call <= calls.count; ++call) {
            for (const SQLRETURN code : codes) {
                for (const bool takes_effect : {false, true}) {
                    for (const bool for_good : {false, true}) {
                        const Fault fault{calls.entry_point, call, code, takes_effect, for_good};
                        if (!is_absurd(fault) && (soak() || is_of_share(fault)))
                            try_fault(row, fault);
                        if (HasFailure() && ++failures_ > 10)
                            return;
                    }
                }
            }
        }
    }

    /// What is tried without EAS_SOAK: most of it with SQLite, which is fast.
    [[nodiscard]] bool is_of_share(const Fault& fault) const {
        if (GetParam() == Engine::sqlite)
            return !fault.for_good || fault.call <= 2;
        return !fault.for_good && (fault.code == SQL_ERROR || fault.code == SQL_NO_DATA);
    }

    /// Fails each call that an undisturbed run makes.
    void try_all(const OperationRow& row) {
        for (int round = 0; round < 2; ++round) {  // the first one fills what is kept
            prepare(row.operation);
            manager_.calls();
            ASSERT_EQ(run(row.operation), EAS_OK);
            expect_all_or_nothing(row.operation, EAS_OK);
        }
        const auto calls = manager_.calls();
        expect_recovered(row.operation);
        blocks_ = live_blocks();
        descriptors_ = open_descriptors();
        ASSERT_GE(calls.size(), 10U);
        for (const auto& entry_point : calls)
            try_faults(row, entry_point);
        std::cout << row.name << ": " << injected_ << " faults injected\n";
    }

    FaultyDriverManager& manager_ = FaultyDriverManager::load();
    int injected_ = 0;
    int failures_ = 0;
    long blocks_ = 0;
    std::ptrdiff_t descriptors_ = 0;
};

INSTANTIATE_TEST_SUITE_P(On, OdbcFaults, both_engines(), engine_suffix);

TEST_P(OdbcFaults, OfInitialize) {
    try_all(operation_rows[0]);
}
TEST_P(OdbcFaults, OfGenerate) {
    try_all(operation_rows[1]);
}
TEST_P(OdbcFaults, OfQuery) {
    try_all(operation_rows[2]);
}
TEST_P(OdbcFaults, OfRemove) {
    try_all(operation_rows[3]);
}
TEST_P(OdbcFaults, OfSelect) {
    try_all(operation_rows[4]);
}

TEST_P(OdbcFaults, OfEveryAttemptToConnectStopTheProcessUnlessItSaysNo) {
    manager_.inject({"SQLConnect", 1, SQL_STILL_EXECUTING, false, true});
    sleeps = 0;
    EXPECT_EQ(run(Operation::query), EAS_NO_CONNECTION);
    EXPECT_EQ(sleeps, 19);
    ::unsetenv("ABORT_ON_DB_FAILED");
    EXPECT_EXIT(run(Operation::query), testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
