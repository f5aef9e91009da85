// A daemon's life in short: mixed calls in one process, after which descriptors and memory are as
// after a few. What the driver manager and the driver keep of each connect is measured beside it,
// by a loop that only connects: it is not the library's, but the daemon's memory grows by it.
#include <malloc.h>

#include <iostream>

#include "tests/faults/Operations.h"

namespace {

using namespace eas::test;

class LongRun : public OperationTest {
  protected:
    /// One of each function; none may fail.
    void round() {
        for (const Operation operation : {Operation::query, Operation::select, Operation::remove,
                                          Operation::generate, Operation::initialize})
            ASSERT_EQ(run(operation), EAS_OK);
    }

    /// Heap that each of `count` runs keeps, in bytes.
    template <typename Run>
    double kept_by_each(int count, const Run& once) {
        const auto before = ::mallinfo2().uordblks;
        for (int i = 0; i < count && !HasFailure(); ++i)
            once();
        return (static_cast<double>(::mallinfo2().uordblks) - static_cast<double>(before)) / count;
    }
};

INSTANTIATE_TEST_SUITE_P(On, LongRun, both_engines(), engine_suffix);

TEST_P(LongRun, KeepsDescriptorsAndMemoryFlat) {
    constexpr int calls_of_a_round = 5;
    const int calls = soak() ? 100000 : 2000;
    const auto connect = [] { const PlainOdbc bare("easdb"); };
    // A connection beside them would keep the driver loaded, which a daemon's calls do not.
    database().disconnect();
    for (int i = 0; i < 20; ++i) {
        round();
        connect();
    }
    const auto descriptors = open_descriptors();
    const long blocks = live_blocks();
    const double ours = kept_by_each(calls / calls_of_a_round, [this] { round(); });
    EXPECT_EQ(live_blocks(), blocks);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(manager_.live_handles(), 0);
    const double bare = kept_by_each(calls / calls_of_a_round, connect);
    const double call = ours / calls_of_a_round;
    std::cout << calls << " calls; kept by a call: " << call
              << " bytes, by a bare connect: " << bare << ", so by the library: " << call - bare
              << "\n";
    if (allocations_are_watched) {
        EXPECT_LT(call, bare + 64.0);
    }
}

}  // namespace
