// The block list and the bump allocator: block boundaries, counts, alignment, the large-request chain,
// and that nothing handed out overlaps (every byte written is read back at the end).
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "mem/list.h"
#include "mem/stack.h"

TEST(List, AcrossBlockBoundaries) {
    mem_list_t l = {};
    EXPECT_EQ(mem_list_count(&l), 0u);
    const uint32_t n = 3 * MEM_LIST_BLOCK_ENTRIES + 5;
    for (uint32_t i = 0; i < n; i++) {
        mem_list_add(&l, i * 7 + 1);
        if (i + 1 == MEM_LIST_BLOCK_ENTRIES) {
            EXPECT_EQ(l.block_count, 1u);
            EXPECT_EQ(mem_list_count(&l), MEM_LIST_BLOCK_ENTRIES);
        }
        if (i == MEM_LIST_BLOCK_ENTRIES) {
            EXPECT_EQ(l.block_count, 2u);
        }
    }
    EXPECT_EQ(mem_list_count(&l), n);
    EXPECT_EQ(l.block_count, 4u);
    EXPECT_EQ(l.table_cap, 4u);
    for (uint32_t i = 0; i < n; i++) {
        ASSERT_EQ(mem_list_get(&l, i), i * 7 + 1) << i;
    }
    std::vector<mem_ref_t> out(n);
    mem_list_copy_out(&l, out.data());
    for (uint32_t i = 0; i < n; i++) {
        ASSERT_EQ(out[i], i * 7 + 1) << i;
    }
    mem_list_kill(&l);
    EXPECT_EQ(mem_list_count(&l), 0u);
    mem_list_add(&l, 9);
    EXPECT_EQ(mem_list_get(&l, 0), 9u);
    mem_list_kill(&l);
}

TEST(Stack, AlignmentChainsAndNoOverlap) {
    mem_stack_t s = {};
    std::mt19937 rng(7);
    struct item_t {
        unsigned char *p;
        size_t size;
        unsigned char fill;
    };
    std::vector<item_t> items;
    for (int i = 0; i < 5000; i++) {
        size_t size = rng() % 8 == 0 ? 200 + rng() % 3000 : rng() % 64;
        if (i == 10) {
            size = 255;
        }
        if (i == 11) {
            size = 256;
        }
        void *large_before = s.large_blocks;
        unsigned char *p = (unsigned char *) mem_stack_alloc(&s, size);
        EXPECT_EQ((uintptr_t) p % MEM_STACK_ALIGN, 0u);
        // Exactly the requests of 256 bytes and more go to the second chain.
        EXPECT_EQ(s.large_blocks != large_before, size >= MEM_STACK_LARGE) << size;
        unsigned char fill = (unsigned char) i;
        memset(p, fill, size);
        items.push_back({p, size, fill});
    }
    for (auto &it : items) {
        for (size_t k = 0; k < it.size; k++) {
            ASSERT_EQ(it.p[k], it.fill);
        }
    }
    char *d = mem_stack_dup(&s, "abcdef", 4);
    EXPECT_STREQ(d, "abcd");
    mem_stack_kill(&s);
    EXPECT_EQ(s.blocks, nullptr);
    EXPECT_EQ(s.large_blocks, nullptr);
    // A zero-sized request still returns a usable pointer, and the stack works again after kill.
    EXPECT_NE(mem_stack_alloc(&s, 0), nullptr);
    mem_stack_kill(&s);
}
