// The allocator: blocks that keep their content through growth, and the one failure that is not fatal, a
// block the heap refuses to take back.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os.h"

namespace {

TEST(Alloc, BlocksGrowFromNothingAndKeepTheirContent) {
    // Null resizes like a fresh allocation, as the growing tables of the program start out.
    char *p = (char *) mem_realloc(nullptr, 10);
    ASSERT_NE(p, nullptr);
    memcpy(p, "0123456789", 10);
    p = (char *) mem_realloc(p, 1 << 20);
    EXPECT_EQ(memcmp(p, "0123456789", 10), 0);
    p[(1 << 20) - 1] = 'x';
    p = (char *) mem_realloc(p, 4);
    EXPECT_EQ(memcmp(p, "0123", 4), 0);
    mem_free(p);
    // A zero size is still a block of its own.
    void *a = mem_alloc(0), *b = mem_try_alloc(0);
    EXPECT_NE(a, nullptr);
    EXPECT_NE(b, nullptr);
    EXPECT_NE(a, b);
    mem_free(a);
    mem_free(b);
    mem_free(nullptr);
}

void *refused_block;

bool refuse_one(void *ptr) {
    return ptr == refused_block;
}

std::string read_file(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

TEST(Alloc, RefusedFreeIsLoggedAndTheProgramGoesOn) {
    debug_init();
    str_t tmp;
    str_init(&tmp);
    os_temp_folder(&tmp);
    std::string log_path =
        std::string(tmp.ptr) + OS_SEP_STR + "sw-alloc-" + std::to_string(os_counter()) + ".txt";
    str_kill(&tmp);
    ASSERT_TRUE(debug_open_log_path(log_path.c_str()));

    refused_block = mem_alloc(48);
    os_hooks.heap_free_fails = refuse_one;
    mem_free(refused_block);
    // Other blocks still go back, and silently.
    mem_free(mem_dup("kept", 4));
    mem_free(nullptr);
    os_hooks_reset();
    debug_close_log();
    // The refused block is still whole and still the heap's.
    memset(refused_block, 0x5a, 48);
    mem_free(refused_block);

    std::string log = read_file(log_path);
    os_file_delete(log_path.c_str());
    char head[64];
    snprintf(head, sizeof head, "HeapFree(0x%08x,0,0x%08x): ", (unsigned) (uint32_t) os_heap_handle(),
             (unsigned) (uint32_t) (uintptr_t) refused_block);
    size_t at = log.find(head);
    ASSERT_NE(at, std::string::npos) << log;
    // Then the heap's error code, which says why, and the end of the line.
    size_t digits = at + strlen(head), end = digits;
    while (end < log.size() && log[end] >= '0' && log[end] <= '9') {
        end++;
    }
    EXPECT_GT(end, digits) << log;
    EXPECT_NE(log.compare(digits, 1, "0"), 0) << log;
    EXPECT_EQ(log.substr(end), ": Failed to free.\r\n") << log;
    EXPECT_EQ(log.find("Failed to free."), log.rfind("Failed to free.")) << "one line for one refused block";
}

} // namespace
