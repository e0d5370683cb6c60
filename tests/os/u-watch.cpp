// Folder watches with real changes on disk: which changes wake a watch, that a watch stays signalled
// until polled and is re-armed by the poll, the stop object against waiting threads, and several watches
// in one wait.
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "os/os.h"
#include "os/os_watch.h"
#include "os_test_util.h"

// Long enough for any notification to arrive on a loaded machine; only failing tests wait it out.
static const uint32_t ARRIVE_MS = 5000;
// How long a quiet watch is given to prove it stays quiet.
static const uint32_t QUIET_MS = 300;

static void write_text(const std::string &path, const char *text) {
    os_file_t f = os_file_open(path.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
    ASSERT_NE(f, OS_FILE_INVALID) << path;
    os_file_write(f, text, strlen(text));
    os_file_close(f);
}

struct watch_fixture {
    os_test_folder dir;
    os_watch_stop_t *stop = os_watch_stop_create();
    os_watch_t *w = nullptr;

    watch_fixture() { w = os_watch_create(dir.path.c_str()); }
    ~watch_fixture() {
        os_watch_destroy(w);
        os_watch_stop_destroy(stop);
    }
    std::string at(const char *name) { return dir.path + OS_SEP_STR + name; }
    // Waits for this one watch; true when it woke, and then re-arms it with a poll that must see a change.
    bool woke(uint32_t ms = ARRIVE_MS) {
        int r = os_watch_wait(stop, &w, 1, ms);
        if (r != 0) {
            return false;
        }
        int state = os_watch_poll(w);
        EXPECT_NE(state, OS_WATCH_QUIET) << "a watch that woke a wait must poll as changed";
        return state != OS_WATCH_QUIET;
    }
    // Lets late notifications of earlier steps arrive and drains them.
    void settle() {
        while (os_watch_wait(stop, &w, 1, 200) == 0) {
            os_watch_poll(w);
        }
    }
};

TEST(OsWatch, ChangesInTheFolderWakeIt) {
    watch_fixture f;
    ASSERT_NE(f.w, nullptr);
    EXPECT_EQ(os_watch_poll(f.w), OS_WATCH_QUIET);
    EXPECT_EQ(os_watch_wait(f.stop, &f.w, 1, 50), OS_WATCH_WAIT_TIMEOUT);

    std::string a = f.at("a.swl");
    write_text(a, "created");
    EXPECT_TRUE(f.woke()) << "create";
    f.settle();

    os_file_t h = os_file_open(a.c_str(), OS_OPEN_WRITE | OS_OPEN_APPEND);
    ASSERT_NE(h, OS_FILE_INVALID);
    os_file_write(h, "more", 4);
    os_file_close(h);
    EXPECT_TRUE(f.woke()) << "write";
    f.settle();

    std::string b = f.at("b.swl");
    ASSERT_TRUE(os_file_rename(a.c_str(), b.c_str()));
    EXPECT_TRUE(f.woke()) << "rename";
    f.settle();

    ASSERT_TRUE(os_file_delete(b.c_str()));
    EXPECT_TRUE(f.woke()) << "delete";
    f.settle();
    EXPECT_EQ(os_watch_poll(f.w), OS_WATCH_QUIET);
}

TEST(OsWatch, StaysSignalledUntilPolled) {
    watch_fixture f;
    ASSERT_NE(f.w, nullptr);
    write_text(f.at("x"), "1");
    ASSERT_EQ(os_watch_wait(f.stop, &f.w, 1, ARRIVE_MS), 0);
    // Without a poll the watch is still signalled: a second wait returns at once.
    EXPECT_EQ(os_watch_wait(f.stop, &f.w, 1, 0), 0);
    f.settle();
    EXPECT_EQ(os_watch_wait(f.stop, &f.w, 1, 100), OS_WATCH_WAIT_TIMEOUT);
    write_text(f.at("y"), "2");
    EXPECT_TRUE(f.woke()) << "re-armed by the poll";
    f.settle();
    os_file_delete(f.at("x").c_str());
    os_file_delete(f.at("y").c_str());
}

TEST(OsWatch, SubfoldersAreNotWatched) {
    watch_fixture f;
    std::string sub = f.at("sub");
    ASSERT_TRUE(os_folder_create(sub.c_str()));
    f.settle();
    std::string inner = sub + OS_SEP_STR + "inner.txt";
    write_text(inner, "x");
    EXPECT_EQ(os_watch_wait(f.stop, &f.w, 1, QUIET_MS), OS_WATCH_WAIT_TIMEOUT);
    os_file_delete(inner.c_str());
    f.settle();
    os_folder_delete(sub.c_str());
}

TEST(OsWatch, SeveralWatchesInOneWait) {
    os_test_folder d0, d1, d2;
    os_watch_t *w[3] = {os_watch_create(d0.path.c_str()), os_watch_create(d1.path.c_str()),
                        os_watch_create(d2.path.c_str())};
    os_watch_stop_t *stop = os_watch_stop_create();
    for (os_watch_t *x : w) {
        ASSERT_NE(x, nullptr);
    }
    std::string p = d2.path + OS_SEP_STR + "c.txt";
    write_text(p, "c");
    EXPECT_EQ(os_watch_wait(stop, w, 3, ARRIVE_MS), 2);
    EXPECT_EQ(os_watch_poll(w[0]), OS_WATCH_QUIET);
    EXPECT_EQ(os_watch_poll(w[1]), OS_WATCH_QUIET);
    EXPECT_EQ(os_watch_poll(w[2]), OS_WATCH_CHANGED);
    os_file_delete(p.c_str());
    // The stop object wins over a signalled watch.
    ASSERT_EQ(os_watch_wait(stop, w, 3, ARRIVE_MS), 2);
    os_watch_stop_set(stop);
    EXPECT_EQ(os_watch_wait(stop, w, 3, ARRIVE_MS), OS_WATCH_WAIT_STOP);
    EXPECT_EQ(os_watch_wait(stop, w, 64, 0), OS_WATCH_WAIT_FAILED) << "more than one wait can take";
    for (os_watch_t *x : w) {
        os_watch_destroy(x);
    }
    os_watch_stop_destroy(stop);
}

struct waiter_t {
    os_watch_stop_t *stop;
    os_watch_t *w;
    std::atomic<int> result{1000};
};

static void _wait_proc(void *arg) {
    waiter_t *t = (waiter_t *) arg;
    t->result = os_watch_wait(t->stop, &t->w, 1, OS_INFINITE);
}

TEST(OsWatch, StopEndsAWaitWithoutTimeLimit) {
    watch_fixture f;
    ASSERT_NE(f.w, nullptr);
    EXPECT_FALSE(os_watch_stop_is_set(f.stop));
    waiter_t t;
    t.stop = f.stop;
    t.w = f.w;
    os_raw_thread_t *th = os_raw_thread_start(_wait_proc, &t);
    ASSERT_NE(th, nullptr);
    os_sleep_ms(100);
    EXPECT_EQ(t.result.load(), 1000) << "the wait must still be waiting";
    os_watch_stop_set(f.stop);
    os_raw_thread_join(th);
    EXPECT_EQ(t.result.load(), OS_WATCH_WAIT_STOP);
    // Manual reset: it stays set for every later wait.
    EXPECT_TRUE(os_watch_stop_is_set(f.stop));
    EXPECT_EQ(os_watch_wait(f.stop, nullptr, 0, OS_INFINITE), OS_WATCH_WAIT_STOP);
}

TEST(OsWatch, MissingFolderCantBeWatched) {
    os_test_folder d;
    std::string missing = d.path + OS_SEP_STR + "not here";
    EXPECT_EQ(os_watch_create(missing.c_str()), nullptr);
}

// Linux only: under Wine a change handle on a folder that is removed just stays quiet.
#ifndef _WIN32
TEST(OsWatch, FolderThatGoesAwayBreaksTheWatch) {
    os_test_folder d;
    std::string sub = d.path + OS_SEP_STR + "gone";
    ASSERT_TRUE(os_folder_create(sub.c_str()));
    os_watch_t *w = os_watch_create(sub.c_str());
    ASSERT_NE(w, nullptr);
    os_watch_stop_t *stop = os_watch_stop_create();
    ASSERT_TRUE(os_folder_delete(sub.c_str()));
    ASSERT_EQ(os_watch_wait(stop, &w, 1, ARRIVE_MS), 0);
    EXPECT_EQ(os_watch_poll(w), OS_WATCH_BROKEN);
    os_watch_destroy(w);
    os_watch_stop_destroy(stop);
}
#endif
