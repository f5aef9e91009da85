// Every fault of the driver manager: each call that a function makes fails in turn, with each code,
// instead of taking effect and after it, once and for good; and each call that is made only because
// another one failed.
#include <iostream>
#include <optional>

#include "tests/faults/Operations.h"

// A second between two attempts to connect is not waited for.
extern "C" unsigned sleep(unsigned) {
    return 0;
}

namespace {

using namespace eas::test;
using Faults = std::vector<Fault>;

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

bool gives_back(const Fault& fault) {
    return !fault.takes_effect &&
           (is(fault, "SQLFreeHandle") || is(fault, "SQLDisconnect") || is(fault, "SQLEndTran"));
}

/// What frees fails for good, or twice, or it fails for a connection that was reported not to be
/// made: then a handle cannot but stay.
bool keeps_handles(const Faults& faults) {
    const Fault& first = faults.front();
    return gives_back(faults.back()) && (faults.back().for_good || gives_back(first) ||
                                         (is(first, "SQLConnect") && first.takes_effect));
}

bool is_statement_call(const Fault& fault) {
    return is(fault, "SQLAllocHandle") || is(fault, "SQLExecDirect") || is(fault, "SQLBindCol") ||
           is(fault, "SQLFetch") || is(fault, "SQLBindParameter");
}

/// Autocommit cannot be switched off for the transaction that writes (the second one of a call),
/// and then a statement of it fails: such a driver commits row by row, and no client can take that
/// back.
bool commits_row_by_row(const OperationRow& row, const Faults& faults) {
    const Fault& first = faults.front();
    return (row.operation == Operation::generate || row.operation == Operation::remove) &&
           is(first, "SQLSetConnectAttr") && first.call == 2 && !first.takes_effect &&
           is_statement_call(faults.back());
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
    if (!is_statement_call(fault))
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

/// Every way in which a call can fail.
Faults faults_of(const FaultyDriverManager::Call& call) {
    Faults all;
    for (const SQLRETURN code : codes) {
        for (const bool takes_effect : {false, true}) {
            for (const bool for_good : {false, true}) {
                const Fault fault{call.entry_point, call.number, code, takes_effect, for_good};
                if (!is_absurd(fault))
                    all.push_back(fault);
            }
        }
    }
    return all;
}

std::string described(const OperationRow& row, const Faults& faults) {
    std::string text = row.name;
    for (const Fault& fault : faults)
        text += ": call " + std::to_string(fault.call) + " of " + fault.entry_point + " answers " +
                std::to_string(fault.code) + (fault.takes_effect ? " with effect" : "") +
                (fault.for_good ? ", always" : "");
    return text;
}

class OdbcFaults : public OperationTest {
  protected:
    void SetUp() override {
        ::setenv("ABORT_ON_DB_FAILED", "NO", 1);
        OperationTest::SetUp();
    }

    int run_with(const OperationRow& row, const Faults& faults) {
        prepare(row.operation);
        manager_.inject(faults);
        const int code = run(row.operation);
        EXPECT_TRUE(manager_.end_faults()) << "a fault was not met";
        return code;
    }

    void try_faults(const OperationRow& row, const Faults& faults) {
        SCOPED_TRACE(described(row, faults));
        const int code = run_with(row, faults);
        if (keeps_handles(faults))
            manager_.free_left_overs();
        EXPECT_EQ(manager_.live_handles(), 0);
        EXPECT_LE(code, 0);
        EXPECT_GE(code, row.lowest_code);
        if (faults.size() == 1) {
            EXPECT_EQ(code, determined(row, faults.front()).value_or(code));
        }
        expect_all_or_nothing(row.operation, code);
        expect_recovered(row.operation);
        EXPECT_EQ(manager_.live_handles(), 0);
        EXPECT_EQ(live_blocks(), blocks_);
        EXPECT_EQ(open_descriptors(), descriptors_);
    }

    /// Fails each call that comes after a fault and that may be there because of it.
    void try_second_faults(const OperationRow& row, const Fault& first, std::size_t place) {
        const auto calls = manager_.calls();
        for (std::size_t i = place + 1; i < calls.size(); ++i) {
            for (const Fault& second : faults_of(calls[i])) {
                const Faults both{first, second};
                if (!is_of_pairs(second, false) || commits_row_by_row(row, both) || HasFailure())
                    continue;
                try_faults(row, both);
                ++pairs_;
            }
        }
    }

    /// What is tried without EAS_SOAK: most of it with SQLite, which is fast.
    [[nodiscard]] bool is_of_share(const Fault& fault) const {
        if (soak())
            return true;
        if (GetParam() == Engine::sqlite)
            return !fault.for_good || fault.call <= 2;
        return !fault.for_good && (fault.code == SQL_ERROR || fault.code == SQL_NO_DATA);
    }
    /// The same for what comes first and second in a pair: what is refused, and first also what is
    /// done and then denied.
    [[nodiscard]] bool is_of_pairs(const Fault& fault, bool first) const {
        if (fault.for_good)
            return false;
        if (soak())
            return is_failure(fault.code) || fault.code == SQL_NO_DATA;
        if (fault.takes_effect)
            return first && fault.code == SQL_INVALID_HANDLE && GetParam() == Engine::sqlite;
        return fault.code == SQL_ERROR;
    }

    /// Fails each call that an undisturbed run makes.
    void try_all(const OperationRow& row) {
        for (int round = 0; round < 2; ++round) {  // the first one fills what is kept
            ASSERT_EQ(run_with(row, {}), EAS_OK);
            expect_all_or_nothing(row.operation, EAS_OK);
        }
        const auto calls = manager_.calls();
        expect_recovered(row.operation);
        blocks_ = live_blocks();
        descriptors_ = open_descriptors();
        ASSERT_GE(calls.size(), 10U);
        for (std::size_t i = 0; i < calls.size(); ++i) {
            for (const Fault& fault : faults_of(calls[i])) {
                if (!is_of_share(fault) || HasFailure())
                    continue;
                try_faults(row, {fault});
                ++alone_;
                if (is_of_pairs(fault, true))
                    try_second_faults(row, fault, i);
            }
        }
        std::cout << row.name << ": " << alone_ << " faults and " << pairs_ << " pairs injected\n";
    }

    int alone_ = 0;
    int pairs_ = 0;
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

}  // namespace
