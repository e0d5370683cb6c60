// The stable merge sorts: same result for every thread count, stable on ties, correct on edge sizes.
#include "os/os.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

// Elements carry a key in the high bits and their original index in the low 20 bits; the comparator
// sees only the key, so ties are plentiful and stability is visible in the index order.
int key_compare(uint32_t a, uint32_t b) {
    return (int) (a >> 20) - (int) (b >> 20);
}

int key_compare_ex(void *context, uint32_t a, uint32_t b) {
    ++*(int *) context;
    return key_compare(a, b);
}

int eight_processors() {
    return 8;
}

// Notes whether the comparator ran on a thread other than the caller's: a sort given more than one
// thread must have, or it only tested the single-threaded path.
struct thread_seen {
    uint32_t caller;
    std::atomic<bool> other{false};
};

int key_compare_seen(void *context, uint32_t a, uint32_t b) {
    thread_seen *seen = (thread_seen *) context;
    if (os_thread_id() != seen->caller) {
        seen->other.store(true, std::memory_order_relaxed);
    }
    return key_compare(a, b);
}

std::vector<uint32_t> make_input(size_t n, uint32_t keys, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint32_t> v(n);
    for (size_t i = 0; i < n; i++) {
        v[i] = ((rng() % keys) << 20) | (uint32_t) i;
    }
    return v;
}

std::vector<uint32_t> expected(std::vector<uint32_t> v) {
    std::stable_sort(v.begin(), v.end(), [](uint32_t a, uint32_t b) { return key_compare(a, b) < 0; });
    return v;
}

struct thread_setting {
    int32_t saved;
    explicit thread_setting(int32_t n) : saved(max_threads) {
        max_threads = n;
        os_hooks.processor_count = eight_processors;
    }
    ~thread_setting() {
        max_threads = saved;
        os_hooks_reset();
    }
};

} // namespace

TEST(OsSort, SameStableResultForOneTwoAndEightThreads) {
    // 300,000 elements give five slices of 65,536; few keys give long runs of ties across slices.
    for (uint32_t keys : {3u, 1000u, 4095u}) {
        std::vector<uint32_t> in = make_input(300000, keys, keys);
        std::vector<uint32_t> want = expected(in);
        for (int32_t threads : {1, 2, 8}) {
            // The processor count is pinned to eight, so the machine's own can't cap the threads.
            thread_setting ts(threads);
            std::vector<uint32_t> got = in;
            thread_seen seen;
            seen.caller = os_thread_id();
            os_qsort_ex(got.data(), got.size(), &seen, key_compare_seen);
            ASSERT_EQ(got, want) << "keys " << keys << ", threads " << threads;
            EXPECT_EQ(seen.other.load(), threads > 1) << "keys " << keys << ", threads " << threads;
        }
    }
}

TEST(OsSort, EdgeSizesAndPresortedInput) {
    thread_setting ts(8);
    for (size_t n : {0u, 1u, 2u, 7u, 8u, 9u, 65535u, 65536u, 65537u, 131073u}) {
        std::vector<uint32_t> in = make_input(n, 50, (uint32_t) n);
        std::vector<uint32_t> got = in;
        os_qsort(got.data(), got.size(), key_compare);
        ASSERT_EQ(got, expected(in)) << n;
        // Sorting again must change nothing, and a reversed input must come out the same.
        os_qsort(got.data(), got.size(), key_compare);
        ASSERT_EQ(got, expected(in)) << n;
    }
}

TEST(OsSort, ContextReachesTheComparator) {
    thread_setting ts(2);
    std::vector<uint32_t> in = make_input(140000, 100, 7);
    int calls = 0;
    std::vector<uint32_t> got = in;
    os_qsort_ex(got.data(), got.size(), &calls, key_compare_ex);
    EXPECT_EQ(got, expected(in));
    EXPECT_GT(calls, 0);
    std::vector<uint32_t> single = in;
    os_merge_sort(single.data(), single.size(), key_compare);
    EXPECT_EQ(single, got);
}
