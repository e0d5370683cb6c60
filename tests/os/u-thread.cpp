// Locks, events, raw threads and the thread pool, with real threads.
#include "os_test_util.h"

#include <atomic>
#include <gtest/gtest.h>
#include <vector>

namespace {

struct counter_work {
    os_lock_t *lock;
    long *value;
    int rounds;
};

void counter_proc(void *arg) {
    counter_work *w = (counter_work *) arg;
    for (int i = 0; i < w->rounds; i++) {
        os_lock_enter(w->lock);
        // Re-entered by its owner, as a critical section may be.
        os_lock_enter(w->lock);
        long v = *w->value;
        *w->value = v + 1;
        os_lock_leave(w->lock);
        os_lock_leave(w->lock);
    }
}

} // namespace

TEST(OsThread, LockMakesIncrementsExact) {
    os_lock_t lock;
    os_lock_init(&lock);
    long value = 0;
    counter_work w = {&lock, &value, 20000};
    os_raw_thread_t *threads[4];
    for (auto &t : threads) {
        t = os_raw_thread_start(counter_proc, &w);
        ASSERT_NE(t, nullptr);
    }
    for (auto &t : threads) {
        os_raw_thread_join(t);
    }
    EXPECT_EQ(value, 4 * 20000);
    {
        os_lock_guard guard(&lock);
        value = -1;
    }
    // The guard released the lock: another thread can take it.
    counter_work one = {&lock, &value, 1};
    os_raw_thread_t *t = os_raw_thread_start(counter_proc, &one);
    os_raw_thread_join(t);
    EXPECT_EQ(value, 0);
    os_lock_kill(&lock);
}

namespace {

struct waiter {
    os_event_t *event;
    std::atomic<int> *woken;
};

void wait_proc(void *arg) {
    waiter *w = (waiter *) arg;
    if (os_event_wait(w->event, OS_INFINITE)) {
        w->woken->fetch_add(1);
    }
}

} // namespace

TEST(OsThread, ManualResetEventReleasesEveryWaiterAndStaysSet) {
    os_event_t *e = os_event_create(false);
    std::atomic<int> woken{0};
    waiter w = {e, &woken};
    os_raw_thread_t *threads[4];
    for (auto &t : threads) {
        t = os_raw_thread_start(wait_proc, &w);
    }
    os_sleep_ms(50);
    EXPECT_EQ(woken.load(), 0);
    os_event_set(e);
    for (auto &t : threads) {
        os_raw_thread_join(t);
    }
    EXPECT_EQ(woken.load(), 4);
    // Manual reset: still set for later waiters until someone resets it.
    EXPECT_TRUE(os_event_wait(e, 0));
    EXPECT_TRUE(os_event_wait(e, OS_INFINITE));
    os_event_reset(e);
    EXPECT_FALSE(os_event_wait(e, 0));
    os_event_destroy(e);

    os_event_t *pre = os_event_create(true);
    EXPECT_TRUE(os_event_wait(pre, 0));
    os_event_destroy(pre);
}

TEST(OsThread, EventWaitTimesOut) {
    os_event_t *e = os_event_create(false);
    uint64_t start = os_counter();
    EXPECT_FALSE(os_event_wait(e, 120));
    double ms = (double) (os_counter() - start) * 1000.0 / (double) os_counter_frequency();
    EXPECT_GE(ms, 100.0);
    os_event_destroy(e);
}

namespace {

struct pool_work {
    std::atomic<uint32_t> tid{0};
    std::atomic<int> runs{0};
    int sleep_ms = 0;
    std::atomic<bool> finished{false};
};

void pool_proc(void *arg) {
    pool_work *w = (pool_work *) arg;
    if (w->sleep_ms) {
        os_sleep_ms((uint32_t) w->sleep_ms);
    }
    w->tid.store(os_thread_id());
    w->runs.fetch_add(1);
    w->finished.store(true);
}

// Every test starts and ends with an empty pool, whatever the others left.
struct OsPool : ::testing::Test {
    void SetUp() override {
        reuse_threads = true;
        os_thread_pool_kill();
    }
    void TearDown() override {
        reuse_threads = true;
        os_thread_pool_kill();
    }
};

} // namespace

TEST_F(OsPool, DestroyWaitsForTheProc) {
    pool_work w;
    w.sleep_ms = 80;
    os_thread_t *t = os_thread_create(pool_proc, &w);
    os_thread_destroy(t);
    EXPECT_TRUE(w.finished.load());
    EXPECT_NE(w.tid.load(), os_thread_id());
    EXPECT_EQ(os_thread_pool_parked_count(), 1);
}

TEST_F(OsPool, ParkedThreadIsReused) {
    pool_work first;
    os_thread_t *t = os_thread_create(pool_proc, &first);
    os_thread_destroy(t);
    ASSERT_EQ(os_thread_pool_parked_count(), 1);

    // Many short rounds: each must run its proc exactly once, on the same real thread.
    for (int round = 0; round < 200; round++) {
        pool_work w;
        os_thread_t *again = os_thread_create(pool_proc, &w);
        EXPECT_EQ(again, t);
        EXPECT_EQ(os_thread_pool_parked_count(), 0);
        os_thread_destroy(again);
        ASSERT_EQ(w.runs.load(), 1) << "round " << round;
        ASSERT_EQ(w.tid.load(), first.tid.load()) << "round " << round;
    }
    EXPECT_EQ(os_thread_pool_parked_count(), 1);
    os_thread_pool_kill();
    EXPECT_EQ(os_thread_pool_parked_count(), 0);
}

TEST_F(OsPool, ManyAtOnceThenAllParkedInOrder) {
    const int n = 8;
    pool_work w[n];
    os_thread_t *t[n];
    for (int i = 0; i < n; i++) {
        w[i].sleep_ms = 20;
        t[i] = os_thread_create(pool_proc, &w[i]);
    }
    for (int i = 0; i < n; i++) {
        os_thread_destroy(t[i]);
    }
    std::vector<uint32_t> tids;
    for (int i = 0; i < n; i++) {
        EXPECT_EQ(w[i].runs.load(), 1);
        tids.push_back(w[i].tid.load());
        for (int j = 0; j < i; j++) {
            EXPECT_NE(tids[i], tids[j]) << "two running procs shared a thread";
        }
    }
    EXPECT_EQ(os_thread_pool_parked_count(), n);
    // The parked list hands threads out from its head: the first one parked comes back first.
    pool_work again;
    os_thread_t *r = os_thread_create(pool_proc, &again);
    os_thread_destroy(r);
    EXPECT_EQ(again.tid.load(), tids[0]);
}

TEST_F(OsPool, WithoutReuseThreadsEnd) {
    reuse_threads = false;
    pool_work a;
    os_thread_t *t = os_thread_create(pool_proc, &a);
    os_thread_set_priority(t, OS_PRIORITY_BELOW_NORMAL);
    os_thread_destroy(t);
    EXPECT_EQ(a.runs.load(), 1);
    EXPECT_EQ(os_thread_pool_parked_count(), 0);

    // A parked thread from the time reuse was on is still used once, then ends.
    reuse_threads = true;
    pool_work b;
    os_thread_destroy(os_thread_create(pool_proc, &b));
    ASSERT_EQ(os_thread_pool_parked_count(), 1);
    reuse_threads = false;
    pool_work c;
    os_thread_destroy(os_thread_create(pool_proc, &c));
    EXPECT_EQ(c.tid.load(), b.tid.load());
    EXPECT_EQ(os_thread_pool_parked_count(), 0);
}

TEST(OsThread, RawThreadRunsItsArgumentAndSleeps) {
    pool_work w;
    os_raw_thread_t *t = os_raw_thread_start(pool_proc, &w);
    ASSERT_NE(t, nullptr);
    os_raw_thread_set_priority(t, OS_PRIORITY_NORMAL);
    os_raw_thread_join(t);
    EXPECT_EQ(w.runs.load(), 1);
    EXPECT_NE(w.tid.load(), os_thread_id());

    uint64_t start = os_counter();
    os_sleep_ms(30);
    double ms = (double) (os_counter() - start) * 1000.0 / (double) os_counter_frequency();
    EXPECT_GE(ms, 25.0);
}
