// Files on Linux: plain descriptors, pread/pwrite for positional access, and the attribute mapping that
// makes a Linux directory entry look like a Windows one to the rest of the program.
#include "mem/mem.h"
#include "os/os_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/types.h>
#include <unistd.h>

os_file_t os_file_open(const char *path, int flags) {
    int mode = O_RDONLY;
    if ((flags & OS_OPEN_WRITE) && (flags & OS_OPEN_READ)) {
        mode = O_RDWR;
    } else if (flags & OS_OPEN_WRITE) {
        mode = O_WRONLY;
    }
    if (flags & OS_OPEN_CREATE) {
        mode |= O_CREAT;
    }
    if (flags & OS_OPEN_TRUNCATE) {
        mode |= O_TRUNC;
    }
    if (flags & OS_OPEN_APPEND) {
        mode |= O_APPEND;
    }
    int fd;
    do {
        fd = open(path, mode | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return OS_FILE_INVALID;
    }
    // Windows refuses to open a folder as a file; callers rely on that to tell the two apart.
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        close(fd);
        errno = EISDIR;
        return OS_FILE_INVALID;
    }
    if (flags & OS_OPEN_SEQUENTIAL) {
        posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    }
    return (os_file_t) fd;
}

void os_file_close(os_file_t f) {
    if (f != OS_FILE_INVALID) {
        close((int) f);
    }
}

// Reads until n bytes or the end of the file, so that callers see a short count only at the end, as
// ReadFile gives it on a disk file.
static int64_t _os_read_all(int fd, bool positional, uint64_t offset, void *buf, size_t n) {
    size_t done = 0;
    while (done < n) {
        ssize_t r = positional ? pread(fd, (char *) buf + done, n - done, (off_t) (offset + done))
                               : read(fd, (char *) buf + done, n - done);
        if (r < 0) {
            if (errno == EINTR) {
                continue;
            }
            return done ? (int64_t) done : -1;
        }
        if (r == 0) {
            break;
        }
        done += (size_t) r;
    }
    return (int64_t) done;
}

static int64_t _os_write_all(int fd, bool positional, uint64_t offset, const void *buf, size_t n) {
    size_t done = 0;
    while (done < n) {
        ssize_t r = positional ? pwrite(fd, (const char *) buf + done, n - done, (off_t) (offset + done))
                               : write(fd, (const char *) buf + done, n - done);
        if (r < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        done += (size_t) r;
    }
    return (int64_t) done;
}

int64_t os_file_read(os_file_t f, void *buf, size_t n) {
    if (os_hooks.file_read) {
        return os_hooks.file_read(f, buf, n);
    }
    return _os_read_all((int) f, false, 0, buf, n);
}

int64_t os_file_write(os_file_t f, const void *buf, size_t n) {
    return _os_write_all((int) f, false, 0, buf, n);
}

int64_t os_file_read_at(os_file_t f, uint64_t offset, void *buf, size_t n) {
    if (os_hooks.file_read_at) {
        return os_hooks.file_read_at(f, offset, buf, n);
    }
    return _os_read_all((int) f, true, offset, buf, n);
}

int64_t os_file_write_at(os_file_t f, uint64_t offset, const void *buf, size_t n) {
    return _os_write_all((int) f, true, offset, buf, n);
}

bool os_file_seek(os_file_t f, uint64_t offset) {
    return lseek((int) f, (off_t) offset, SEEK_SET) >= 0;
}

uint64_t os_file_size(os_file_t f) {
    struct stat st;
    if (fstat((int) f, &st) != 0) {
        return UINT64_MAX;
    }
    // A block device reports size 0 through stat; volume readers need its real length.
    if (S_ISBLK(st.st_mode)) {
        uint64_t size = 0;
        return ioctl((int) f, BLKGETSIZE64, &size) == 0 ? size : UINT64_MAX;
    }
    return (uint64_t) st.st_size;
}

bool os_file_flush(os_file_t f) {
    return fsync((int) f) == 0;
}

bool os_file_truncate(os_file_t f, uint64_t size) {
    return ftruncate((int) f, (off_t) size) == 0;
}

uint32_t os_last_error() {
    return (uint32_t) errno;
}

void os_error_text(uint32_t code, str_t *out) {
    char buf[256];
    // The GNU strerror_r returns its text, which may or may not be buf.
    const char *text = strerror_r((int) code, buf, sizeof(buf));
    str_set(out, text ? text : "unknown error");
}

bool os_file_rename_over(const char *from, const char *to) {
    return rename(from, to) == 0;
}

bool os_file_rename(const char *from, const char *to) {
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return false;
    }
    // A file system without the no-replace flag: a hard link can't replace either, so link and unlink
    // keep the promise for files; folders fall back to a check, which is good enough where no one races.
    struct stat st;
    if (lstat(from, &st) != 0) {
        return false;
    }
    if (!S_ISDIR(st.st_mode) && link(from, to) == 0) {
        unlink(from);
        return true;
    }
    if (lstat(to, &st) == 0) {
        errno = EEXIST;
        return false;
    }
    return rename(from, to) == 0;
}

bool os_file_delete(const char *path) {
    return unlink(path) == 0;
}

bool os_folder_create(const char *path) {
    return mkdir(path, 0777) == 0;
}

bool os_folder_delete(const char *path) {
    return rmdir(path) == 0;
}

static uint64_t _os_filetime(int64_t sec, int64_t nsec) {
    if (sec < -OS_UNIX_EPOCH_SECONDS) {
        return UINT64_MAX;
    }
    return (uint64_t) (sec + OS_UNIX_EPOCH_SECONDS) * OS_FILETIME_SECOND + (uint64_t) nsec / 100;
}

static bool _os_name_is_hidden(const char *path) {
    const char *end = path + strlen(path);
    while (end > path + 1 && end[-1] == '/') {
        end--;
    }
    const char *name = end;
    while (name > path && name[-1] != '/') {
        name--;
    }
    if (name[0] != '.') {
        return false;
    }
    // "." and ".." name a folder by its relation, not by a hidden name.
    size_t n = (size_t) (end - name);
    return !(n == 1 || (n == 2 && name[1] == '.'));
}

// Linux has no attribute word: build it from the type, the owner's write bit and the name.
static uint32_t _os_attributes(mode_t mode, const char *path) {
    uint32_t a;
    if (S_ISDIR(mode)) {
        a = OS_ATTR_DIRECTORY;
    } else if (S_ISLNK(mode)) {
        a = OS_ATTR_REPARSE_POINT;
    } else {
        a = OS_ATTR_ARCHIVE;
    }
    if (!S_ISLNK(mode) && !(mode & S_IWUSR)) {
        a |= OS_ATTR_READONLY;
    }
    if (_os_name_is_hidden(path)) {
        a |= OS_ATTR_HIDDEN;
    }
    return a;
}

static void _os_file_info_unknown(os_file_info_t *info) {
    info->size = UINT64_MAX;
    info->date_modified = UINT64_MAX;
    info->date_created = UINT64_MAX;
    info->date_accessed = UINT64_MAX;
    info->attributes = 0;
}

// link_flag: AT_SYMLINK_NOFOLLOW to describe a final link itself, 0 to describe what it points at. dev,
// when not null, gets the device that holds the entry.
static bool _os_stat_at(int dirfd, const char *name, os_file_info_t *info, uint32_t *mode, int link_flag,
                        uint64_t *dev) {
    _os_file_info_unknown(info);
    struct statx sx;
    if (statx(dirfd, name, link_flag | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME, &sx) == 0) {
        *mode = sx.stx_mode;
        if (dev) {
            *dev = (uint64_t) makedev(sx.stx_dev_major, sx.stx_dev_minor);
        }
        info->size = sx.stx_size;
        info->date_modified = _os_filetime(sx.stx_mtime.tv_sec, sx.stx_mtime.tv_nsec);
        info->date_accessed = _os_filetime(sx.stx_atime.tv_sec, sx.stx_atime.tv_nsec);
        if (sx.stx_mask & STATX_BTIME) {
            info->date_created = _os_filetime(sx.stx_btime.tv_sec, sx.stx_btime.tv_nsec);
        }
    } else {
        // A kernel older than statx, or a sandbox that forbids it: the same without birth time.
        struct stat st;
        if (fstatat(dirfd, name, &st, link_flag) != 0) {
            return false;
        }
        *mode = st.st_mode;
        if (dev) {
            *dev = (uint64_t) st.st_dev;
        }
        info->size = (uint64_t) st.st_size;
        info->date_modified = _os_filetime(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
        info->date_accessed = _os_filetime(st.st_atim.tv_sec, st.st_atim.tv_nsec);
    }
    info->attributes = _os_attributes((mode_t) *mode, name);
    return true;
}

bool os_posix_stat_at(int dirfd, const char *name, os_file_info_t *info, uint32_t *mode, uint64_t *dev) {
    return _os_stat_at(dirfd, name, info, mode, AT_SYMLINK_NOFOLLOW, dev);
}

static bool _os_file_info(const char *path, os_file_info_t *info, int link_flag) {
    uint32_t mode;
    if (!_os_stat_at(AT_FDCWD, path, info, &mode, link_flag, nullptr)) {
        return false;
    }
    if (info->attributes & OS_ATTR_DIRECTORY) {
        info->size = UINT64_MAX;
    }
    return true;
}

bool os_get_file_info(const char *path, os_file_info_t *info) {
    return _os_file_info(path, info, AT_SYMLINK_NOFOLLOW);
}

bool os_get_target_info(const char *path, os_file_info_t *info) {
    return _os_file_info(path, info, 0);
}

bool os_file_exists(const char *path) {
    struct stat st;
    if (stat(path, &st) == 0) {
        return !S_ISDIR(st.st_mode);
    }
    // A dangling symbolic link is still a name in its folder.
    return lstat(path, &st) == 0 && S_ISLNK(st.st_mode);
}

bool os_folder_exists(const char *path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

static struct timespec _os_timespec(uint64_t ft) {
    struct timespec ts;
    if (ft == UINT64_MAX) {
        ts.tv_sec = 0;
        ts.tv_nsec = UTIME_OMIT;
        return ts;
    }
    ts.tv_sec = (time_t) (ft / OS_FILETIME_SECOND) - (time_t) OS_UNIX_EPOCH_SECONDS;
    ts.tv_nsec = (long) (ft % OS_FILETIME_SECOND) * 100;
    return ts;
}

bool os_file_set_times(os_file_t f, uint64_t created, uint64_t accessed, uint64_t modified) {
    struct timespec ts[2] = {_os_timespec(accessed), _os_timespec(modified)};
    return futimens((int) f, ts) == 0;
}

bool os_set_file_attributes(const char *path, uint32_t attributes) {
    struct stat st;
    if (lstat(path, &st) != 0) {
        return false;
    }
    if (S_ISLNK(st.st_mode)) {
        return true; // a link has no mode of its own
    }
    // Read-only clears every write bit; writable gives the owner back the right to write, as clearing the
    // attribute on Windows does, and leaves group and others as they were.
    mode_t mode = st.st_mode & 07777;
    mode = (attributes & OS_ATTR_READONLY) ? (mode & ~(mode_t) 0222) : (mode | S_IWUSR);
    return mode == (st.st_mode & 07777) || chmod(path, mode) == 0;
}
