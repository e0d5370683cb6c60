// The stable merge sorts of the index build and the result sort. Slices are sorted on pooled threads, each
// in a private buffer, and merged by a small array of slice numbers kept in head order: a later slice
// stands behind an equal earlier one, which keeps the merge stable whatever the slicing.
#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os.h"

#include <cstring>

int32_t max_threads = 0;

namespace {

// One comparator shape for both entry points: the plain form goes through a trampoline context.
struct sort_cmp_t {
    os_compare_ex_t compare;
    void *context;
    int operator()(uint32_t a, uint32_t b) const { return compare(context, a, b); }
};

int _plain_compare(void *context, uint32_t a, uint32_t b) {
    return ((os_compare_t) context)(a, b);
}

// Top-down merge sort of src into dst; both hold the same elements on entry (dst is scratch).
void _merge_sort_rec(uint32_t *a, uint32_t *tmp, size_t n, const sort_cmp_t &cmp) {
    if (n < 2) {
        return;
    }
    if (n <= 8) {
        // Insertion sort for short runs; stable because it moves only past strictly greater elements.
        for (size_t i = 1; i < n; i++) {
            uint32_t v = a[i];
            size_t j = i;
            while (j > 0 && cmp(a[j - 1], v) > 0) {
                a[j] = a[j - 1];
                j--;
            }
            a[j] = v;
        }
        return;
    }
    size_t half = n / 2;
    _merge_sort_rec(a, tmp, half, cmp);
    _merge_sort_rec(a + half, tmp, n - half, cmp);
    if (cmp(a[half - 1], a[half]) <= 0) {
        return;
    }
    memcpy(tmp, a, half * sizeof(uint32_t));
    size_t i = 0, j = half, k = 0;
    while (i < half && j < n) {
        // Ties take the left element first: that is the stability of the sort.
        if (cmp(a[j], tmp[i]) < 0) {
            a[k++] = a[j++];
        } else {
            a[k++] = tmp[i++];
        }
    }
    while (i < half) {
        a[k++] = tmp[i++];
    }
}

void _merge_sort(uint32_t *a, size_t n, const sort_cmp_t &cmp) {
    if (n < 2) {
        return;
    }
    uint32_t *tmp = (uint32_t *) mem_alloc((n / 2 + 1) * sizeof(uint32_t));
    _merge_sort_rec(a, tmp, n, cmp);
    mem_free(tmp);
}

struct slice_t {
    const uint32_t *src;
    uint32_t *buf;
    size_t n;
    size_t pos;
    const sort_cmp_t *cmp;
};

void _slice_proc(void *arg) {
    slice_t *s = (slice_t *) arg;
    memcpy(s->buf, s->src, s->n * sizeof(uint32_t));
    _merge_sort(s->buf, s->n, *s->cmp);
}

// Inserts slice number id into order[0..count), behind every slice whose head is not greater, starting
// the search at from. Returns the new count.
size_t _heads_insert(size_t *order, size_t count, size_t from, size_t id, const slice_t *slices,
                     const sort_cmp_t &cmp) {
    uint32_t head = slices[id].buf[slices[id].pos];
    size_t lo = from, hi = count;
    while (lo < hi) {
        size_t mid = lo + (hi - lo) / 2;
        const slice_t *o = &slices[order[mid]];
        int c = cmp(o->buf[o->pos], head);
        // An equal head of an earlier slice stays in front; of a later slice goes behind.
        if (c < 0 || (c == 0 && order[mid] < id)) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    memmove(order + lo + 1, order + lo, (count - lo) * sizeof(size_t));
    order[lo] = id;
    return count + 1;
}

void _merge_slices(uint32_t *out, slice_t *slices, size_t nslices, const sort_cmp_t &cmp) {
    size_t order[256];
    size_t count = 0;
    for (size_t i = 0; i < nslices; i++) {
        if (slices[i].n) {
            count = _heads_insert(order, count, 0, i, slices, cmp);
        }
    }
    while (count) {
        size_t id = order[0];
        slice_t *s = &slices[id];
        *out++ = s->buf[s->pos++];
        memmove(order, order + 1, (count - 1) * sizeof(size_t));
        count--;
        if (s->pos < s->n) {
            count = _heads_insert(order, count, 0, id, slices, cmp);
        }
    }
}

void _qsort(uint32_t *array, size_t count, const sort_cmp_t &cmp) {
    if (count < 2) {
        return;
    }
    size_t ideal = (count + 65535) / 65536;
    size_t actual = ideal;
    if (max_threads > 0 && (size_t) max_threads < actual) {
        actual = (size_t) max_threads;
    }
    size_t procs = (size_t) (os_processor_count() > 0 ? os_processor_count() : 1);
    if (procs < actual) {
        actual = procs;
    }
    if (actual > 256) {
        actual = 256;
    }
    debug_printf("multithreaded sort: items %d, ideal threads %d, actual threads %d\n", (int) count,
                 (int) ideal, (int) actual);
    if (actual < 2) {
        _merge_sort(array, count, cmp);
        return;
    }
    slice_t slices[256];
    os_thread_t *threads[256];
    for (size_t i = 0; i < actual; i++) {
        size_t from = count * i / actual, to = count * (i + 1) / actual;
        slices[i] = {array + from, (uint32_t *) mem_alloc((to - from) * sizeof(uint32_t) + 4), to - from, 0,
                     &cmp};
        threads[i] = os_thread_create(_slice_proc, &slices[i]);
    }
    for (size_t i = 0; i < actual; i++) {
        os_thread_destroy(threads[i]);
    }
    _merge_slices(array, slices, actual, cmp);
    for (size_t i = 0; i < actual; i++) {
        mem_free(slices[i].buf);
    }
}

} // namespace

void os_qsort(uint32_t *array, size_t count, os_compare_t compare) {
    _qsort(array, count, sort_cmp_t{_plain_compare, (void *) compare});
}

void os_qsort_ex(uint32_t *array, size_t count, void *context, os_compare_ex_t compare) {
    _qsort(array, count, sort_cmp_t{compare, context});
}

void os_merge_sort(uint32_t *array, size_t count, os_compare_t compare) {
    _merge_sort(array, count, sort_cmp_t{_plain_compare, (void *) compare});
}

void os_merge_sort_ex(uint32_t *array, size_t count, void *context, os_compare_ex_t compare) {
    _merge_sort(array, count, sort_cmp_t{compare, context});
}
