// Many threads at once: the four working functions with the trace log on and off, the pool, and
// threads that are cancelled at any moment.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <iostream>
#include <thread>

#include "db/base_class/DBConnectionPool.h"
#include "db/base_class/TxObject.h"
#include "tests/faults/Operations.h"
#include "tests/support/TraceCapture.h"

namespace {

using namespace eas::test;

constexpr unsigned threads = 8;

void in_threads(const std::function<void(unsigned)>& body) {
    std::vector<std::thread> all;
    for (unsigned i = 0; i < threads; ++i)
        all.emplace_back(body, i);
    for (std::thread& thread : all)
        thread.join();
}

using Threads = OperationTest;

INSTANTIATE_TEST_SUITE_P(On, Threads, both_engines(), engine_suffix);

/// How many tags of that name there are; -1 when it cannot be found out.
int stored(const char* user, const std::string& tag) {
    int count = -1;
    never([&] {
        const Tags tags(user, tag.c_str());
        if (tags.status == EAS_OK)
            count = tags.count;
        return count >= 0;
    });
    return count;
}

/// Generates, queries, selects and removes a tag of its own; how many of these went wrong.
int work_on(const std::string& user, int rounds) {
    int wrong = 0;
    for (int i = 0; i < rounds; ++i) {
        const std::string tag = "t" + std::to_string(i);
        const char* const name = user.c_str();
        Removed removed;
        Selection selection{};
        wrong += never(
            [&] { return generate(user, tag) != EAS_STORE_FAILED && stored(name, tag) == 1; });
        wrong += never([&] {
            return (selection = select(name, tag.c_str(), "minimize_time")).status == EAS_OK;
        });
        wrong += selection.frequency != 2400000;
        wrong += never([&] {
            removed = remove_tags(name, tag.c_str());
            return removed.status == EAS_OK && stored(name, tag) == 0;
        });
        wrong += removed.names.size() != 1;
    }
    return wrong;
}

TEST_P(Threads, WorkBesideEachOtherTracedOrNot) {
    const auto descriptors = open_descriptors();
    const int rounds = soak() ? 100 : 3;
    std::atomic<int> wrong{0};
    const auto all = [&] {
        in_threads([&](unsigned i) { wrong += work_on("user" + std::to_string(i), rounds); });
    };
    all();
    {
        const TraceCapture trace(true);
        all();
        EXPECT_NE(trace.text().find("Successfully executed"), std::string::npos);
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(manager_.live_handles(), 0);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(tag_rows(), 8);
    std::cout << threads << " threads, " << threads * static_cast<unsigned>(rounds) * 8
              << " calls\n";
}

std::atomic<int> switched{0};  // threads that have the process's effective user switched
std::atomic<bool> switched_twice{false};

int switch_user(unsigned) {
    switched_twice = switched_twice || switched++ != 0;
    std::this_thread::yield();
    return 0;
}
int switch_back() {
    return --switched;
}

TEST_P(Threads, SellNoConnectionOfThePoolTwiceAndSwitchTheUserOneByOne) {
    DBConnectionPool::init("easdb", nullptr, nullptr, nullptr, 3, 4, switch_user, switch_back);
    DBConnectionPool& pool = *DBConnectionPool::Instance();
    std::array<std::atomic<DBConnection*>, threads> held{};
    std::atomic<int> wrong{0};
    in_threads([&](unsigned me) {
        for (int i = 0; i < (soak() ? 2000 : 50); ++i) {
            DBConnection* const con = pool.checkout();
            held.at(me) = con;  // noted first: of two that hold the same, one sees the other
            wrong += con == nullptr || std::count(held.begin(), held.end(), con) != 1 ? 1 : 0;
            if (i % 10 == 0) {
                TxObject tx(con);
                wrong += tx.count("TQVN_EnergyPolicyTag", nullptr) == 8 ? 0 : 1;
                tx.rollback();
            }
            held.at(me) = nullptr;
            pool.checkin(con);
            if (me == 0)
                pool.doCleanup();
        }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_FALSE(switched_twice);
    EXPECT_EQ(pool.usedCount(), 0U);
    EXPECT_LE(pool.availableCount(), 3U);
    DBConnectionPool::terminate();
    EXPECT_EQ(manager_.live_handles(), 0);
}

std::atomic<int> until_cancelled{0};  // entries into the driver manager

void cancel_when_due(int step) {
    watch_elsewhere(step);
    if (step > 0 && --until_cancelled == 0)
        pthread_cancel(pthread_self());
}

void* work_until_cancelled(void* user) {
    call_all_on(static_cast<const char*>(user), "cfd");
    pthread_testcancel();
    return user;  // not cancelled: there were fewer entries
}

TEST_P(Threads, LeaveNothingWhenTheyAreCancelledInAnyCallOfTheDriverManager) {
    const auto descriptors = open_descriptors();
    manager_.on_crossing(cancel_when_due);
    const int step = soak() ? 1 : 7;
    int cancelled = 0;
    for (bool met = true; met; cancelled += met ? 1 : 0) {
        std::string user = "carl";
        pthread_t thread{};
        until_cancelled = 1 + step * cancelled;
        ASSERT_EQ(pthread_create(&thread, nullptr, work_until_cancelled, user.data()), 0);
        void* result = nullptr;
        ASSERT_EQ(pthread_join(thread, &result), 0);
        met = result == PTHREAD_CANCELED;
        ASSERT_EQ(manager_.live_handles(), 0) << "cancelled " << cancelled;
        const auto left = database().rows("TQVN_EnergyPolicyTag", "where user_name='carl'");
        ASSERT_TRUE(left == 0 || left == 4) << left << " rows, cancelled " << cancelled;
        ASSERT_EQ(open_descriptors(), descriptors) << "cancelled " << cancelled;
    }
    manager_.on_crossing(watch_elsewhere);
    EXPECT_GT(cancelled * step, 100);
    expect_recovered(Operation::query);
    std::cout << cancelled << " threads cancelled\n";
}

}  // namespace
