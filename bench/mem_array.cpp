// Sorted insertion, removal and lookup in mem_array_t against the standard containers that a port might
// have used instead: std::set (a balanced tree) and a sorted std::vector. Keys are 32-bit values compared
// as numbers, so the table measures the container, not the comparison.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <set>
#include <string_view>
#include <vector>

#include "mem/array.h"

static int cmp_value(mem_ref_t element, const void *key) {
    mem_ref_t k = *(const mem_ref_t *) key;
    return element < k ? -1 : element > k ? 1 : 0;
}

static double seconds_since(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

static void row(const char *what, const char *container, size_t n, double s) {
    printf("%-22s %-18s %10zu %10.3f %12.0f\n", what, container, n, s * 1000, s > 0 ? n / s : 0.0);
}

static void run(size_t n) {
    std::mt19937 rng(42);
    std::vector<mem_ref_t> keys(n);
    for (auto &k : keys) {
        k = 1 + rng() % 0x7fffffff;
    }

    mem_array_t a = {};
    auto t = std::chrono::steady_clock::now();
    for (mem_ref_t k : keys) {
        mem_array_insert_sorted(&a, cmp_value, &k, k);
    }
    row("random insert", "mem_array_t", n, seconds_since(t));

    std::set<mem_ref_t> set;
    t = std::chrono::steady_clock::now();
    for (mem_ref_t k : keys) {
        set.insert(k);
    }
    row("random insert", "std::set", n, seconds_since(t));

    // A sorted vector moves half of everything on each insertion; only the small sizes are bearable.
    if (n <= 200000) {
        std::vector<mem_ref_t> v;
        t = std::chrono::steady_clock::now();
        for (mem_ref_t k : keys) {
            auto it = std::lower_bound(v.begin(), v.end(), k);
            if (it == v.end() || *it != k) {
                v.insert(it, k);
            }
        }
        row("random insert", "sorted std::vector", n, seconds_since(t));
    }

    size_t found = 0;
    t = std::chrono::steady_clock::now();
    for (mem_ref_t k : keys) {
        found += mem_array_find(&a, cmp_value, &k) != 0;
    }
    row("lookup", "mem_array_t", n, seconds_since(t));
    t = std::chrono::steady_clock::now();
    for (mem_ref_t k : keys) {
        found += set.count(k);
    }
    row("lookup", "std::set", n, seconds_since(t));

    t = std::chrono::steady_clock::now();
    for (size_t i = 0; i < n; i += 2) {
        mem_array_find_remove(&a, cmp_value, &keys[i]);
    }
    row("remove half", "mem_array_t", n / 2, seconds_since(t));
    t = std::chrono::steady_clock::now();
    for (size_t i = 0; i < n; i += 2) {
        set.erase(keys[i]);
    }
    row("remove half", "std::set", n / 2, seconds_since(t));
    if (a.count != set.size() || found == 0) {
        printf("mismatch: %u against %zu\n", a.count, set.size());
    }
    mem_array_kill(&a);
}

int main(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IONBF, 0);
    // "--smoke" keeps the run short for CI.
    bool smoke = argc > 1 && std::string_view(argv[1]) == "--smoke";
    printf("%-22s %-18s %10s %10s %12s\n", "operation", "container", "n", "ms", "per second");
    for (size_t n : {100000u, 1000000u}) {
        run(n);
        if (smoke) {
            break;
        }
    }
    return 0;
}
