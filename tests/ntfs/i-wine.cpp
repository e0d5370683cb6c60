// The same image read by both builds: the records of a volume written out as text, one line each, so that
// the Linux build's reading of an image file and the Windows build's reading of a drive mapped to the same
// file (Wine's "x::" device link) can be compared. tests/ntfs/wine-compare.sh runs both.
//
// SW_NTFS_VOLUME names the volume to read; with SW_NTFS_DUMP the lines are written to that file, with
// SW_NTFS_EXPECT they must equal that file's; SW_NTFS_VOLUME_ALT names the same volume another way ("X:"
// beside "\\.\X:"), which must read the same. Without SW_NTFS_VOLUME there is nothing to compare.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "debug/debug.h"
#include "ntfs/ntfs.h"
#include "text/text.h"

namespace {

void line_of(void *user, const ntfs_file_record_t *r) {
    std::string name(utf16_utf8_length_counted(r->name, r->name_length), '\0');
    utf16_to_utf8_counted(name.data(), r->name, r->name_length);
    char head[160];
    snprintf(head, sizeof(head), "%016llx %016llx %llu %016llx %016llx %016llx %08x ",
             (unsigned long long) r->frn, (unsigned long long) r->parent_frn, (unsigned long long) r->size,
             (unsigned long long) r->date_created, (unsigned long long) r->date_modified,
             (unsigned long long) r->date_accessed, r->attributes);
    ((std::vector<std::string> *) user)->push_back(head + name);
}

std::vector<std::string> read_volume(const char *volume) {
    std::vector<std::string> lines;
    os_file_t h = os_open_volume(volume, OS_VOLUME_READ, false);
    EXPECT_NE(h, OS_FILE_INVALID) << volume << " error " << os_last_error();
    if (h == OS_FILE_INVALID)
        return lines;
    ntfs_boot_info_t info;
    EXPECT_TRUE(ntfs_read_boot_sector(h, &info));
    ntfs_enum_mft(h, &info, NTFS_WANT_ALL, &lines, line_of);
    // One file's details by reference, through whatever route the platform offers.
    os_file_info_t fd;
    EXPECT_TRUE(ntfs_get_fd(h, 0x0005000000000005ull, 0, &fd));
    EXPECT_EQ(fd.attributes & OS_ATTR_DIRECTORY, (uint32_t) OS_ATTR_DIRECTORY);
    os_file_close(h);
    return lines;
}

TEST(SameImage, BothBuildsReadTheSameRecords) {
    const char *volume = getenv("SW_NTFS_VOLUME");
    if (!volume || !*volume)
        GTEST_SKIP() << "SW_NTFS_VOLUME not set: run through tests/ntfs/wine-compare.sh";
    debug_init();
    text_init_tables();
    std::vector<std::string> lines = read_volume(volume);
    if (const char *alt = getenv("SW_NTFS_VOLUME_ALT")) {
        EXPECT_TRUE(read_volume(alt) == lines) << alt << " reads otherwise than " << volume;
    }
    ASSERT_GT(lines.size(), 100u);
    std::string text;
    for (const auto &l : lines)
        text += l + "\n";
    if (const char *dump = getenv("SW_NTFS_DUMP"))
        std::ofstream(dump, std::ios::binary) << text;
    if (const char *expect = getenv("SW_NTFS_EXPECT")) {
        std::ifstream in(expect, std::ios::binary);
        ASSERT_TRUE(in.good()) << expect;
        std::stringstream want;
        want << in.rdbuf();
        EXPECT_TRUE(want.str() == text) << "the records differ from " << expect;
    }
}

} // namespace
