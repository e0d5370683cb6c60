// The reader on records and volumes built byte by byte: the boot sector's size encodings, the mapping
// pairs, the fix-up, and the record rules whose faults a real image may never show (names held back by an
// attribute list, stale extension records, $MFT's own runs listed in an extension record).
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "debug/debug.h"
#include "mem/mem.h"
#include "ntfs/ntfs.h"
#include "text/text.h"

namespace {

void put16(std::vector<uint8_t> &b, size_t at, uint16_t v) {
    memcpy(&b[at], &v, 2);
}
void put32(std::vector<uint8_t> &b, size_t at, uint32_t v) {
    memcpy(&b[at], &v, 4);
}
void put64(std::vector<uint8_t> &b, size_t at, uint64_t v) {
    memcpy(&b[at], &v, 8);
}

const uint64_t UNSET = UINT64_MAX;

// One MFT record of 1,024 bytes, its attributes appended in order, the fix-up applied by done().
struct record_t {
    std::vector<uint8_t> b = std::vector<uint8_t>(1024, 0);
    uint32_t at = 56;

    explicit record_t(uint16_t flags = 1, uint16_t seq = 1, uint64_t base = 0) {
        memcpy(&b[0], "FILE", 4);
        put16(b, 4, 48); // update sequence array
        put16(b, 6, 3);
        put16(b, 16, seq);
        put16(b, 20, 56);
        put16(b, 22, flags);
        put64(b, 32, base);
    }
    size_t attr(uint32_t type, uint32_t len, bool resident = true, uint8_t name_len = 0) {
        len = (len + 7) & ~7u;
        size_t a = at;
        put32(b, a, type);
        put32(b, a + 4, len);
        b[a + 8] = resident ? 0 : 1;
        b[a + 9] = name_len;
        at += len;
        return a;
    }
    size_t resident(uint32_t type, uint32_t value_len, uint8_t name_len = 0) {
        size_t a = attr(type, 24 + value_len, true, name_len);
        put32(b, a + 16, value_len);
        put16(b, a + 20, 24);
        return a + 24;
    }
    record_t &si(uint64_t created, uint64_t modified, uint64_t accessed, uint32_t attributes) {
        size_t v = resident(0x10, 48);
        put64(b, v, created);
        put64(b, v + 8, modified);
        put64(b, v + 24, accessed);
        put32(b, v + 32, attributes);
        return *this;
    }
    record_t &name(uint64_t parent, const std::u16string &n, uint8_t ns = 1) {
        size_t v = resident(0x30, 66 + 2 * (uint32_t) n.size());
        put64(b, v, parent);
        b[v + 64] = (uint8_t) n.size();
        b[v + 65] = ns;
        memcpy(&b[v + 66], n.data(), 2 * n.size());
        return *this;
    }
    record_t &data(uint32_t size, uint8_t name_len = 0) {
        resident(0x80, size, name_len);
        return *this;
    }
    // A non-resident $DATA with its run list.
    record_t &runs(uint64_t lowest_vcn, uint64_t data_size, const std::vector<uint8_t> &pairs) {
        size_t a = attr(0x80, 64 + (uint32_t) pairs.size() + 1, false);
        put64(b, a + 16, lowest_vcn);
        put16(b, a + 32, 64);
        put64(b, a + 48, data_size);
        put64(b, a + 56, data_size);
        memcpy(&b[a + 64], pairs.data(), pairs.size());
        return *this;
    }
    record_t &list() {
        resident(0x20, 32);
        return *this;
    }
    std::vector<uint8_t> done() {
        put32(b, at, 0xFFFFFFFF);
        put16(b, 48, 7);
        for (int i = 1; i <= 2; i++) {
            memcpy(&b[48 + 2 * i], &b[512 * i - 2], 2);
            put16(b, 512 * i - 2, 7);
        }
        return b;
    }
};

struct got_t {
    uint64_t frn, parent, size, modified;
    uint32_t attributes;
    std::string name;
};

void collect(void *user, const ntfs_file_record_t *r) {
    std::string name(utf16_utf8_length_counted(r->name, r->name_length), '\0');
    utf16_to_utf8_counted(name.data(), r->name, r->name_length);
    ((std::vector<got_t> *) user)
        ->push_back({r->frn, r->parent_frn, r->size, r->date_modified, r->attributes, name});
}

// Scans records numbered from first (the records below it are empty).
std::vector<got_t> scan(const std::vector<std::vector<uint8_t>> &recs, uint64_t first = 16) {
    std::vector<got_t> got;
    ntfs_mft_reader_t *r = ntfs_reader_create(1024, NTFS_WANT_ALL, &got, collect);
    std::vector<uint8_t> buf((first + recs.size()) * 1024, 0);
    for (size_t i = 0; i < recs.size(); i++)
        memcpy(&buf[(first + i) * 1024], recs[i].data(), 1024);
    ntfs_reader_records(r, buf.data(), (uint32_t) (first + recs.size()));
    ntfs_reader_finish(r);
    return got;
}

class RecordTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        debug_init();
        text_init_tables();
    }
};

TEST_F(RecordTest, NamesByNamespaceAndLinks) {
    auto got = scan({
        record_t().si(1, 2, 3, 0x20).name(5, u"LONGNAME.TXT", 2).name(5, u"Long name.txt", 1).data(7).done(),
        record_t().name(5, u"a", 0).name(16, u"b", 3).data(9).done(),
        record_t().name(5, u"odd", 4).name(5, u"fine", 1).done(),
    });
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[0].name, "Long name.txt");
    EXPECT_EQ(got[0].frn, 16u | 1ull << 48);
    EXPECT_EQ(got[0].size, 7u);
    EXPECT_EQ(got[0].modified, 2u);
    // Two links: two records with one frn and each its own parent.
    EXPECT_EQ(got[1].name, "a");
    EXPECT_EQ(got[2].name, "b");
    EXPECT_EQ(got[1].frn, got[2].frn);
    EXPECT_EQ(got[2].parent, 16u);
    // No standard information: dates unknown.
    EXPECT_EQ(got[1].modified, UNSET);
    // An unknown namespace drops that name only.
    EXPECT_EQ(got[3].name, "fine");
}

TEST_F(RecordTest, RecordsThatGiveNothing) {
    std::vector<std::vector<uint8_t>> recs;
    recs.push_back(record_t(0).name(5, u"not in use").done());
    recs.push_back(record_t().name(11, u"under $Extend").done());
    auto bad = record_t().name(5, u"bad fixup").done();
    bad[1022] ^= 1;
    recs.push_back(bad);
    auto nomagic = record_t().name(5, u"no magic").done();
    nomagic[0] = 'B';
    recs.push_back(nomagic);
    // An attribute whose length runs past the record's end.
    record_t over;
    over.name(5, u"overrun");
    put32(over.b, 56 + 4, 2000);
    recs.push_back(over.done());
    // A fix-up count of 1 means no fix-up: the record passes unchanged.
    record_t plain;
    plain.name(5, u"no fixup");
    auto p = plain.done();
    put16(p, 6, 1);
    memcpy(&p[510], &p[50], 2);
    memcpy(&p[1022], &p[52], 2);
    recs.push_back(p);
    auto got = scan(recs);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].name, "no fixup");
}

TEST_F(RecordTest, SystemRecordsGiveOnlyTheRoot) {
    std::vector<std::vector<uint8_t>> recs;
    for (int i = 0; i < 16; i++)
        recs.push_back(record_t(3).name(5, i == 5 ? u"." : u"$sys").done());
    auto got = scan(recs, 0);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].frn, 0x0001000000000005ull);
    EXPECT_EQ(got[0].name, ".");
}

TEST_F(RecordTest, FolderBitFollowsTheRecordNotTheStandardInformation) {
    auto got = scan({
        record_t(3).si(1, 1, 1, 0x20).name(5, u"dir").done(),
        record_t(1).si(1, 1, 1, 0x30).name(5, u"file").data(5).data(100, 3).done(),
    });
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].attributes, 0x30u);
    EXPECT_EQ(got[0].size, 0u);
    EXPECT_EQ(got[1].attributes, 0x20u);
    // The named stream is left out.
    EXPECT_EQ(got[1].size, 5u);
}

TEST_F(RecordTest, AttributeListRecordsJoinAfterThePass) {
    const uint64_t seq2 = 2ull << 48;
    auto got = scan({
        // 16: a base with a list and one name; its data and second name in 18, its dates in 19.
        record_t(1, 2).list().name(5, u"base").done(),
        record_t().name(5, u"plain").done(),
        record_t(1, 1, 16 | seq2).name(5, u"second").data(40).done(),
        record_t(1, 1, 16 | seq2).si(10, 20, 30, 2).done(),
        // 20: an extension of a base of another sequence: stale, dropped.
        record_t(1, 1, 16 | 5ull << 48).name(5, u"stale").done(),
        // 21: an extension whose base has no list here: delivered on its own, under the base's frn.
        record_t(1, 1, 17 | 1ull << 48).name(5, u"orphan").done(),
        // 22: an extension of a system record: dropped.
        record_t(1, 1, 9).name(5, u"sys").done(),
    });
    std::vector<std::string> order;
    for (const auto &g : got)
        order.push_back(g.name);
    EXPECT_EQ(order, (std::vector<std::string>{"plain", "orphan", "base", "second"}));
    for (const auto &g : got) {
        if (g.name == "base" || g.name == "second") {
            EXPECT_EQ(g.frn, 16 | seq2);
            EXPECT_EQ(g.size, 40u);
            EXPECT_EQ(g.modified, 20u);
            EXPECT_EQ(g.attributes, 2u);
        }
        if (g.name == "orphan") {
            EXPECT_EQ(g.frn, 17 | 1ull << 48);
        }
    }
}

// ---- mapping pairs and the boot sector -----------------------------------------------------------------

TEST(MappingPairs, Decoding) {
    struct row_t {
        std::vector<uint8_t> bytes;
        std::vector<std::pair<uint64_t, int64_t>> runs; // count, lcn; lcn -1 for sparse
        int end;                                        // the last result: 0 end, -1 undecodable
    };
    const std::vector<row_t> rows = {
        {{0x21, 0x10, 0x00, 0x01, 0x00}, {{16, 256}}, 0},
        // A negative offset moves back from the last run.
        {{0x21, 0x10, 0x00, 0x01, 0x11, 0x05, 0xFF, 0x00}, {{16, 256}, {5, 255}}, 0},
        // A sparse run moves nothing; an offset of 0x80 is -128.
        {{0x11, 0x04, 0x10, 0x01, 0x09, 0x11, 0x02, 0x80, 0x00}, {{4, 16}, {9, -1}, {2, -112}}, 0},
        // Eight bytes of offset, the top bit clear: no sign extension beyond.
        {{0x81, 0x01, 0x00, 0, 0, 0, 0, 0, 0, 0x10, 0x00}, {{1, 0x1000000000000000}}, 0},
        {{0x19, 0x01}, {}, -1},             // count size above 8
        {{0x91, 0x01}, {}, -1},             // offset size above 8
        {{0x22, 0x01}, {}, -1},             // count cut short
        {{0x21, 0x01, 0x00}, {}, -1},       // offset cut short
        {{0x11, 0x01, 0x01}, {{1, 1}}, -1}, // no end mark before the end
    };
    for (size_t i = 0; i < rows.size(); i++) {
        const row_t &r = rows[i];
        const uint8_t *pos = r.bytes.data(), *end = pos + r.bytes.size();
        int64_t lcn = 0;
        ntfs_run_t run;
        std::vector<std::pair<uint64_t, int64_t>> got;
        int k;
        while ((k = ntfs_mapping_pair_next(&pos, end, &lcn, &run)) == 1)
            got.push_back({run.count, run.sparse ? -1 : run.lcn});
        EXPECT_EQ(got, r.runs) << "row " << i;
        EXPECT_EQ(k, r.end) << "row " << i;
    }
}

// A volume held in memory, read through the read hook.
std::vector<uint8_t> g_volume;
int64_t read_volume(os_file_t, uint64_t offset, void *buf, size_t n) {
    if (offset >= g_volume.size())
        return 0;
    size_t k = std::min(n, (size_t) (g_volume.size() - offset));
    memcpy(buf, &g_volume[offset], k);
    return (int64_t) k;
}

class VolumeTest : public RecordTest {
  protected:
    // A real file's handle, so that the platform's geometry question gets a file's answer (512); the
    // reads themselves come from g_volume through the hook.
    os_file_t vol = OS_FILE_INVALID;
    std::string scratch;

    void SetUp() override {
        str_t tmp;
        str_init(&tmp);
        os_temp_folder(&tmp);
        scratch = std::string(tmp.ptr, (size_t) tmp.len) + OS_SEP_STR + "sw-ntfs-volume-test-" +
                  std::to_string(os_thread_id());
        str_kill(&tmp);
        vol = os_file_open(scratch.c_str(), OS_OPEN_READ | OS_OPEN_WRITE | OS_OPEN_CREATE);
        ASSERT_NE(vol, OS_FILE_INVALID);
        os_hooks.file_read_at = read_volume;
    }
    void TearDown() override {
        os_hooks_reset();
        os_file_close(vol);
        os_file_delete(scratch.c_str());
    }

    static void boot(uint16_t bps, uint8_t spc, uint8_t per_record, uint64_t mft_lcn) {
        g_volume.assign(1 << 20, 0);
        memcpy(&g_volume[3], "NTFS    ", 8);
        put16(g_volume, 11, bps);
        g_volume[13] = spc;
        put64(g_volume, 48, mft_lcn);
        g_volume[64] = per_record;
        put64(g_volume, 72, 0x1234);
    }
};

TEST_F(VolumeTest, BootSectorSizes) {
    struct row_t {
        uint16_t bps;
        uint8_t spc, per_record;
        bool ok;
        uint32_t cluster, record;
    };
    const row_t rows[] = {
        {512, 8, 0xF6, true, 4096, 1024},
        {512, 0xF8, 0xF6, true, 512 << 8, 1024}, // 1 << 8 sectors to a cluster
        {4096, 1, 0xF4, true, 4096, 4096},
        {512, 2, 2, true, 1024, 2048}, // positive: clusters per record
        {512, 0, 0xF6, false, 0, 0},   // no cluster
        {0, 8, 0xF6, false, 0, 0},     // no sector
        {512, 8, 0x80, false, 0, 0},   // 1 << 128: no record size
    };
    for (const row_t &r : rows) {
        boot(r.bps, r.spc, r.per_record, 4);
        ntfs_boot_info_t info{};
        ASSERT_EQ(ntfs_read_boot_sector(vol, &info), r.ok) << r.bps << " " << (int) r.spc;
        if (!r.ok)
            continue;
        EXPECT_EQ(info.bytes_per_cluster, r.cluster);
        EXPECT_EQ(info.bytes_per_file_record, r.record);
        EXPECT_EQ(info.mft_lcn, 4u);
        EXPECT_EQ(info.serial_number, 0x1234u);
    }
    boot(512, 8, 0xF6, 4);
    memcpy(&g_volume[3], "NTFS   X", 8);
    ntfs_boot_info_t info;
    EXPECT_FALSE(ntfs_read_boot_sector(vol, &info));
}

// $MFT in two pieces, the second listed only in an extension record of $MFT itself. With a short first
// piece the extension is met after the first piece ran out; with a long one, in the middle of it.
TEST_F(VolumeTest, MftRunsListedInAnExtensionRecord) {
    for (uint32_t first_clusters : {6u, 24u}) {
        const uint32_t total = first_clusters * 4 + 16; // records; 4 to a cluster
        const uint64_t lcn1 = 16, lcn2 = 200;
        boot(512, 8, 0xF6, lcn1);
        auto rec_at = [&](uint32_t n) -> size_t {
            uint32_t cluster = n / 4;
            uint64_t lcn = cluster < first_clusters ? lcn1 + cluster : lcn2 + cluster - first_clusters;
            return lcn * 4096 + (n % 4) * 1024;
        };
        std::vector<uint8_t> p1 = {0x11, (uint8_t) first_clusters, (uint8_t) lcn1};
        std::vector<uint8_t> p2 = {0x21, 4, (uint8_t) lcn2, 0}; // two offset bytes: 200 alone is negative
        // The valid length ends half way into the last cluster's last record: that half is dropped.
        auto r0 = record_t(1).runs(0, (uint64_t) total * 1024 + 512, p1).done();
        memcpy(&g_volume[rec_at(0)], r0.data(), 1024);
        auto ext = record_t(1, 1, 1ull << 48).runs(first_clusters, 0, p2).done();
        memcpy(&g_volume[rec_at(17)], ext.data(), 1024);
        for (uint32_t n = 18; n < total; n++) {
            std::u16string name = {u'f', (char16_t) ('A' + n % 26), (char16_t) ('0' + n / 26)};
            auto r = record_t().name(5, name).done();
            memcpy(&g_volume[rec_at(n)], r.data(), 1024);
        }
        ntfs_boot_info_t info;
        ASSERT_TRUE(ntfs_read_boot_sector(vol, &info));
        std::vector<got_t> got;
        ntfs_enum_mft(vol, &info, NTFS_WANT_ALL, &got, collect);
        ASSERT_EQ(got.size(), total - 18) << first_clusters;
        for (size_t i = 0; i < got.size(); i++)
            EXPECT_EQ(got[i].frn & 0xFFFFFFFFFFFFull, 18 + i) << first_clusters;
    }
}

TEST_F(VolumeTest, ReadFailureDeliversWhatWasRead) {
    boot(512, 8, 0xF6, 16);
    // 200 records in one run, the volume cut after the first 64 KiB buffer.
    auto r0 = record_t(1).runs(0, 200 * 1024, {0x11, 50, 16}).done();
    memcpy(&g_volume[16 * 4096], r0.data(), 1024);
    for (uint32_t n = 16; n < 200; n++) {
        auto r = record_t().name(5, u"x").done();
        memcpy(&g_volume[16 * 4096 + n * 1024], r.data(), 1024);
    }
    g_volume.resize(16 * 4096 + 100 * 1024);
    ntfs_boot_info_t info;
    ASSERT_TRUE(ntfs_read_boot_sector(vol, &info));
    std::vector<got_t> got;
    ntfs_enum_mft(vol, &info, NTFS_WANT_ALL, &got, collect);
    EXPECT_EQ(got.size(), 64u - 16u);
}

} // namespace
