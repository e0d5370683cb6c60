// The listener on a real folder, up to the apply step: what happens on the disk becomes ready events with
// their details, in order, renames paired with their old names, excluded names left out, and a stop leaves
// no thread, watch or event behind.
#include "monitor_fixture.h"

#include "db_monitor/monitor_internal.h"

namespace {

class ListenTest : public MonitorTest {
  protected:
    // The ready queue as "type path" lines, paths relative to the scratch folder, without taking it.
    std::vector<std::string> ready() {
        std::vector<std::string> out;
        db_folder_state_t *st = db_folder_state(db);
        os_lock_guard guard(&db->monitor_lock);
        for (rdc_event_t *e = st->ready.first; e; e = e->next) {
            std::string p = e->path + root.size() + 1;
            if (e->old_path) {
                p = std::string(e->old_path + root.size() + 1) + " > " + p;
            }
            out.push_back(std::to_string(e->type) + " " + p);
        }
        return out;
    }

    // Waits without running the main thread's events (the apply step stays queued) until the ready queue
    // holds an event whose line is want.
    bool wait_ready(const std::string &want) {
        for (int i = 0; i < 4000; i++) {
            auto r = ready();
            if (std::find(r.begin(), r.end(), want) != r.end()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }
};

TEST_F(ListenTest, ChangesBecomeReadyEventsWithDetails) {
    set_text(&exclude_files, "*.tmp");
    file("t/a.txt", "a");
    folder_source("t", true);
    rebuild();
    ASSERT_TRUE(source()->folder_monitor) << "the listener starts at the end of the build";

    file("t/new.txt", "12345");
    file("t/skip.tmp", "x");
    fs::rename(at("t/a.txt"), at("t/b.txt"));
    fs::remove(at("t/new.txt"));
    fs::create_directories(at("t/dir"));
    ASSERT_TRUE(wait_ready(sep("1 t/dir")));
    std::vector<std::string> r = ready();
    auto pos = [&](const std::string &line) { return std::find(r.begin(), r.end(), sep(line)) - r.begin(); };
    EXPECT_LT(pos("1 t/new.txt"), pos("5 t/a.txt > t/b.txt"));
    EXPECT_LT(pos("5 t/a.txt > t/b.txt"), pos("2 t/new.txt"));
    EXPECT_LT(pos("2 t/new.txt"), pos("1 t/dir"));
#ifndef _WIN32
    // Where the watch says what an entry is, an excluded file name makes no event; ReadDirectoryChangesW
    // doesn't say, and the apply step's own exclude test leaves it out there.
    EXPECT_EQ(pos("1 t/skip.tmp"), (long) r.size()) << "excluded names make no event";
#endif
    {
        db_folder_state_t *st = db_folder_state(db);
        os_lock_guard guard(&db->monitor_lock);
        for (rdc_event_t *e = st->ready.first; e; e = e->next) {
            EXPECT_TRUE(e->got_details);
            if (e->type == RDC_RENAMED_NEW) {
                EXPECT_EQ(e->item.size, 1u);
                EXPECT_FALSE(e->is_folder);
            }
            if (e->type == RDC_ADDED && std::string(e->path) == at("t/dir")) {
                EXPECT_TRUE(e->is_folder);
                ASSERT_TRUE(e->scan && e->scan->root) << "a new folder comes with its contents";
            }
        }
    }
    db_folder_monitors_stop(db);
    EXPECT_FALSE(source()->folder_monitor);
    EXPECT_TRUE(ready().empty()) << "a stop frees what was queued";
}

TEST_F(ListenTest, NothingListensWhilePausedOrReadOnly) {
    folder_source("t", true);
    file("t/a.txt", "a");
    rebuild();
    ASSERT_TRUE(source()->folder_monitor);
    db_monitor_set_pause(db, true);
    EXPECT_FALSE(source()->folder_monitor);
    db_monitor_set_pause(db, false);
    EXPECT_TRUE(source()->folder_monitor);
    read_only = true;
    db_folder_monitors_start(db);
    EXPECT_FALSE(source()->folder_monitor);
    read_only = false;
}

} // namespace
