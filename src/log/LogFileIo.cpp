// SPDX-License-Identifier: MIT
// LogFileIo's system implementation: each call goes straight to the kernel.
#include "LogFileIo.h"

#include <ctime>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

int LogFileIo::open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }

ssize_t LogFileIo::write(int fd, const void* data, size_t size) { return ::write(fd, data, size); }

ssize_t LogFileIo::writev(int fd, const iovec* parts, int count) {
    return ::writev(fd, parts, count);
}

int LogFileIo::rename(const char* from, const char* to) { return ::rename(from, to); }

int LogFileIo::flock(int fd, int operation) { return ::flock(fd, operation); }

int LogFileIo::ftruncate(int fd, off_t length) { return ::ftruncate(fd, length); }

int LogFileIo::fstat(int fd, struct stat* info) { return ::fstat(fd, info); }

int LogFileIo::stat(const char* path, struct stat* info) { return ::stat(path, info); }

long long LogFileIo::nowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

const std::shared_ptr<LogFileIo>& LogFileIo::system() {
    static const std::shared_ptr<LogFileIo> instance = std::make_shared<LogFileIo>();
    return instance;
}
