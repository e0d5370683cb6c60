// Folder enumeration on Linux: getdents64 on a descriptor opened with O_DIRECTORY, then statx relative
// to that descriptor without following links, so an entry costs one system call beside its share of the
// batched listing and no path is ever built.
#include "mem/mem.h"
#include "os/os_dir.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#define OS_DIR_BUFFER    32768
#define OS_UNIX_EPOCH_S  11644473600ll
#define OS_TICKS_PER_SEC 10000000ull

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
    int pos;   // next record in buffer
    int avail; // bytes of buffer holding records
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
    os_dir_t *d = (os_dir_t *) mem_alloc(sizeof(os_dir_t));
    d->fd = fd;
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

static uint64_t _os_dir_filetime(int64_t sec, uint32_t nsec) {
    if (sec < -OS_UNIX_EPOCH_S) {
        return UINT64_MAX;
    }
    return (uint64_t) (sec + OS_UNIX_EPOCH_S) * OS_TICKS_PER_SEC + nsec / 100;
}

static uint32_t _os_dir_attributes(mode_t mode, const char *name) {
    uint32_t a;
    if (S_ISDIR(mode)) {
        a = OS_ATTR_DIRECTORY;
    } else if (S_ISLNK(mode)) {
        a = OS_ATTR_REPARSE_POINT;
    } else {
        a = OS_ATTR_ARCHIVE;
    }
    // A link has no permissions of its own to speak of.
    if (!S_ISLNK(mode) && !(mode & S_IWUSR)) {
        a |= OS_ATTR_READONLY;
    }
    if (name[0] == '.') {
        a |= OS_ATTR_HIDDEN;
    }
    return a;
}

// Fills the entry's details from statx, or from fstatat where statx is refused. False when the entry is
// gone.
static bool _os_dir_stat(int fd, const char *name, os_dir_entry_t *e) {
    os_file_info_t *info = &e->info;
    info->date_created = UINT64_MAX;
    mode_t mode;
    struct statx sx;
    if (statx(fd, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME, &sx) == 0) {
        mode = sx.stx_mode;
        info->size = sx.stx_size;
        info->date_modified = _os_dir_filetime(sx.stx_mtime.tv_sec, sx.stx_mtime.tv_nsec);
        info->date_accessed = _os_dir_filetime(sx.stx_atime.tv_sec, sx.stx_atime.tv_nsec);
        if (sx.stx_mask & STATX_BTIME) {
            info->date_created = _os_dir_filetime(sx.stx_btime.tv_sec, sx.stx_btime.tv_nsec);
        }
    } else {
        if (errno == ENOENT) {
            return false;
        }
        struct stat st;
        if (fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            return false;
        }
        mode = st.st_mode;
        info->size = (uint64_t) st.st_size;
        info->date_modified = _os_dir_filetime(st.st_mtim.tv_sec, (uint32_t) st.st_mtim.tv_nsec);
        info->date_accessed = _os_dir_filetime(st.st_atim.tv_sec, (uint32_t) st.st_atim.tv_nsec);
    }
    info->attributes = _os_dir_attributes(mode, name);
    e->is_folder = S_ISDIR(mode);
    e->is_link = S_ISLNK(mode);
    if (e->is_folder) {
        info->size = 0;
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
        if (!_os_dir_stat(dir->fd, name, entry)) {
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
