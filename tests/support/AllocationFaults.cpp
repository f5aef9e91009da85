#include "tests/support/AllocationFaults.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <unordered_set>

#include "gtest/gtest.h"

// glibc's own, under the names that it keeps for those who replace the others.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
}

namespace eas::test {
namespace {

thread_local int watched = 0;
thread_local int elsewhere = 0;

std::atomic<long> until_failure{0};  // 0: none will fail; negative: it has failed
std::atomic<bool> fail_for_good{false};
std::atomic<bool> has_failed{false};

/// For what the counting itself needs, which is not to be counted.
template <typename T>
struct Uncounted {
    using value_type = T;
    Uncounted() = default;
    template <typename U>
    Uncounted(const Uncounted<U>&) {}
    T* allocate(std::size_t count) { return static_cast<T*>(__libc_malloc(count * sizeof(T))); }
    void deallocate(T* block, std::size_t) { __libc_free(block); }
    bool operator==(const Uncounted&) const { return true; }
    bool operator!=(const Uncounted&) const { return false; }
};

/// Addresses of the watched blocks.
class Blocks {
  public:
    void add(const void* block) {
        const std::lock_guard<std::mutex> lock(mutex_);
        blocks_.insert(block);
        count_ = blocks_.size();
    }
    void remove(const void* block) {
        if (count_ == 0)
            return;
        const std::lock_guard<std::mutex> lock(mutex_);
        blocks_.erase(block);
        count_ = blocks_.size();
    }
    [[nodiscard]] long count() const { return static_cast<long>(count_); }

  private:
    using Set = std::unordered_set<const void*, std::hash<const void*>, std::equal_to<>,
                                   Uncounted<const void*>>;
    std::mutex mutex_;
    Set blocks_;
    std::atomic<std::size_t> count_{0};
};

/// Never destroyed: what runs last still frees.
Blocks& blocks() {
    alignas(Blocks) static std::array<char, sizeof(Blocks)> place;
    static Blocks& all = *new (place.data()) Blocks;
    return all;
}

[[maybe_unused]] bool counts() {
    return watched > 0 && elsewhere == 0;
}

[[maybe_unused]] bool fails() {
    if (!counts() || until_failure == 0)
        return false;
    if (until_failure > 0 && --until_failure > 0)
        return false;
    if (until_failure == 0)
        until_failure = fail_for_good ? -1 : 0;
    has_failed = true;
    errno = ENOMEM;
    return true;
}

[[maybe_unused]] void* note(void* block) {
    if (block != nullptr && counts())
        blocks().add(block);
    return block;
}

}  // namespace

WatchAllocations::WatchAllocations() {
    ++watched;
}
WatchAllocations::~WatchAllocations() {
    --watched;
}

void watch_elsewhere(int step) {
    elsewhere += step;
}

void fail_allocation(long n, bool for_good) {
    fail_for_good = for_good;
    has_failed = has_failed && n == 0;
    until_failure = n;
}

bool allocation_failed() {
    return has_failed;
}

long fail_each_allocation(const std::function<void()>& run) {
    long failed = 0;
    for (const bool for_good : {false, true}) {
        bool met = true;
        for (long n = 1; met && !::testing::Test::HasFailure(); ++n) {
            const ::testing::ScopedTrace trace(
                __FILE__, __LINE__,
                "allocation " + std::to_string(n) + (for_good ? " and all later ones" : ""));
            const long blocks = live_blocks();
            fail_allocation(n, for_good);
            run();
            met = allocation_failed();
            fail_allocation(0, false);
            EXPECT_EQ(live_blocks(), blocks);
            failed += met ? 1 : 0;
        }
    }
    EXPECT_GT(failed, 1);
    return failed;
}

long live_blocks() {
    return blocks().count();
}

}  // namespace eas::test

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

extern "C" {
__attribute__((visibility("default"))) void* malloc(std::size_t size) {
    return eas::test::fails() ? nullptr : eas::test::note(__libc_malloc(size));
}

__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) {
    return eas::test::fails() ? nullptr : eas::test::note(__libc_calloc(count, size));
}

__attribute__((visibility("default"))) void* realloc(void* block, std::size_t size) {
    if (eas::test::fails())
        return nullptr;
    eas::test::blocks().remove(block);
    return eas::test::note(__libc_realloc(block, size));
}

__attribute__((visibility("default"))) void free(void* block) {
    eas::test::blocks().remove(block);
    __libc_free(block);
}
}

#endif
