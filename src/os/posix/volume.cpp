// Volumes on Linux: a block device or an image file opened for pread. There is no file system to ask for
// a record or a geometry, so those calls answer with the fallbacks their callers expect.
#include "mem/mem.h"
#include "os/os_internal.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

os_file_t os_open_volume(const char *path, int access, bool overlapped) {
    (void) overlapped; // pread on a descriptor needs no overlapped mode
    size_t n = strlen(path);
    char *p = mem_dup(path, n);
    if (n > 1 && (p[n - 1] == '/' || p[n - 1] == '\\'))
        p[n - 1] = 0;
    wstr_t w;
    wstr_init(&w);
    wstr_set_utf8(&w, p, -1);
    debug_printf("open volume %S\n", w.ptr);
    wstr_kill(&w);
    int mode = (access & OS_VOLUME_WRITE) ? O_RDWR : O_RDONLY;
    int fd;
    do {
        fd = open(p, mode | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    mem_free(p);
    if (fd < 0)
        return OS_FILE_INVALID;
    struct stat st;
    if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        close(fd);
        errno = EISDIR;
        return OS_FILE_INVALID;
    }
    return (os_file_t) fd;
}

uint32_t os_error_access_denied() {
    return EACCES;
}

uint32_t os_volume_sector_size(os_file_t volume) {
    // A block device knows its logical sector size; an image file has none and takes the fallback.
    int size = 0;
    struct stat st;
    if (fstat((int) volume, &st) == 0 && S_ISBLK(st.st_mode) && ioctl((int) volume, BLKSSZGET, &size) == 0 &&
        size > 0) {
        debug_printf("sector size %d\n", size);
        return (uint32_t) size;
    }
    debug_printf("sector size %d\n", 512);
    return 512;
}

bool os_volume_ntfs_file_record(os_file_t volume, uint64_t frn, void *out, uint32_t *size,
                                uint64_t *got_frn) {
    (void) volume, (void) frn, (void) out, (void) size, (void) got_frn;
    errno = ENOSYS;
    return false;
}

// udev writes a label's bytes that can't stand in a file name as "\\xHH".
static void _label_unescape(const char *name, str_t *out) {
    str_set(out, "");
    for (const char *p = name; *p; p++) {
        if (p[0] == '\\' && p[1] == 'x' && isxdigit((unsigned char) p[2]) && isxdigit((unsigned char) p[3])) {
            char two[3] = {p[2], p[3], 0};
            str_cat_char(out, (char) strtoul(two, nullptr, 16));
            p += 3;
        } else {
            str_cat_char(out, *p);
        }
    }
}

bool os_volume_label(const char *root, str_t *out) {
    str_set(out, "");
    struct stat at, above;
    str_t parent;
    str_init(&parent);
    str_printf(&parent, "%s/..", root);
    bool mount = stat(root, &at) == 0 && stat(parent.ptr, &above) == 0 &&
                 (at.st_dev != above.st_dev || at.st_ino == above.st_ino);
    str_kill(&parent);
    DIR *d = mount ? opendir("/dev/disk/by-label") : nullptr;
    if (!d) {
        return false;
    }
    bool found = false;
    for (struct dirent *e; !found && (e = readdir(d)) != nullptr;) {
        struct stat dev;
        if (e->d_name[0] != '.' && fstatat(dirfd(d), e->d_name, &dev, 0) == 0 && S_ISBLK(dev.st_mode) &&
            dev.st_rdev == at.st_dev) {
            _label_unescape(e->d_name, out);
            found = out->len > 0;
        }
    }
    closedir(d);
    return found;
}
