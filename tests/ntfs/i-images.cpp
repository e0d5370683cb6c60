// The reader against ntfs-3g's own tools, on every image of the matrix, and on images damaged by
// patching good ones.
// The images are made and listed with ntfs-3g's tools, which exist on Linux only; the Windows build reads
// the same images through a mapped drive (i-wine.cpp).
#ifndef _WIN32
#include <unistd.h>

#include "debug/debug.h"
#include "mem/mem.h"
#include "ntfs/ntfs.h"
#include "ntfs/oracle.h"
#include "text/text.h"

namespace {

struct got_t {
    uint64_t frn, parent, size, created, modified, accessed;
    uint32_t attributes;
    std::string name;
};

void collect(void *user, const ntfs_file_record_t *r) {
    auto *v = (std::vector<got_t> *) user;
    std::string name(utf16_utf8_length_counted(r->name, r->name_length), '\0');
    utf16_to_utf8_counted(name.data(), r->name, r->name_length);
    v->push_back({r->frn, r->parent_frn, r->size, r->date_created, r->date_modified, r->date_accessed,
                  r->attributes, name});
}

std::vector<got_t> read_image(const std::string &img, bool *booted = nullptr) {
    std::vector<got_t> got;
    os_file_t h = os_open_volume(img.c_str(), OS_VOLUME_READ, false);
    EXPECT_NE(h, OS_FILE_INVALID) << img;
    ntfs_boot_info_t info;
    bool ok = h != OS_FILE_INVALID && ntfs_read_boot_sector(h, &info);
    if (booted)
        *booted = ok;
    if (ok)
        ntfs_enum_mft(h, &info, NTFS_WANT_ALL, &got, collect);
    if (h != OS_FILE_INVALID)
        os_file_close(h);
    return got;
}

class ImageTest : public ::testing::TestWithParam<image_kind_t> {
  protected:
    static void SetUpTestSuite() {
        debug_init();
        text_init_tables();
    }
};

const uint64_t MASK = 0xFFFFFFFFFFFFull;

TEST_P(ImageTest, RecordsMatchNtfslsAndNtfsinfo) {
    const image_kind_t &kind = GetParam();
    std::string img = image_path(kind);
    ASSERT_FALSE(img.empty());
    std::vector<oracle_entry_t> want = oracle_listing(img);
    ASSERT_GT(want.size(), 100u) << "ntfsls listed too little of " << img;
    std::vector<got_t> got = read_image(img);

    // Names and parents: exactly the same set, the root apart (it is record 5, named ".", in itself).
    std::set<std::tuple<uint64_t, uint64_t, std::string>> want_set, got_set;
    std::map<uint64_t, const oracle_entry_t *> by_inode;
    for (const auto &e : want) {
        want_set.insert({e.inode, e.parent, e.name});
        by_inode[e.inode] = &e;
    }
    int roots = 0;
    std::map<uint64_t, const got_t *> got_by_inode;
    for (const auto &g : got) {
        if ((g.frn & MASK) == 5) {
            roots++;
            EXPECT_EQ(g.frn, 0x0005000000000005ull);
            EXPECT_EQ(g.parent & MASK, 5u);
            EXPECT_EQ(g.name, ".");
            EXPECT_TRUE(g.attributes & OS_ATTR_DIRECTORY);
            continue;
        }
        EXPECT_TRUE(got_set.insert({g.frn & MASK, g.parent & MASK, g.name}).second)
            << "delivered twice: " << g.name;
        got_by_inode[g.frn & MASK] = &g;
    }
    EXPECT_EQ(roots, 1);
    std::vector<std::tuple<uint64_t, uint64_t, std::string>> missing, extra;
    std::set_difference(want_set.begin(), want_set.end(), got_set.begin(), got_set.end(),
                        std::back_inserter(missing));
    std::set_difference(got_set.begin(), got_set.end(), want_set.begin(), want_set.end(),
                        std::back_inserter(extra));
    EXPECT_TRUE(missing.empty()) << missing.size() << " missing, first " << std::get<2>(missing[0]);
    EXPECT_TRUE(extra.empty()) << extra.size() << " extra, first " << std::get<2>(extra[0]);

    // Sizes and the folder bit, for every name.
    for (const auto &g : got) {
        auto it = by_inode.find(g.frn & MASK);
        if (it == by_inode.end())
            continue;
        EXPECT_EQ(g.size, it->second->size) << it->second->path;
        EXPECT_EQ((g.attributes & OS_ATTR_DIRECTORY) != 0, it->second->folder) << it->second->path;
    }

    // Dates and attributes from ntfsinfo: every record of a small image, a spread of a large one.
    size_t step = by_inode.size() > 300 ? by_inode.size() / 150 : 1, i = 0, checked = 0;
    for (const auto &[inode, e] : by_inode) {
        if (i++ % step)
            continue;
        oracle_info_t o = oracle_info(img, inode);
        ASSERT_TRUE(o.ok) << "ntfsinfo could not read " << e->path;
        const got_t *g = got_by_inode[inode];
        ASSERT_NE(g, nullptr) << e->path;
        EXPECT_EQ(filetime_seconds(g->created), o.created) << e->path;
        EXPECT_EQ(filetime_seconds(g->modified), o.modified) << e->path;
        EXPECT_EQ(filetime_seconds(g->accessed), o.accessed) << e->path;
        EXPECT_EQ(g->attributes & ~(uint32_t) OS_ATTR_DIRECTORY, o.attributes & ~(uint32_t) OS_ATTR_DIRECTORY)
            << e->path;
        checked++;
    }
    EXPECT_GT(checked, 50u);
}

// The manifest's special cases, read through ntfsls's names: each must be there in this image.
TEST_P(ImageTest, TheHardCasesAreInTheImageAndRead) {
    std::string img = image_path(GetParam());
    ASSERT_FALSE(img.empty());
    std::vector<got_t> got = read_image(img);
    std::map<std::string, int> count;
    std::map<uint64_t, int> names_of;
    for (const auto &g : got) {
        count[g.name]++;
        names_of[g.frn]++;
    }
    // The short name is never seen; the long one once.
    EXPECT_EQ(count["A Long File Name.jpeg"], 1);
    EXPECT_EQ(count["ALONGF~1.JPE"], 0);
    // Two hard links: two records with one frn.
    EXPECT_EQ(count["song.mp3"], 1);
    EXPECT_EQ(count["song-link.mp3"], 1);
    // 150 links plus the first name, all joined from extension records to one frn.
    int most = 0;
    for (const auto &[frn, n] : names_of)
        most = std::max(most, n);
    EXPECT_EQ(most, 151);
    // Streams add nothing to the unnamed stream's size.
    for (const auto &g : got) {
        if (g.name == "picture.jpg") {
            EXPECT_EQ(g.size, 2048u);
        }
    }
    // Hidden and system attributes as set.
    for (const auto &g : got) {
        if (g.name == "hidden.txt") {
            EXPECT_EQ(g.attributes & 6, 2u);
        }
        if (g.name == "sys.dat") {
            EXPECT_EQ(g.attributes & 6, 4u);
        }
        if (g.name == "hiddendir") {
            EXPECT_EQ(g.attributes & 0x12, 0x12u);
        }
    }
}

// One file's details by reference give what the pass gave for it: through the $MFT run map on an image.
TEST_P(ImageTest, GetFdAgreesWithThePass) {
    std::string img = image_path(GetParam());
    ASSERT_FALSE(img.empty());
    std::vector<got_t> got = read_image(img);
    os_file_t h = os_open_volume(img.c_str(), OS_VOLUME_READ, false);
    ASSERT_NE(h, OS_FILE_INVALID);
    size_t checked = 0;
    for (size_t i = 0; i < got.size(); i += got.size() / 97 + 1) {
        const got_t &g = got[i];
        os_file_info_t fd;
        EXPECT_TRUE(ntfs_get_fd(h, g.frn, 0, &fd)) << g.name;
        EXPECT_EQ(fd.date_modified, g.modified) << g.name;
        EXPECT_EQ(fd.date_created, g.created) << g.name;
        EXPECT_EQ(fd.attributes, g.attributes) << g.name;
        if (!(g.attributes & OS_ATTR_DIRECTORY)) {
            EXPECT_EQ(fd.size, g.size) << g.name;
        }
        checked++;
    }
    // A record that isn't in use gives nothing known.
    os_file_info_t fd;
    EXPECT_FALSE(ntfs_get_fd(h, 0xFFFFFF, 0, &fd));
    EXPECT_EQ(fd.date_modified, UINT64_MAX);
    os_file_close(h);
    EXPECT_GT(checked, 50u);
}

INSTANTIATE_TEST_SUITE_P(Matrix, ImageTest, ::testing::ValuesIn(image_matrix()),
                         [](const ::testing::TestParamInfo<image_kind_t> &i) {
                             std::string n = i.param.name;
                             for (char &c : n)
                                 if (c == '-')
                                     c = '_';
                             return n;
                         });

// ---- damaged images ------------------------------------------------------------------------------------

class DamagedImage : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        debug_init();
        text_init_tables();
    }
    std::string copy;
    ntfs_boot_info_t info{};

    void SetUp() override {
        std::string img = image_path(image_matrix()[1]);
        ASSERT_FALSE(img.empty());
        copy =
            (fs::temp_directory_path() / ("sw-ntfs-damaged-" + std::to_string(getpid()) + ".img")).string();
        fs::copy_file(img, copy, fs::copy_options::overwrite_existing);
        os_file_t h = os_open_volume(copy.c_str(), OS_VOLUME_READ, false);
        ASSERT_TRUE(ntfs_read_boot_sector(h, &info));
        os_file_close(h);
    }
    void TearDown() override { fs::remove(copy); }

    void patch(uint64_t offset, const void *bytes, size_t n) {
        FILE *f = fopen(copy.c_str(), "r+b");
        ASSERT_NE(f, nullptr);
        fseek(f, (long) offset, SEEK_SET);
        fwrite(bytes, 1, n, f);
        fclose(f);
    }
    uint64_t record_offset(uint64_t recno) {
        return info.mft_lcn * info.bytes_per_cluster + recno * info.bytes_per_file_record;
    }
    bool has(const std::vector<got_t> &got, uint64_t recno) {
        for (const auto &g : got)
            if ((g.frn & MASK) == recno)
                return true;
        return false;
    }
};

TEST_F(DamagedImage, WrongSignatureIsNotNtfs) {
    patch(3, "NTFX", 4);
    bool booted = true;
    EXPECT_TRUE(read_image(copy, &booted).empty());
    EXPECT_FALSE(booted);
}

TEST_F(DamagedImage, BadFixupSkipsThatRecordOnly) {
    std::vector<got_t> before = read_image(copy);
    ASSERT_TRUE(has(before, 64));
    // The check value at the end of the record's first sector no longer matches.
    patch(record_offset(64) + 510, "\xEE\xEE", 2);
    std::vector<got_t> after = read_image(copy);
    EXPECT_FALSE(has(after, 64));
    EXPECT_TRUE(has(after, 65));
    EXPECT_EQ(after.size() + 1, before.size());
}

TEST_F(DamagedImage, WrongRecordMagicSkipsThatRecordOnly) {
    std::vector<got_t> before = read_image(copy);
    patch(record_offset(70), "BAAD", 4);
    std::vector<got_t> after = read_image(copy);
    EXPECT_FALSE(has(after, 70));
    EXPECT_TRUE(has(after, 71));
}

TEST_F(DamagedImage, BadMappingPairsEndTheTableButDeliverNothingWrong) {
    // $MFT's own run list, in record 0: a header byte with a count size above 8.
    std::vector<uint8_t> rec(info.bytes_per_file_record);
    FILE *f = fopen(copy.c_str(), "rb");
    fseek(f, (long) record_offset(0), SEEK_SET);
    ASSERT_EQ(fread(rec.data(), 1, rec.size(), f), rec.size());
    fclose(f);
    ASSERT_TRUE(ntfs_fixup(rec.data(), (uint32_t) rec.size()));
    uint32_t a = rec[20] | rec[21] << 8;
    while (a + 8 < rec.size() && !(rec[a] == 0x80 && rec[a + 8] == 1))
        a += rec[a + 4] | rec[a + 5] << 8;
    ASSERT_LT(a + 72, rec.size());
    uint32_t pairs = rec[a + 32] | rec[a + 33] << 8;
    patch(record_offset(0) + a + pairs, "\x09", 1);
    EXPECT_TRUE(read_image(copy).empty());
}

TEST_F(DamagedImage, TruncatedImageDeliversWhatWasRead) {
    std::vector<got_t> before = read_image(copy);
    // Cut inside the table, past record 80: records before the cut's read are delivered, none after.
    fs::resize_file(copy, record_offset(80) + 100);
    std::vector<got_t> after = read_image(copy);
    EXPECT_LT(after.size(), before.size());
    for (const auto &g : after)
        EXPECT_LT(g.frn & MASK, 80u);
    fs::resize_file(copy, 1000);
    bool booted = true;
    EXPECT_TRUE(read_image(copy, &booted).empty());
}

} // namespace

#endif
