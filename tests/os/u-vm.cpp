// Address space: a reservation as large as the record arena's, committed in blocks far apart.
#include "os_test_util.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

bool all_zero(const unsigned char *p, size_t n) {
    for (size_t i = 0; i < n; i++) {
        if (p[i]) {
            return false;
        }
    }
    return true;
}

} // namespace

TEST(OsVm, SixteenGigabyteReservationCommitsAnywhere) {
    const size_t size = (size_t) 16 << 30;
    const size_t block = 65536;
    unsigned char *base = (unsigned char *) os_vm_reserve(size);
    ASSERT_NE(base, nullptr) << "16 GiB reservation refused";

    const size_t offsets[] = {0, block, (size_t) 8 << 30, size - block};
    for (size_t off : offsets) {
        ASSERT_TRUE(os_vm_commit(base + off, block)) << off;
        EXPECT_TRUE(all_zero(base + off, block)) << off;
        memset(base + off, 0xA5, block);
    }
    for (size_t off : offsets) {
        EXPECT_EQ(base[off], 0xA5);
        EXPECT_EQ(base[off + block - 1], 0xA5);
    }
    // Committing what is committed keeps the content.
    ASSERT_TRUE(os_vm_commit(base, block));
    EXPECT_EQ(base[100], 0xA5);

    // Decommitted pages come back as zeros, and the neighbour keeps its bytes.
    os_vm_decommit(base + block, block);
    ASSERT_TRUE(os_vm_commit(base + block, block));
    EXPECT_TRUE(all_zero(base + block, block));
    EXPECT_EQ(base[block - 1], 0xA5);

    os_vm_release(base, size);
}

TEST(OsVm, AllocGivesZeroedWritablePages) {
    const size_t size = 3 * 65536 + 100;
    unsigned char *p = (unsigned char *) os_vm_alloc(size);
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(all_zero(p, size));
    memset(p, 1, size);
    EXPECT_EQ(p[size - 1], 1);
    os_vm_free(p, size);
}
