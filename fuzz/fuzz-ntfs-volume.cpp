// Fuzzes the whole reader on a small volume held in memory: any bytes are the volume (reads past its end
// fail as a short device would), through the boot sector, the pass over $MFT and one file's details.
// Nothing may fault, and nothing may read outside the volume's bytes or the reader's buffers.
#include <cstring>

#include "debug/debug.h"
#include "ntfs/ntfs.h"

static const uint8_t *_volume;
static size_t _volume_size;

static int64_t _read_at(os_file_t, uint64_t offset, void *buf, size_t n) {
    if (offset >= _volume_size)
        return 0;
    size_t k = _volume_size - offset < n ? (size_t) (_volume_size - offset) : n;
    memcpy(buf, _volume + offset, k);
    return (int64_t) k;
}

static void _count(void *user, const ntfs_file_record_t *r) {
    unsigned sum = 0;
    for (uint32_t i = 0; i < r->name_length; i++)
        sum += r->name[i];
    *(unsigned *) user += sum;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    _volume = data;
    _volume_size = size;
    os_hooks.file_read_at = _read_at;
    os_file_t fake = (os_file_t) 1000000; // never a real descriptor: every read goes through the hook
    ntfs_boot_info_t info;
    if (ntfs_read_boot_sector(fake, &info)) {
        unsigned sum = 0;
        ntfs_enum_mft(fake, &info, NTFS_WANT_ALL, &sum, _count);
        os_file_info_t fd;
        ntfs_get_fd(fake, 0x0005000000000005ull, 0, &fd);
        ntfs_get_fd(fake, 64, 0, &fd);
    }
    os_hooks.file_read_at = nullptr;
    return 0;
}
