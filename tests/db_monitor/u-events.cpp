// The listener's events on their way to the index: runs of modified events merged, queues handed over
// whole, paths tested against the excludes folder by folder, and a refused buffer shrunk.
#include <gtest/gtest.h>

#include <string>

#include "db/db.h"
#include "db_create/build_fixture.h"
#include "db_create/db_create.h"
#include "db_monitor/monitor_internal.h"

namespace {

std::string queue_text(const rdc_queue_t &q) {
    std::string out;
    for (rdc_event_t *e = q.first; e; e = e->next) {
        out += std::to_string(e->type) + e->path + " ";
    }
    return out;
}

TEST(RdcEvents, RunsOfModifiedEventsKeepTheirLast) {
    struct row_t {
        const char *events; // type digit and one-letter path, blank separated
        const char *want;
    };
    const row_t rows[] = {
        {"3a 3a 3a", "3a "},
        {"3a 3b 3a", "3a 3b 3a "},    // not consecutive: each stays
        {"1a 3a 3a 2a", "1a 3a 2a "}, // an add and a removal aren't merged away
        {"3a 3a 1b 3a 3a 3a", "3a 1b 3a "},
        {"2a 2a", "2a 2a "},
        {"", ""},
    };
    db_fs_t fs = {};
    for (const row_t &r : rows) {
        rdc_queue_t q = {nullptr, nullptr};
        for (const char *p = r.events; *p; p += p[2] ? 3 : 2) {
            char path[2] = {p[1], 0};
            rdc_queue_push(&q, rdc_event_new(&fs, nullptr, (uint32_t) (p[0] - '0'), path, nullptr, false));
        }
        rdc_queue_merge_modified(&q);
        EXPECT_EQ(queue_text(q), r.want) << r.events;
        // The tail is right after merging: a push lands behind the last event.
        rdc_queue_push(&q, rdc_event_new(&fs, nullptr, 1, "z", nullptr, false));
        EXPECT_EQ(std::string(q.last->path), "z");
        rdc_event_free_list(q.first);
    }
}

TEST(RdcEvents, QueuesHandOverWhole) {
    db_fs_t fs = {};
    rdc_queue_t a = {nullptr, nullptr}, b = {nullptr, nullptr};
    rdc_queue_push(&a, rdc_event_new(&fs, nullptr, 1, "new", nullptr, false));
    rdc_queue_push(&b, rdc_event_new(&fs, nullptr, 1, "held1", nullptr, false));
    rdc_queue_push(&b, rdc_event_new(&fs, nullptr, 1, "held2", nullptr, false));
    rdc_queue_prepend(&a, &b);
    EXPECT_EQ(queue_text(a), "1held1 1held2 1new ");
    EXPECT_FALSE(b.first || b.last);
    rdc_queue_append(&b, &a);
    EXPECT_EQ(queue_text(b), "1held1 1held2 1new ");
    EXPECT_EQ(std::string(b.last->path), "new");
    rdc_event_free_list(b.first);
}

TEST(RdcEvents, RefusedBufferFallsTo65536Then4096) {
    uint32_t size = 1048576;
    const uint32_t want[] = {65536, 4096, 4096};
    for (uint32_t w : want) {
        size = rdc_buffer_shrink(size);
        EXPECT_EQ(size, w);
    }
    EXPECT_EQ(rdc_buffer_shrink(2048), 2048u);
}

TEST(RdcEvents, ExcludeTestCoversEveryFolderOnTheWay) {
    db_exclude_t e = {};
    db_exclude_add(&e.folders, "node_modules", 12);
    db_exclude_add(&e.files, "*.tmp", 5);
    const std::string root = sep("/r");
    struct row_t {
        const char *rel;
        uint32_t kind;
        bool excluded;
    };
    const row_t rows[] = {
        {"a/b.txt", OS_DIRWATCH_FILE, false},
        {"a/b.tmp", OS_DIRWATCH_FILE, true},
        {"a/b.tmp", OS_DIRWATCH_FOLDER, false}, // a folder named like an excluded file is kept
        {"a/b.tmp", OS_DIRWATCH_KIND_UNKNOWN, false},
        {"node_modules", OS_DIRWATCH_FOLDER, true},
        {"node_modules", OS_DIRWATCH_FILE, false},
        {"x/node_modules/y/z.txt", OS_DIRWATCH_FILE, true},
        {"x/node_modules/y", OS_DIRWATCH_KIND_UNKNOWN, true},
        {"x/node_modules2/z.txt", OS_DIRWATCH_FILE, false},
    };
    void *md = db_exclude_match_data_create();
    for (const row_t &r : rows) {
        std::string path = root + OS_SEP_STR + sep(r.rel);
        EXPECT_EQ(rdc_path_excluded(&e, md, path.c_str(), (uint32_t) root.size(), r.kind), r.excluded)
            << r.rel << " kind " << r.kind;
    }
    db_exclude_match_data_destroy(md);
    db_exclude_kill(&e);
}

} // namespace
