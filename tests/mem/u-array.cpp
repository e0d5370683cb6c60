// The chunked array: layouts at the chunk level (offset, n, base), the spill rule, the two-level search,
// removal, and a randomized run against a sorted std::vector as the model. Elements here are plain
// numbers compared as numbers; the array never looks behind a reference, so that is all it needs.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "mem/arena.h"
#include "mem/array.h"

static int cmp_value(mem_ref_t element, const void *key) {
    mem_ref_t k = *(const mem_ref_t *) key;
    return element < k ? -1 : element > k ? 1 : 0;
}

static std::vector<mem_ref_t> contents(const mem_array_t *a) {
    std::vector<mem_ref_t> v;
    int chunk = 0, pos = -1;
    while (mem_ref_t e = mem_array_next(a, &chunk, &pos)) {
        v.push_back(e);
    }
    return v;
}

static std::vector<mem_ref_t> chunk_contents(const mem_array_t *a, int chunk) {
    const mem_array_chunk_t *c = a->table[chunk];
    const mem_ref_t *items = mem_array_chunk_items(c);
    return std::vector<mem_ref_t>(items, items + c->n);
}

// Keys 10, 20, 30, ... so that a key between two elements always exists.
static std::vector<mem_ref_t> spaced(uint32_t n) {
    std::vector<mem_ref_t> v(n);
    for (uint32_t i = 0; i < n; i++) {
        v[i] = 10 * (i + 1);
    }
    return v;
}

static bool insert(mem_array_t *a, mem_ref_t v) {
    return mem_array_insert_sorted(a, cmp_value, &v, v);
}

TEST(Arena, RefsAndBlocks) {
    mem_arena_init();
    EXPECT_GE(mem_arena_reserved(), (size_t) 1 << 30);
    EXPECT_EQ(mem_ptr(0), nullptr);
    EXPECT_EQ(mem_ref(nullptr), 0u);
    size_t before = mem_arena_blocks_in_use();
    mem_ref_t a = mem_arena_alloc_block();
    mem_ref_t b = mem_arena_alloc_block();
    ASSERT_NE(a, 0u);
    ASSERT_NE(b, 0u);
    EXPECT_NE(a, b);
    EXPECT_EQ(mem_arena_blocks_in_use(), before + 2);
    char *pa = (char *) mem_ptr(a);
    EXPECT_EQ(mem_ref(pa), a);
    EXPECT_EQ(mem_ref(pa + 4096), a + 1024);
    EXPECT_EQ(((uintptr_t) pa - (uintptr_t) mem_arena_base) % MEM_ARENA_BLOCK, 0u);
    for (size_t i = 0; i < MEM_ARENA_BLOCK; i += 997) {
        EXPECT_EQ(pa[i], 0);
    }
    memset(pa, 0xab, MEM_ARENA_BLOCK);
    mem_arena_free_block(a);
    EXPECT_EQ(mem_arena_blocks_in_use(), before + 1);
    // A freed block is reused before the arena grows, and comes back zeroed.
    mem_ref_t c = mem_arena_alloc_block();
    EXPECT_EQ(c, a);
    for (size_t i = 0; i < MEM_ARENA_BLOCK; i += 4) {
        ASSERT_EQ(*(uint32_t *) (pa + i), 0u) << i;
    }
    mem_arena_free_block(b);
    mem_arena_free_block(c);
    mem_arena_free_block(0);
    EXPECT_EQ(mem_arena_blocks_in_use(), before);
}

// Query threads take result blocks while others give theirs back: no block may be handed out twice.
TEST(Arena, ConcurrentBlocksAreDistinct) {
    const int threads = 4, rounds = 300;
    std::vector<std::thread> pool;
    std::atomic<int> bad{0};
    size_t before = mem_arena_blocks_in_use();
    for (int t = 0; t < threads; t++) {
        pool.emplace_back([t, &bad] {
            std::vector<mem_ref_t> held;
            for (int i = 0; i < rounds; i++) {
                mem_ref_t r = mem_arena_alloc_block();
                uint32_t *p = (uint32_t *) mem_ptr(r);
                if (p[0] != 0 || p[MEM_ARENA_BLOCK / 4 - 1] != 0) {
                    bad++;
                }
                p[0] = p[MEM_ARENA_BLOCK / 4 - 1] = (uint32_t) (t << 16 | i);
                held.push_back(r);
                if (i % 3 == 2) {
                    mem_arena_free_block(held[held.size() - 2]);
                    held.erase(held.end() - 2);
                }
            }
            for (size_t k = 0; k < held.size(); k++) {
                uint32_t *p = (uint32_t *) mem_ptr(held[k]);
                if (p[0] >> 16 != (uint32_t) t || p[0] != p[MEM_ARENA_BLOCK / 4 - 1]) {
                    bad++;
                }
            }
            for (mem_ref_t r : held) {
                mem_arena_free_block(r);
            }
        });
    }
    for (auto &th : pool) {
        th.join();
    }
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(mem_arena_blocks_in_use(), before);
}

TEST(Array, EmptyArrayAndFirstInsertion) {
    mem_array_t a = {};
    int chunk = 7, pos = 7;
    mem_ref_t key = 5;
    EXPECT_EQ(mem_array_find_near(&a, &chunk, &pos, cmp_value, &key), 0u);
    EXPECT_EQ(chunk, 0);
    EXPECT_EQ(pos, -1);
    EXPECT_EQ(mem_array_find(&a, cmp_value, &key), 0u);
    EXPECT_EQ(mem_array_next(&a, &chunk, &pos), 0u);
    mem_array_insert_at(&a, chunk, pos, key);
    ASSERT_EQ(a.chunk_count, 1u);
    EXPECT_EQ(a.count, 1u);
    EXPECT_EQ(a.table[0]->offset, 2056u);
    EXPECT_EQ(a.table[0]->n, 1u);
    EXPECT_EQ(a.bases[0], 0u);
    EXPECT_EQ(mem_array_find(&a, cmp_value, &key), 5u);
    mem_array_kill(&a);
    EXPECT_EQ(a.count, 0u);
    EXPECT_EQ(a.table, nullptr);
}

TEST(Array, NoRoomInFrontMovesTheTail) {
    // No room in front: even a front insertion moves the tail.
    mem_array_t b = {};
    std::vector<mem_ref_t> w = spaced(1000);
    mem_array_from_flat(&b, w.data(), 1000);
    ASSERT_EQ(b.table[0]->offset, 16u + 4 * 10);
    for (mem_ref_t k = 1; k <= 10; k++) {
        mem_array_insert_at(&b, 0, -1, k);
    }
    ASSERT_EQ(b.table[0]->offset, 16u);
    mem_array_insert_at(&b, 0, 0, 11);
    EXPECT_EQ(b.table[0]->offset, 16u);
    EXPECT_EQ(b.table[0]->n, 1011u);
    EXPECT_EQ(chunk_contents(&b, 0)[1], 11u);
    mem_array_kill(&b);
}

// The split point of both shifts is n / 2: at it and behind it the tail moves, before it the head.
TEST(Array, ShiftSideSplitsAtHalf) {
    for (uint32_t n : {100u, 101u}) {
        std::vector<mem_ref_t> v = spaced(n);
        for (int delta : {-1, 0}) {
            int pos = (int) n / 2 + delta;
            mem_array_t a = {};
            mem_array_from_flat(&a, v.data(), n);
            uint32_t offset = a.table[0]->offset;
            mem_array_insert_at(&a, 0, pos, v[(size_t) pos] + 5);
            EXPECT_EQ(a.table[0]->offset, delta < 0 ? offset - 4 : offset) << n << " insert " << pos;
            mem_array_kill(&a);
            mem_array_from_flat(&a, v.data(), n);
            mem_array_remove_at(&a, 0, pos);
            EXPECT_EQ(a.table[0]->offset, delta < 0 ? offset + 4 : offset) << n << " remove " << pos;
            std::vector<mem_ref_t> w = v;
            w.erase(w.begin() + pos);
            EXPECT_EQ(contents(&a), w);
            mem_array_kill(&a);
        }
    }
}

// A full middle chunk between two chunks with room on the near side; the left one has room at its end and
// the right one at its start. Elements are 10, 20, ... with the middle chunk's first at index 1019.
static void three_chunks(mem_array_t *a, bool left_room_at_end) {
    std::vector<mem_ref_t> v = spaced(3060);
    mem_array_from_flat(a, v.data(), 3060);
    mem_array_remove_at(a, 0, left_room_at_end ? 1019 : 0);
    mem_array_remove_at(a, 2, 0);
    ASSERT_EQ(a->table[1]->n, 1020u);
}

TEST(Array, SpillToTheCheaperSideTieGoesRight) {
    struct {
        int pos;
        bool right;
    } cases[] = {{508, false}, {509, true}, {510, true}, {0, false}, {-1, false}, {1019, true}};
    for (auto &c : cases) {
        mem_array_t a = {};
        three_chunks(&a, true);
        std::vector<mem_ref_t> left = chunk_contents(&a, 0), mid = chunk_contents(&a, 1),
                               right = chunk_contents(&a, 2);
        mem_ref_t item = c.pos >= 0 ? mid[(size_t) c.pos] + 5 : mid[0] - 5;
        mem_array_insert_at(&a, 1, c.pos, item);
        ASSERT_EQ(a.chunk_count, 3u);
        EXPECT_EQ(a.table[1]->n, 1020u) << c.pos;
        if (c.right) {
            EXPECT_EQ(a.table[0]->n, left.size()) << c.pos;
            EXPECT_EQ(a.table[2]->n, right.size() + 1) << c.pos;
            mem_ref_t moved = c.pos == 1019 ? item : mid.back();
            EXPECT_EQ(chunk_contents(&a, 2)[0], moved) << c.pos;
        } else {
            EXPECT_EQ(a.table[0]->n, left.size() + 1) << c.pos;
            EXPECT_EQ(a.table[2]->n, right.size()) << c.pos;
            mem_ref_t moved = c.pos == -1 ? item : mid.front();
            EXPECT_EQ(chunk_contents(&a, 0).back(), moved) << c.pos;
        }
        std::vector<mem_ref_t> all = left;
        all.insert(all.end(), mid.begin(), mid.end());
        all.insert(all.end(), right.begin(), right.end());
        all.push_back(item);
        std::sort(all.begin(), all.end());
        EXPECT_EQ(contents(&a), all) << c.pos;
        EXPECT_TRUE(mem_array_check(&a));
        mem_array_kill(&a);
    }
}

TEST(Array, NeighbourWithoutRoomOnTheNearSideCostsItsCount) {
    // Left cost 101 + 1,019 against right cost 919: right, although pos is in the front half.
    mem_array_t a = {};
    three_chunks(&a, false);
    mem_ref_t item = chunk_contents(&a, 1)[100] + 5;
    mem_ref_t last = chunk_contents(&a, 1).back();
    mem_array_insert_at(&a, 1, 100, item);
    EXPECT_EQ(chunk_contents(&a, 2)[0], last);
    EXPECT_EQ(a.table[0]->n, 1019u);
    EXPECT_TRUE(mem_array_check(&a));
    mem_array_kill(&a);
}

TEST(Array, InsertAtTheEndOfFullChunkMovesOnlyTheNewElement) {
    mem_array_t a = {};
    std::vector<mem_ref_t> v = spaced(1500);
    mem_array_from_flat(&a, v.data(), 1500);
    ASSERT_EQ(a.table[0]->n, 1020u);
    std::vector<mem_ref_t> first = chunk_contents(&a, 0), second = chunk_contents(&a, 1);
    uint32_t offset = a.table[1]->offset;
    mem_array_insert_at(&a, 0, 1019, 10205);
    EXPECT_EQ(chunk_contents(&a, 0), first);
    EXPECT_EQ(a.table[1]->offset, offset - 4);
    second.insert(second.begin(), 10205);
    EXPECT_EQ(chunk_contents(&a, 1), second);
    EXPECT_EQ(a.bases[1], 1020u);
    mem_array_kill(&a);
}

TEST(Array, FullNeighboursMakeANewChunkOnTheSideOfPos) {
    for (int pos : {509, 510}) {
        mem_array_t a = {};
        std::vector<mem_ref_t> v = spaced(3060);
        mem_array_from_flat(&a, v.data(), 3060);
        std::vector<mem_ref_t> mid = chunk_contents(&a, 1);
        mem_ref_t item = mid[(size_t) pos] + 5;
        mem_array_insert_at(&a, 1, pos, item);
        ASSERT_EQ(a.chunk_count, 4u);
        int fresh = pos == 509 ? 1 : 2;
        int old = pos == 509 ? 2 : 1;
        EXPECT_EQ(a.table[fresh]->n, 1u) << pos;
        EXPECT_EQ(a.table[old]->n, 1020u) << pos;
        EXPECT_EQ(chunk_contents(&a, fresh)[0], pos == 509 ? mid.front() : mid.back()) << pos;
        // The fresh chunk started at 2,064 and took its element in front.
        EXPECT_EQ(a.table[fresh]->offset, 2060u) << pos;
        EXPECT_EQ(a.bases[1], 1020u);
        EXPECT_EQ(a.bases[2], pos == 509 ? 1021u : 2040u);
        EXPECT_EQ(a.bases[3], 2041u);
        EXPECT_EQ(mem_array_find(&a, cmp_value, &item), item);
        v.push_back(item);
        std::sort(v.begin(), v.end());
        EXPECT_EQ(contents(&a), v);
        EXPECT_TRUE(mem_array_check(&a));
        mem_array_kill(&a);
    }
}

TEST(Array, EmptiedChunkLeavesTheTableAndIsReused) {
    mem_array_t a = {};
    std::vector<mem_ref_t> v = spaced(3000);
    mem_array_from_flat(&a, v.data(), 3000);
    ASSERT_EQ(a.chunk_count, 3u);
    size_t blocks = mem_arena_blocks_in_use();
    std::vector<mem_ref_t> mid = chunk_contents(&a, 1);
    mem_array_chunk_t *emptied = a.table[1];
    for (mem_ref_t e : mid) {
        EXPECT_EQ(mem_array_find_remove(&a, cmp_value, &e), e);
    }
    EXPECT_EQ(a.chunk_count, 2u);
    EXPECT_EQ(a.count, 3000u - 1020u);
    EXPECT_EQ(a.bases[1], 1020u);
    EXPECT_EQ(a.free_chunks, mem_ref(emptied));
    EXPECT_TRUE(mem_array_check(&a));
    for (mem_ref_t e : v) {
        bool gone = std::find(mid.begin(), mid.end(), e) != mid.end();
        EXPECT_EQ(mem_array_find(&a, cmp_value, &e), gone ? 0u : e);
    }
    // Head removal raises the offset, tail removal keeps it.
    uint32_t offset = a.table[0]->offset;
    mem_array_remove_at(&a, 0, 3);
    EXPECT_EQ(a.table[0]->offset, offset + 4);
    mem_array_remove_at(&a, 0, 900);
    EXPECT_EQ(a.table[0]->offset, offset + 4);
    // Emptied chunks come back, the last one first, before any new arena block is taken.
    mem_array_chunk_t *first = a.table[0];
    while (a.count) {
        mem_array_remove_at(&a, (int) a.chunk_count - 1, 0);
    }
    EXPECT_EQ(a.chunk_count, 0u);
    EXPECT_EQ(a.free_chunks, mem_ref(first));
    mem_array_push(&a, 77);
    EXPECT_EQ(a.table[0], first);
    mem_ref_t key = 77;
    EXPECT_EQ(mem_array_find(&a, cmp_value, &key), 77u);
    EXPECT_EQ(a.table[0]->offset, 2056u);
    std::vector<mem_ref_t> again = spaced(16 * 1020);
    for (mem_ref_t e : again) {
        mem_array_push(&a, e + 100);
    }
    // 17 chunks: the 16 of the first block, all reused, and one from a new block.
    EXPECT_EQ(a.chunk_count, 17u);
    EXPECT_EQ(mem_arena_blocks_in_use(), blocks + 1);
    EXPECT_TRUE(mem_array_check(&a));
    mem_array_kill(&a);
}

TEST(Array, FindNearGivesTheSlotBehindWhichTheKeyBelongs) {
    mem_array_t a = {};
    std::vector<mem_ref_t> v = spaced(2500);
    mem_array_alloc_bulk(&a, 2500);
    for (uint32_t i = 0; i < 2500; i++) {
        *mem_array_bulk_slot(&a, i) = v[i];
    }
    for (mem_ref_t key = 1; key < 25020; key += 7) {
        int chunk = -5, pos = -5;
        mem_ref_t found = mem_array_find_near(&a, &chunk, &pos, cmp_value, &key);
        if (key % 10 == 0 && key <= 25000) {
            EXPECT_EQ(found, key);
            EXPECT_EQ(mem_array_chunk_items(a.table[chunk])[pos], key);
            int fc = -1, fp = -1;
            EXPECT_EQ(mem_array_find_pos(&a, cmp_value, &key, &fc, &fp), key);
            EXPECT_EQ(fc, chunk);
            EXPECT_EQ(fp, pos);
            continue;
        }
        EXPECT_EQ(found, 0u);
        if (key < 10) {
            EXPECT_EQ(chunk, 0);
            EXPECT_EQ(pos, -1);
        } else {
            EXPECT_EQ(mem_array_chunk_items(a.table[chunk])[pos], std::min<mem_ref_t>(key / 10 * 10, 25000))
                << key;
        }
        // The cursor's next element is the first one above the key.
        mem_ref_t next = mem_array_next(&a, &chunk, &pos);
        EXPECT_EQ(next, key < 25000 ? (key / 10 + 1) * 10 : 0u) << key;
    }
    mem_array_kill(&a);
}

TEST(Array, BulkLayout) {
    for (uint32_t n : {0u, 1u, 2u, 1003u, 1004u, 1005u, 2008u, 2015u, 5000u, 17 * 1004u + 999}) {
        mem_array_t a = {};
        mem_array_alloc_bulk(&a, n);
        uint32_t chunks = (n + 1003) / 1004;
        ASSERT_EQ(a.chunk_count, chunks) << n;
        EXPECT_EQ(a.count, n);
        if (chunks) {
            EXPECT_EQ(a.table_cap & (a.table_cap - 1), 0u);
            EXPECT_GE(a.table_cap, chunks);
            EXPECT_LT(a.table_cap / 2, chunks);
        }
        for (uint32_t i = 0; i < chunks; i++) {
            const mem_array_chunk_t *c = a.table[i];
            uint32_t rest = n - i * 1004;
            if (rest >= 1004) {
                EXPECT_EQ(c->offset, 48u);
                EXPECT_EQ(c->n, 1004u);
            } else {
                EXPECT_EQ(c->offset, (514 - rest / 2) * 4) << n;
                EXPECT_EQ(c->n, rest);
                // Centred: the free room on both sides differs by at most one slot.
                int front = (int) (c->offset - 16) / 4;
                int back = 1020 - front - (int) rest;
                EXPECT_LE(std::abs(front - back), 1) << n;
            }
            EXPECT_EQ(a.bases[i], i * 1004);
        }
        for (uint32_t i = 0; i < n; i++) {
            *mem_array_bulk_slot(&a, i) = 3 * i + 3;
        }
        EXPECT_TRUE(mem_array_check(&a));
        for (uint32_t i = 0; i < n; i += 13) {
            EXPECT_EQ(mem_array_get(&a, i), 3 * i + 3);
        }
        // The first live insertions after a build split nothing.
        if (n > 1004) {
            for (mem_ref_t k = 1; k < 8 * 3; k += 3) {
                insert(&a, 3 * 500 + k);
            }
            EXPECT_EQ(a.chunk_count, chunks);
        }
        mem_array_kill(&a);
    }
}

TEST(Array, FromFlatCopyAndReverse) {
    for (uint32_t n : {1u, 2u, 1019u, 1020u, 1021u, 2040u, 2500u, 10000u}) {
        std::vector<mem_ref_t> v = spaced(n);
        mem_array_t a = {};
        mem_array_from_flat(&a, v.data(), n);
        uint32_t chunks = (n + 1019) / 1020;
        ASSERT_EQ(a.chunk_count, chunks);
        EXPECT_EQ(a.table_cap, chunks);
        for (uint32_t i = 0; i < chunks; i++) {
            uint32_t rest = std::min(1020u, n - i * 1020);
            EXPECT_EQ(a.table[i]->n, rest);
            EXPECT_EQ(a.table[i]->offset, rest == 1020 ? 16u : (((1020 - rest) >> 1) + 4) * 4) << n;
        }
        EXPECT_EQ(contents(&a), v);
        // Copies are packed from offset 16, whatever the source's layout was.
        insert(&a, 15);
        insert(&a, 25);
        std::vector<mem_ref_t> live = contents(&a);
        mem_array_t c = {}, r = {};
        mem_array_copy(&c, &a);
        mem_array_copy_reversed(&r, &a);
        EXPECT_EQ(contents(&c), live);
        std::vector<mem_ref_t> back(live.rbegin(), live.rend());
        EXPECT_EQ(contents(&r), back);
        for (uint32_t i = 0; i < c.chunk_count; i++) {
            EXPECT_EQ(c.table[i]->offset, 16u);
            EXPECT_EQ(c.table[i]->n, i + 1 < c.chunk_count ? 1020u : live.size() - i * 1020);
        }
        EXPECT_TRUE(mem_array_check(&c));
        EXPECT_TRUE(mem_array_check(&r));
        // In place, across chunks of uneven fill.
        mem_array_reverse(&a);
        EXPECT_EQ(contents(&a), back);
        mem_array_reverse(&a);
        EXPECT_EQ(contents(&a), live);
        mem_array_kill(&a);
        mem_array_kill(&c);
        mem_array_kill(&r);
    }
}

TEST(Array, KillGivesEveryBlockBack) {
    size_t before = mem_arena_blocks_in_use();
    mem_array_t a = {};
    std::vector<mem_ref_t> v = spaced(100000);
    mem_array_from_flat(&a, v.data(), 100000);
    EXPECT_EQ(mem_arena_blocks_in_use(), before + (99 + 15) / 16);
    mem_array_kill(&a);
    EXPECT_EQ(mem_arena_blocks_in_use(), before);
    mem_array_t zero = {};
    EXPECT_EQ(memcmp(&a, &zero, sizeof a), 0);
}

// Random inserts and removes against a sorted vector, checking order, every base, random access and
// search after each step. Keys are drawn from a range that forces duplicates, growth to many chunks,
// spills in both directions and chunks that empty.
TEST(Array, RandomAgainstModel) {
    std::mt19937 rng(20240611);
    for (int round = 0; round < 3; round++) {
        mem_array_t a = {};
        std::vector<mem_ref_t> model;
        uint32_t range = round == 0 ? 4000 : round == 1 ? 40000 : 6000;
        for (int step = 0; step < 12000; step++) {
            bool grow = step < 8000 ? rng() % 4 != 0 : rng() % 4 == 0;
            mem_ref_t key = 1 + rng() % range;
            // Round 2 inserts runs of ascending keys, the pattern of a scan that meets sorted names.
            if (round == 2 && grow) {
                key = model.empty() ? 1 : model.back() + 1 + rng() % 3;
            }
            auto it = std::lower_bound(model.begin(), model.end(), key);
            bool present = it != model.end() && *it == key;
            if (grow) {
                ASSERT_EQ(insert(&a, key), !present);
                if (!present) {
                    model.insert(it, key);
                }
            } else {
                ASSERT_EQ(mem_array_find_remove(&a, cmp_value, &key), present ? key : 0u);
                if (present) {
                    model.erase(it);
                }
            }
            ASSERT_EQ(a.count, model.size());
            // The bases are shifted, not recomputed, by most changes: a wrong shift must show at the
            // step that made it.
            ASSERT_TRUE(mem_array_check(&a)) << "step " << step;
            if (step % 97 == 0 || step == 11999) {
                ASSERT_EQ(contents(&a), model);
                for (int k = 0; k < 20 && !model.empty(); k++) {
                    uint32_t i = rng() % (uint32_t) model.size();
                    ASSERT_EQ(mem_array_get(&a, i), model[i]);
                    mem_ref_t probe = 1 + rng() % range;
                    bool in = std::binary_search(model.begin(), model.end(), probe);
                    ASSERT_EQ(mem_array_find(&a, cmp_value, &probe), in ? probe : 0u);
                }
            }
        }
        EXPECT_GT(a.chunk_count, 1u);
        mem_array_kill(&a);
    }
}
