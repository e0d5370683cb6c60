// The event queue: wake-ups only on the empty-to-non-empty edge, order, removal, events that post
// events, and the real loop fed by many threads.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "os/os.h"

namespace {

// Each thread's events carry a sequence number; the callback checks that they arrive in posting order.
struct seq_event_t {
    int thread;
    int seq;
};
const int max_threads = 16;
int last_seq[max_threads];
std::atomic<int> ran{0};
std::atomic<int> out_of_order{0};

void seq_proc(void *context) {
    seq_event_t *e = (seq_event_t *) context;
    if (e->seq != last_seq[e->thread] + 1) {
        out_of_order++;
    }
    last_seq[e->thread] = e->seq;
    ran++;
}

void reset_counters() {
    for (int &s : last_seq) {
        s = -1;
    }
    ran = 0;
    out_of_order = 0;
}

class EventQueue : public ::testing::Test {
  protected:
    void SetUp() override {
        event_init();
        event_dispatch();
        reset_counters();
    }
    void TearDown() override { event_dispatch(); }
};

TEST_F(EventQueue, BurstFromManyThreadsWakesOnceAndKeepsEachThreadsOrder) {
    const int threads = 8, per_thread = 2000;
    std::vector<seq_event_t> events(threads * per_thread);
    uint32_t wakes = event_wake_count();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; t++) {
        pool.emplace_back([&, t] {
            for (int i = 0; i < per_thread; i++) {
                seq_event_t *e = &events[t * per_thread + i];
                *e = {t, i};
                event_post(seq_proc, e);
            }
        });
    }
    for (auto &th : pool) {
        th.join();
    }
    EXPECT_EQ(event_wake_count() - wakes, 1u);
    EXPECT_EQ(event_pending_count(), threads * per_thread);
    EXPECT_EQ(event_dispatch(), threads * per_thread);
    EXPECT_EQ(ran.load(), threads * per_thread);
    EXPECT_EQ(out_of_order.load(), 0);
    EXPECT_EQ(event_pending_count(), 0);

    // The queue is empty again, so the next post is a new edge.
    seq_event_t again = {0, per_thread};
    event_post(seq_proc, &again);
    EXPECT_EQ(event_wake_count() - wakes, 2u);
    EXPECT_EQ(event_dispatch(), 1);
}

std::string trace;
void trace_a(void *c) {
    trace += std::string("a") + (const char *) c;
}
void trace_b(void *c) {
    trace += std::string("b") + (const char *) c;
}

TEST_F(EventQueue, RemoveTakesEveryMatchingPairAndNothingElse) {
    static const char x[] = "x", y[] = "y";
    trace.clear();
    event_post(trace_a, (void *) x);
    event_post(trace_a, (void *) y);
    event_post(trace_b, (void *) x);
    event_post(trace_a, (void *) x);
    event_post(trace_b, (void *) y);
    event_remove(trace_a, (void *) x);
    EXPECT_EQ(event_pending_count(), 3);
    event_remove(trace_b, (void *) "not queued");
    EXPECT_EQ(event_pending_count(), 3);
    EXPECT_EQ(event_dispatch(), 3);
    EXPECT_EQ(trace, "aybxby");

    // Removing the head and the tail leaves a queue that still links both ways.
    trace.clear();
    event_post(trace_a, (void *) x);
    event_post(trace_b, (void *) x);
    event_post(trace_a, (void *) y);
    event_remove(trace_a, (void *) x);
    event_remove(trace_a, (void *) y);
    event_post(trace_b, (void *) y);
    EXPECT_EQ(event_dispatch(), 2);
    EXPECT_EQ(trace, "bxby");
}

int chain_left;
void chain_proc(void *c) {
    trace += (const char *) c;
    if (--chain_left > 0) {
        event_post(chain_proc, c);
    }
}

TEST_F(EventQueue, EventsPostedByACallbackRunInTheSamePass) {
    static const char one[] = "1", two[] = "2";
    trace.clear();
    chain_left = 4;
    event_post(chain_proc, (void *) one);
    event_post(trace_a, (void *) two);
    // The chain's posts land behind the event already queued.
    EXPECT_EQ(event_dispatch(), 5);
    EXPECT_EQ(trace, "1a2111");
    EXPECT_EQ(event_pending_count(), 0);
}

// One context's events run in queue order, including those they post for it; every other event keeps its
// place, and the queue still links both ways afterwards.
TEST_F(EventQueue, DispatchForOneContextLeavesTheRestInPlace) {
    static const char one[] = "1", x[] = "x", y[] = "y";
    trace.clear();
    chain_left = 3;
    event_post(trace_a, (void *) x);
    event_post(chain_proc, (void *) one);
    event_post(trace_b, (void *) y);
    event_post(trace_a, (void *) one);
    event_post(trace_b, (void *) x);
    EXPECT_EQ(event_dispatch_for((void *) one), 4);
    EXPECT_EQ(trace, "1a111");
    EXPECT_EQ(event_dispatch_for((void *) "none queued"), 0);
    trace.clear();
    event_post(trace_a, (void *) y);
    EXPECT_EQ(event_dispatch(), 4);
    EXPECT_EQ(trace, "axbybxay");
}

std::atomic<int> loop_remaining{0};
void quit_when_done_proc(void *) {
    if (--loop_remaining == 0) {
        main_quit(7);
    }
}

std::string unique_instance(const char *tag) {
    str_t s;
    str_init(&s);
    str_printf(&s, "%s-%u-%u", tag, os_thread_id(), os_tick_ms());
    std::string out(s.ptr, (size_t) s.len);
    str_kill(&s);
    return out;
}

TEST_F(EventQueue, LoopRunsEveryPostedEventAndEndsOnQuit) {
    ASSERT_TRUE(main_loop_init(unique_instance("loop").c_str()));
    const int threads = 4, per_thread = 500;
    std::vector<seq_event_t> events(threads * per_thread);
    loop_remaining = threads * per_thread;
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; t++) {
        pool.emplace_back([&, t] {
            for (int i = 0; i < per_thread; i++) {
                seq_event_t *e = &events[t * per_thread + i];
                *e = {t, i};
                event_post(seq_proc, e);
                event_post(quit_when_done_proc, nullptr);
                if (i % 64 == 0) {
                    os_sleep_ms(1);
                }
            }
        });
    }
    int code = main_loop_run();
    for (auto &th : pool) {
        th.join();
    }
    main_loop_kill();
    EXPECT_EQ(code, 7);
    EXPECT_EQ(ran.load(), threads * per_thread);
    EXPECT_EQ(out_of_order.load(), 0);
}

void never_proc(void *) {
    ADD_FAILURE() << "an event ran after its loop was gone";
}

TEST_F(EventQueue, EventLeftAtExitIsLoggedNotRun) {
    ASSERT_TRUE(main_loop_init(unique_instance("left").c_str()));
    main_loop_kill();
    int context = 0;
    event_post(never_proc, &context);
    EXPECT_EQ(event_pending_count(), 1);

    str_t folder, path;
    str_init(&folder);
    str_init(&path);
    os_temp_folder(&folder);
    std::string name = unique_instance("sw-event-log") + ".txt";
    str_path_cat(&path, folder.ptr, folder.len, name.c_str(), (int) name.size());
    debug_init();
    ASSERT_TRUE(debug_open_log_path(path.ptr));
    event_kill();
    debug_close_log();
    EXPECT_EQ(event_pending_count(), 0);

    std::ifstream f(path.ptr, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    str_t line;
    str_init(&line);
    str_printf(&line, "event %p %p\r\n", (void *) never_proc, (void *) &context);
    EXPECT_NE(ss.str().find("event start "), std::string::npos) << ss.str();
    EXPECT_NE(ss.str().find(line.ptr), std::string::npos) << ss.str();
    f.close();
    os_file_delete(path.ptr);
    str_kill(&line);
    str_kill(&path);
    str_kill(&folder);
}

} // namespace
