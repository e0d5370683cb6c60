// The shutdown's wait for the index runs the index's own queued steps and nothing else.
#include <gtest/gtest.h>

#include <string>

#include "db/db.h"
#include "main/main.h"
#include "program.h"

namespace {

int unrelated_runs = 0;
void unrelated_proc(void *) {
    unrelated_runs++;
}

// The shutdown waits for a load under way and runs the steps it queued; an event of another part that
// happens to be queued must neither run then nor be lost from the exit log.
TEST(ShutdownWait, RunsOnlyTheIndexsOwnEvents) {
    ASSERT_EQ(db, nullptr);
    std::string dir = program_scratch("shutdown-wait");
    bool saved_no_db = no_db;
    no_db = true;
    unrelated_runs = 0;
    main_db_load();
    ASSERT_NE(db, nullptr);
    event_post(unrelated_proc, &unrelated_runs);
    main_db_kill();
    EXPECT_EQ(db, nullptr);
    EXPECT_EQ(unrelated_runs, 0);
    EXPECT_EQ(event_pending_count(), 1);
    event_remove(unrelated_proc, &unrelated_runs);
    no_db = saved_no_db;
}

} // namespace
