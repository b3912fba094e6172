// SPDX-License-Identifier: MIT
#include "RotatingLogFile.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <mutex>

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The suite's group, or -1 when the system has none of that name. Looked up once.
gid_t fileGroup() {
    static const gid_t gid = [] {
        group entry{};
        group* found = nullptr;
        char buffer[4096];
        getgrnam_r(RotatingLogFile::kFileGroup, &entry, buffer, sizeof(buffer), &found);
        return found != nullptr ? found->gr_gid : static_cast<gid_t>(-1);
    }();
    return gid;
}

// Why the existing file at `path` may not be opened: 0 when it is a regular file (or
// vanished meanwhile: the open then says so), else the errno to report.
int refusalOf(const char* path) {
    struct stat info {};
    if (lstat(path, &info) != 0 || S_ISREG(info.st_mode)) return 0;
    return S_ISLNK(info.st_mode) ? ELOOP : S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
}

bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_ino == b.st_ino && a.st_dev == b.st_dev;
}

// Renames `path` to its backup name under an exclusive lock on `fd`, unless another
// process rotated it first (the path then already names a fresh file and is left
// alone). Returns 0 or the errno that stopped it; the lock is kept on success.
int renameToBackup(LogFileIo& io, int fd, const CStdStr& path, const struct stat& opened,
                   RotationHook* hook) {
    if (io.flock(fd, LOCK_EX) != 0) return errno;
    struct stat named {};
    if (io.stat(path.c_str(), &named) != 0 || !sameFile(named, opened)) return 0;
    char backup[PATH_MAX];
    const size_t suffixLength = strlen(RotatingLogFile::kBackupSuffix);
    if (path.size() + suffixLength >= sizeof(backup)) return ENAMETOOLONG;
    memcpy(backup, path.data(), path.size());
    memcpy(backup + path.size(), RotatingLogFile::kBackupSuffix, suffixLength + 1);
    struct stat previous {};
    if (hook != nullptr && lstat(backup, &previous) == 0 && S_ISREG(previous.st_mode)) {
        hook->beforeReplacingBackup(backup);
    }
    // Replaces the previous backup; a symbolic link or FIFO planted there is replaced
    // too, never opened.
    return io.rename(path.c_str(), backup) != 0 ? errno : 0;
}

}  // namespace

std::uint64_t logFileIdOf(const struct stat& info) {
    return (static_cast<std::uint64_t>(info.st_dev) << 40) ^
           static_cast<std::uint64_t>(info.st_ino);
}

namespace RotatingLogFile {

void prepareProcess() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction current {};
        if (sigaction(SIGXFSZ, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) {
            signal(SIGXFSZ, SIG_IGN);
        }
        fileGroup();
    });
}

bool isNotARegularFile(int error) {
    return error == EINVAL || error == ELOOP || error == EISDIR || error == ENXIO;
}

bool open(LogFileIo& io, int& fd, const CStdStr& path, bool truncate) {
    // Never through a symbolic link, never waiting for a FIFO's reader, never taking a
    // terminal, and nothing but a regular file is even opened (the look before the open
    // spares devices the open; the check after it closes the race). O_EXCL first tells
    // whether this writer created the file: only then are its mode and group set, so
    // that a file planted by someone else is never changed.
    const int flags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    bool created = true;
    fd = io.open(path.c_str(), flags | O_CREAT | O_EXCL, kFileMode);
    if (fd == -1 && errno == EEXIST) {
        created = false;
        const int refusal = refusalOf(path.c_str());
        if (refusal != 0) {
            errno = refusal;
            return false;
        }
        fd = io.open(path.c_str(), flags | (truncate ? O_TRUNC : 0), 0);
    }
    if (fd == -1) return false;
    struct stat info {};
    const int error = io.fstat(fd, &info) != 0 ? errno : S_ISREG(info.st_mode) ? 0 : EINVAL;
    if (error != 0) {
        close(fd);
        fd = -1;
        errno = error;
        return false;
    }
    if (created) {
        // The mode is set again because the process's umask narrowed it.
        if (fchmod(fd, kFileMode) != 0) {
            // Left as the umask made it; the file is still the writer's own.
        }
        if (fileGroup() != static_cast<gid_t>(-1) &&
            fchown(fd, static_cast<uid_t>(-1), fileGroup())) {
            // Not a member of the group: the file keeps the process's group.
        }
    }
    return true;
}

long long rotateAndGetSize(LogFileIo& io, int& fd, const CStdStr& path, long long maxSize,
                           LogFileState& state, RotationHook* hook) {
    struct stat opened {};
    if (fd == -1 || io.fstat(fd, &opened) != 0) return -1;  // the write fails on its own
    state.fileId = logFileIdOf(opened);
    struct stat named {};
    bool reopen = false;
    if (io.stat(path.c_str(), &named) != 0) {
        if (errno != ENOENT) return opened.st_size;
        reopen = true;  // deleted or moved away: start a new file at the path
    } else if (!sameFile(named, opened)) {
        reopen = true;  // another process rotated it: follow to the new file
    } else if (opened.st_size < maxSize || io.nowMs() < state.rotateRetryAt) {
        return opened.st_size;  // below the limit, or backing off after a failed rotation
    }
    if (!reopen) {
        const int error = renameToBackup(io, fd, path, opened, hook);
        if (error != 0) {
            // Keep appending to the open file; try again later, not before every line.
            io.flock(fd, LOCK_UN);
            state.rotateRetryAt = io.nowMs() + kRotateRetryMs;
            state.rotateError = error;
            return opened.st_size;
        }
    }
    close(fd);  // also drops the lock
    fd = -1;
    if (!open(io, fd, path, false)) return -1;
    if (io.fstat(fd, &opened) != 0) return -1;
    state.fileId = logFileIdOf(opened);
    return opened.st_size;
}

std::size_t writeParts(LogFileIo& io, int fd, iovec* part, int count, int& error, int& cutError) {
    error = 0;
    cutError = 0;
    std::size_t whole = 0;  // parts written completely
    std::size_t torn = 0;   // bytes of the next part already written
    for (;;) {
        while (count > 0 && part->iov_len == 0) {  // nothing to write for an empty text
            ++whole;
            ++part;
            --count;
        }
        if (count == 0) break;
        const ssize_t n = io.writev(fd, part, count > IOV_MAX ? IOV_MAX : count);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            error = n < 0 ? errno : EIO;
            break;
        }
        std::size_t left = static_cast<std::size_t>(n);
        while (count > 0 && left >= part->iov_len) {
            left -= part->iov_len;
            torn = 0;
            ++whole;
            ++part;
            --count;
        }
        if (left > 0) {
            part->iov_base = static_cast<char*>(part->iov_base) + left;
            part->iov_len -= left;
            torn += left;
        }
    }
    if (torn > 0) {
        // The file position is just past this writer's last byte (appending), so the
        // torn part is cut off without touching what came before it.
        const off_t end = lseek(fd, 0, SEEK_CUR);
        if (end < static_cast<off_t>(torn) ||
            io.ftruncate(fd, end - static_cast<off_t>(torn)) != 0) {
            cutError = errno != 0 ? errno : EIO;
        }
    }
    return whole;
}

}  // namespace RotatingLogFile
