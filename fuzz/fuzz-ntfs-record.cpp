// Fuzzes the record scan: any bytes, taken as a run of MFT records of a size chosen by the first byte,
// must be scanned, joined and delivered without a fault. Every name delivered must lie inside the input
// (or the reader's own copies) in full, which the callback checks by reading each unit; no name may be
// longer than its length byte allows, and nothing under the system's own records may come out.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "debug/debug.h"
#include "ntfs/ntfs.h"

static void _check(void *user, const ntfs_file_record_t *r) {
    unsigned sum = 0;
    for (uint32_t i = 0; i < r->name_length; i++)
        sum += r->name[i];
    *(unsigned *) user += sum + (unsigned) r->size;
    uint64_t frn = r->frn & 0xFFFFFFFFFFFFull, parent = r->parent_frn & 0xFFFFFFFFFFFFull;
    if (r->name_length > 255 || (frn < 16 && frn != 5) || (parent < 16 && parent != 5))
        abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1)
        return 0;
    static const uint32_t sizes[] = {1024, 4096, 512, 2048};
    uint32_t rs = sizes[data[0] & 3];
    // The first bytes stand for record numbers: low numbers are the system's own and mostly skipped, so
    // the rest of the input starts as record 16 and up unless the second bit says otherwise.
    bool from_zero = data[0] & 4;
    data++, size--;
    uint32_t count = (uint32_t) (size / rs) + 1;
    std::vector<uint8_t> buf((size_t) count * rs, 0);
    memcpy(buf.data(), data, size);
    unsigned sum = 0;
    ntfs_mft_reader_t *r = ntfs_reader_create(rs, NTFS_WANT_ALL, &sum, _check);
    if (!from_zero) {
        std::vector<uint8_t> empty((size_t) 16 * rs, 0);
        ntfs_reader_records(r, empty.data(), 16);
    }
    ntfs_reader_records(r, buf.data(), count);
    ntfs_reader_finish(r);
    return 0;
}
