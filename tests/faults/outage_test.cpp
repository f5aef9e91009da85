// Crashes and outages: this process killed, the server gone, the disk full, the database locked,
// corrupt or read-only, no descriptor left. Each has its code, and nothing of it is left
// afterwards.
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <functional>
#include <iostream>
#include <thread>

#include "tests/faults/Operations.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/DescriptorLimit.h"
#include "tests/support/OwnTmp.h"

namespace {

using namespace eas::test;
namespace fs = std::filesystem;

using Codes = std::array<int, 5>;  // of the five operations, in their order

class Outages : public OperationTest {
  protected:
    Codes try_all() {
        Codes codes{};
        for (std::size_t i = 0; i < codes.size(); ++i) {
            // A failed initialisation would hide what becomes of the others: it comes last.
            const OperationRow& row = operation_rows[(i + 1) % codes.size()];
            codes.at(static_cast<std::size_t>(row.operation)) = run(row.operation);
        }
        return codes;
    }

    /// The library finds everything in order again; the tag is whole or not there.
    void expect_all_in_order() {
        EXPECT_EQ(run(Operation::initialize), EAS_OK);
        expect_all_or_nothing(Operation::remove, EAS_OK);
        for (const OperationRow& row : operation_rows) {
            prepare(row.operation);
            EXPECT_EQ(run(row.operation), EAS_OK) << row.name;
            expect_all_or_nothing(row.operation, EAS_OK);
        }
        EXPECT_EQ(manager_.live_handles(), 0);
    }
};

INSTANTIATE_TEST_SUITE_P(On, Outages, both_engines(), engine_suffix);

std::atomic<int> crossings{0};  // into the driver manager and out of it
std::atomic<int> killed_at{0};

void kill_when_due(int step) {
    watch_elsewhere(step);
    if (++crossings == killed_at)
        ::raise(SIGKILL);
}

TEST_P(Outages, AProcessKilledBeforeOrAfterAnyCallOfTheDriverManagerLeavesNoPartOfATag) {
    manager_.on_crossing(kill_when_due);
    const int step = soak() ? 1 : 5;
    int kills = 0;
    for (bool met = true; met; kills += met ? 1 : 0) {
        const pid_t child = ::fork();
        if (child == 0) {
            crossings = 0;
            killed_at = 1 + step * kills;
            run(Operation::remove);
            run(Operation::generate);
            ::_exit(0);
        }
        const int status = exit_status(child);
        met = status == 128 + SIGKILL;
        ASSERT_TRUE(met || status == 0) << status;
        expect_all_or_nothing(Operation::remove, EAS_OK);
        ASSERT_FALSE(HasFailure()) << "kill " << kills;
    }
    EXPECT_GT(kills * step, 100);
    expect_all_in_order();
    std::cout << kills << " processes killed\n";
}

TEST_P(Outages, WithoutDescriptorsACallFailsAndTheNextOneWorks) {
    int failed = 0;
    for (int i = 0; i < 16; ++i) {
        const int spare = i / 2;
        SCOPED_TRACE(spare);
        prepare(i % 2 == 0 ? Operation::query : Operation::generate);
        const Codes codes = [&] {
            const DescriptorLimit limit(spare);
            return try_all();
        }();
        for (const OperationRow& row : operation_rows) {
            const int code = codes.at(static_cast<std::size_t>(row.operation));
            EXPECT_TRUE(code <= 0 && code >= row.lowest_code) << row.name << " " << code;
            failed += code != EAS_OK ? 1 : 0;
        }
        expect_all_in_order();
    }
    EXPECT_GT(failed, 10);
}

class SqliteOutages : public Outages {
  protected:
    /// The whole of /tmp is a small disk of this process's own.
    void SetUp() override {
        if (!own_tmp("size=1m"))
            GTEST_SKIP() << "needs a private mount namespace";
        Outages::SetUp();
    }

    /// What the operations give while something is wrong, on a tag that is there and on one that is
    /// to be stored; afterwards all is in order.
    void expect_outage(const char* what, const Codes& expected, const std::function<void()>& begin,
                       const std::function<void()>& end) {
        SCOPED_TRACE(what);
        prepare(Operation::generate);
        begin();
        const int code = run(Operation::generate);
        end();
        EXPECT_EQ(code, EAS_STORE_FAILED);
        expect_all_or_nothing(Operation::generate, code);
        expect_all_in_order();
        prepare(Operation::query);
        begin();
        const Codes codes = try_all();
        end();
        for (const OperationRow& row : operation_rows) {
            const auto i = static_cast<std::size_t>(row.operation);
            EXPECT_EQ(codes.at(i), expected.at(i)) << row.name;
        }
        expect_all_in_order();
    }
};

INSTANTIATE_TEST_SUITE_P(On, SqliteOutages, ::testing::Values(Engine::sqlite), engine_suffix);

TEST_P(SqliteOutages, EndInTheirCodesAndLeaveNothing) {
    const fs::path file = database().folder() / "easdb.sqlite";
    const fs::path good = database().folder() / "good";
    const fs::path filler = "/tmp/filler";
    const Codes unwritable{EAS_OK, EAS_TAG_EXISTS, EAS_OK, EAS_REMOVE_FAILED, EAS_OK};
    const Codes unreadable{EAS_NO_COEFFICIENTS, EAS_STORE_FAILED, EAS_QUERY_FAILED,
                           EAS_REMOVE_FAILED, EAS_NO_UNIQUE_TAG};
    expect_outage(
        "full disk", unwritable,
        [&] {
            std::ofstream out(filler);
            while (out << std::string(4096, 'x') << std::flush) {
            }
        },
        [&] { fs::remove(filler); });
    expect_outage(
        "read-only", unwritable,
        [&] {
            database().disconnect();
            ASSERT_EQ(::mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        },
        [&] {
            ASSERT_EQ(::mount(nullptr, "/tmp", nullptr, MS_REMOUNT, nullptr), 0);
            database().reconnect();
        });
    expect_outage(
        "locked", unreadable, [&] { plain().run("begin exclusive"); },
        [&] { plain().run("rollback"); });
    expect_outage(
        "corrupt", unreadable,
        [&] {
            fs::copy_file(file, good, fs::copy_options::overwrite_existing);
            std::fstream out(file, std::ios::in | std::ios::out | std::ios::binary);
            for (auto left = fs::file_size(file); left > 0; --left)
                out.put('\x5a');
        },
        [&] {
            fs::copy_file(good, file, fs::copy_options::overwrite_existing);
            database().reconnect();
        });
}

/// A server of this test alone, which may crash.
class PrivateServer {
  protected:
    PrivateServer() { ScratchDatabase::use_server(folder_); }
    ~PrivateServer() {
        server("stop");
        fs::remove_all(folder_);
    }

    int server(const std::string& command) const {
        return std::system((EAS_MARIADB_SCRIPT " " + command + " " + folder_ + " >&2").c_str());
    }

  private:
    std::string folder_ = ::testing::TempDir() + "/eas-outage-" + std::to_string(::getpid());
};

class ServerOutages : private PrivateServer, public Outages {
  protected:
    void SetUp() override {
        ASSERT_EQ(server("start"), 0);
        Outages::SetUp();
    }
    using PrivateServer::server;
};

INSTANTIATE_TEST_SUITE_P(On, ServerOutages, ::testing::Values(Engine::mariadb), engine_suffix);

TEST_P(ServerOutages, BetweenAndDuringCallsEndInTheirCodesAndLeaveNothing) {
    ASSERT_EQ(server("crash"), 0);
    const Codes none{EAS_NO_CONNECTION, EAS_NO_CONNECTION, EAS_NO_CONNECTION, EAS_NO_CONNECTION,
                     EAS_NO_CONNECTION};
    EXPECT_EQ(try_all(), none);
    ASSERT_EQ(server("resume"), 0);
    database().reconnect();
    EXPECT_EQ(run(Operation::initialize), EAS_OK);
    manager_.on_crossing(kill_when_due);  // only counts: nobody is to be killed
    for (int i = 0; i < (soak() ? 20 : 1); ++i) {
        std::atomic<bool> crashed{false};
        crossings = 0;
        std::thread crash([&] {
            while (crossings <= 50 * i)
                ::sched_yield();
            EXPECT_EQ(server("crash"), 0);
            crashed = true;
        });
        while (!crashed) {
            for (const OperationRow& row : operation_rows) {
                if (row.operation == Operation::initialize)
                    continue;
                const int code = run(row.operation);
                EXPECT_TRUE(code <= 0 && code >= row.lowest_code) << row.name << " " << code;
            }
        }
        crash.join();
        EXPECT_EQ(manager_.live_handles(), 0);
        ASSERT_EQ(server("resume"), 0);
        database().reconnect();
        expect_all_in_order();
    }
}

}  // namespace
