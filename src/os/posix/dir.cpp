// Folder enumeration on Linux: getdents64 on a descriptor opened with O_DIRECTORY, then statx relative
// to that descriptor without following links, so an entry costs one system call beside its share of the
// batched listing and no path is ever built. A folder on which another file system is mounted is what a
// mounted folder is on Windows: a folder link, listed and never entered, so that a scan of "/" stays on
// its own file system and doesn't wander into /proc or a network mount.
#include "mem/mem.h"
#include "os/os_dir.h"
#include "os/os_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#define OS_DIR_BUFFER 32768

// The kernel's record layout for getdents64; glibc declares no wrapper on every version we build with.
struct _os_dirent64 {
    uint64_t d_ino;
    int64_t d_off;
    unsigned short d_reclen;
    unsigned char d_type;
    char d_name[1];
};

struct os_dir_t {
    int fd;
    uint64_t dev; // the device of the folder; an entry on another one is a mount point
    int pos;      // next record in buffer
    int avail;    // bytes of buffer holding records
    bool done;
    alignas(8) char buffer[OS_DIR_BUFFER]; // getdents64 records hold 64-bit fields
};

os_dir_t *os_dir_open(const char *path) {
    int fd;
    do {
        fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return nullptr;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        int error = errno;
        close(fd);
        errno = error;
        return nullptr;
    }
    os_dir_t *d = (os_dir_t *) mem_alloc(sizeof(os_dir_t));
    d->fd = fd;
    d->dev = (uint64_t) st.st_dev;
    d->pos = 0;
    d->avail = 0;
    d->done = false;
    return d;
}

void os_dir_close(os_dir_t *dir) {
    if (!dir) {
        return;
    }
    close(dir->fd);
    mem_free(dir);
}

// Fills the entry's details from statx, or from fstatat where statx is refused. False when the entry is
// gone.
static bool _os_dir_stat(const os_dir_t *dir, const char *name, os_dir_entry_t *e) {
    uint32_t mode;
    uint64_t dev = dir->dev;
    if (!os_posix_stat_at(dir->fd, name, &e->info, &mode, &dev)) {
        return false;
    }
    os_file_info_t *info = &e->info;
    e->is_folder = S_ISDIR(mode);
    e->is_link = S_ISLNK(mode);
    if (e->is_folder) {
        info->size = 0;
        if (dev != dir->dev) {
            e->is_folder = false;
            e->is_link = true;
            info->attributes |= OS_ATTR_REPARSE_POINT;
        }
    }
    return true;
}

bool os_dir_next(os_dir_t *dir, os_dir_entry_t *entry) {
    for (;;) {
        if (dir->pos >= dir->avail) {
            if (dir->done) {
                return false;
            }
            long n = syscall(SYS_getdents64, dir->fd, dir->buffer, sizeof(dir->buffer));
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                dir->done = true;
                return false;
            }
            dir->pos = 0;
            dir->avail = (int) n;
        }
        _os_dirent64 *d = (_os_dirent64 *) (dir->buffer + dir->pos);
        dir->pos += d->d_reclen;
        const char *name = d->d_name;
        if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) {
            continue;
        }
        if (!_os_dir_stat(dir, name, entry)) {
            continue;
        }
        entry->name = name;
        entry->name_len = (uint32_t) strlen(name);
        return true;
    }
}

os_file_t os_file_open_sequential(const char *path) {
    int fd;
    do {
        fd = open(path, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return OS_FILE_INVALID;
    }
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        close(fd);
        errno = EISDIR;
        return OS_FILE_INVALID;
    }
    posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return (os_file_t) fd;
}
