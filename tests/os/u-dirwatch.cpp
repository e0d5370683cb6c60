// Tree watches: the walk of ReadDirectoryChangesW buffers on crafted bytes (on both platforms), and real
// watches on scratch folders: scripted changes and the entries they give, folders made and filled at
// once, overflow, the watch limit, and a watch on a whole mount.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "os/os.h"
#include "os/os_dirwatch.h"
#include "os_test_util.h"

struct dw_seen {
    uint32_t action;
    std::string path;
    uint32_t kind;
};

static void dw_collect(void *ctx, const os_dirwatch_entry_t *e) {
    EXPECT_EQ(strlen(e->path), e->path_len) << "path_len must count the bytes before the terminator";
    ((std::vector<dw_seen> *) ctx)->push_back({e->action, std::string(e->path, e->path_len), e->kind});
}

// ---- the buffer walk ------------------------------------------------------------------------------------

// Builds FILE_NOTIFY_INFORMATION entries as the kernel lays them out: each entry 4-byte aligned and
// linked to the next by its offset, the last with offset 0. Fields can be overwritten afterwards to craft
// bad buffers.
struct rdc_buffer {
    std::vector<uint8_t> bytes;
    std::vector<size_t> starts;

    void put32(size_t at, uint32_t v) { memcpy(&bytes[at], &v, 4); }
    rdc_buffer &add(uint32_t action, const std::u16string &name) {
        if (!starts.empty()) {
            put32(starts.back(), (uint32_t) (bytes.size() - starts.back()));
        }
        size_t at = bytes.size();
        starts.push_back(at);
        bytes.resize(at + 12 + name.size() * 2);
        put32(at, 0);
        put32(at + 4, action);
        put32(at + 8, (uint32_t) name.size() * 2);
        memcpy(&bytes[at + 12], name.data(), name.size() * 2);
        while (bytes.size() % 4) {
            bytes.push_back(0);
        }
        return *this;
    }
};

struct rdc_walked {
    int result;
    std::vector<dw_seen> seen;
    os_dirwatch_fault_t fault;
};

static rdc_walked rdc_walk(const std::vector<uint8_t> &bytes, size_t size) {
    rdc_walked w;
    // A copy of exactly size bytes, so that AddressSanitizer catches any read past the end.
    std::vector<uint8_t> exact(bytes.begin(), bytes.begin() + (ptrdiff_t) size);
    w.result = os_dirwatch_walk_rdc(exact.data(), (uint32_t) size, dw_collect, &w.seen, &w.fault);
    return w;
}

TEST(OsDirwatchWalk, WellFormedBuffersDeliverEveryEntryInOrder) {
    rdc_buffer b;
    b.add(1, u"new.txt")
        .add(4, u"sub\\old name")
        .add(5, u"sub\\new name")
        .add(2, u"x")
        .add(3, u"\u00e9t\u00e9");
    b.add(5, u"\U0001F600.png").add(1, u"");
    rdc_walked w = rdc_walk(b.bytes, b.bytes.size());
    EXPECT_EQ(w.result, OS_DIRWATCH_OK);
    EXPECT_EQ(w.fault.check, (uint32_t) OS_DIRWATCH_FAULT_NONE);
    const dw_seen want[] = {{1, "new.txt", 0}, {4, "sub\\old name", 0},     {5, "sub\\new name", 0},
                            {2, "x", 0},       {3, "\xc3\xa9t\xc3\xa9", 0}, {5, "\xf0\x9f\x98\x80.png", 0},
                            {1, "", 0}};
    ASSERT_EQ(w.seen.size(), std::size(want));
    for (size_t i = 0; i < std::size(want); i++) {
        EXPECT_EQ(w.seen[i].action, want[i].action) << i;
        EXPECT_EQ(w.seen[i].path, want[i].path) << i;
        EXPECT_EQ(w.seen[i].kind, (uint32_t) OS_DIRWATCH_KIND_UNKNOWN) << i;
    }
}

TEST(OsDirwatchWalk, EmptyReadIsOverflowAndUnknownActionsArePassedOver) {
    rdc_walked empty = rdc_walk({}, 0);
    EXPECT_EQ(empty.result, OS_DIRWATCH_OVERFLOW);
    EXPECT_TRUE(empty.seen.empty());

    rdc_buffer b;
    b.add(0, u"zero").add(1, u"kept").add(6, u"six").add(0xFFFFFFFFu, u"huge").add(5, u"also kept");
    rdc_walked w = rdc_walk(b.bytes, b.bytes.size());
    EXPECT_EQ(w.result, OS_DIRWATCH_OK);
    ASSERT_EQ(w.seen.size(), 2u);
    EXPECT_EQ(w.seen[0].path, "kept");
    EXPECT_EQ(w.seen[1].path, "also kept");
}

// Each case damages a three-entry buffer (a.txt, bb.txt, ccc.txt: entries at 0, 24 and 48, 76 bytes in
// all) and says which check must stop the walk, the two numbers it reports, and how many entries came
// before it.
TEST(OsDirwatchWalk, EveryEntryIsCheckedAgainstTheBytesReceived) {
    struct bad_case {
        const char *what;
        int entry;      // whose field is overwritten, -1 for none
        int field;      // 0 next offset, 8 name length
        uint32_t value; // the new value
        size_t size;    // bytes handed to the walk; 0 for all of them
        uint32_t check; // expected fault
        int32_t reach;  // expected numbers
        int32_t got;
        size_t delivered; // entries before the fault
    } cases[] = {
        {"cut inside the first fixed part", -1, 0, 0, 8, OS_DIRWATCH_FAULT_NAME_ACCESS, 12, 8, 0},
        {"cut inside the first name", -1, 0, 0, 14, OS_DIRWATCH_FAULT_NEXT_OFFSET, 24, 14, 0},
        {"cut inside the last name", -1, 0, 0, 66, OS_DIRWATCH_FAULT_NAME_LENGTH, 74, 66, 2},
        {"next offset past the end", 1, 0, 4000, 0, OS_DIRWATCH_FAULT_NEXT_OFFSET, 4024, 76, 1},
        {"next offset into the last bytes", 0, 0, 68, 0, OS_DIRWATCH_FAULT_NEXT_OFFSET, 68, 76, 0},
        {"next offset near 4 GiB does not wrap", 1, 0, 0xFFFFFFFCu, 0, OS_DIRWATCH_FAULT_NEXT_OFFSET,
         0x7FFFFFFF, 76, 1},
        {"next offset inside the fixed part", 0, 0, 8, 0, OS_DIRWATCH_FAULT_NEXT_OFFSET, 8, 76, 0},
        {"next offset not aligned", 0, 0, 22, 0, OS_DIRWATCH_FAULT_NEXT_OFFSET, 22, 76, 0},
        {"name length past the end", 2, 8, 100, 0, OS_DIRWATCH_FAULT_NAME_LENGTH, 160, 76, 2},
        {"name length near 4 GiB does not wrap", 2, 8, 0xFFFFFFFEu, 0, OS_DIRWATCH_FAULT_NAME_LENGTH,
         0x7FFFFFFF, 76, 2},
        {"name runs into the next entry", 0, 8, 14, 0, OS_DIRWATCH_FAULT_NAME_LENGTH, 26, 76, 0},
        {"odd name length", 1, 8, 7, 0, OS_DIRWATCH_FAULT_NAME_LENGTH, 43, 76, 1},
    };
    for (const bad_case &c : cases) {
        rdc_buffer b;
        b.add(1, u"a.txt").add(2, u"bb.txt").add(3, u"ccc.txt");
        ASSERT_EQ(b.starts[1], 24u);
        ASSERT_EQ(b.starts[2], 48u);
        ASSERT_EQ(b.bytes.size(), 76u);
        if (c.entry >= 0) {
            b.put32(b.starts[(size_t) c.entry] + (size_t) c.field, c.value);
        }
        rdc_walked w = rdc_walk(b.bytes, c.size ? c.size : b.bytes.size());
        EXPECT_EQ(w.result, OS_DIRWATCH_MALFORMED) << c.what;
        EXPECT_EQ(w.fault.check, c.check) << c.what;
        EXPECT_EQ(w.fault.reach, c.reach) << c.what;
        EXPECT_EQ(w.fault.size, c.got) << c.what;
        EXPECT_EQ(w.seen.size(), c.delivered) << c.what;
    }
}
