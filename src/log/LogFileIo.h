// SPDX-License-Identifier: MIT
// LogFileIo: the system calls the file logger makes on its files, and the clock it times
// its retries and reports by, behind one small interface. The logger uses system() unless
// a test hands it another implementation that makes chosen calls fail. Each function
// behaves as the system call of its name: -1 with errno set on failure. The system
// implementation is stateless and async-signal-safe (the FATAL path calls it); any thread.
#pragma once

#include <cstddef>
#include <memory>

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

class LogFileIo {
public:
    LogFileIo() = default;
    LogFileIo(const LogFileIo&) = delete;
    LogFileIo& operator=(const LogFileIo&) = delete;
    virtual ~LogFileIo() = default;

    virtual int open(const char* path, int flags, mode_t mode);
    virtual ssize_t write(int fd, const void* data, size_t size);
    virtual ssize_t writev(int fd, const iovec* parts, int count);
    virtual int rename(const char* from, const char* to);
    virtual int flock(int fd, int operation);
    virtual int ftruncate(int fd, off_t length);
    virtual int fstat(int fd, struct stat* info);
    virtual int stat(const char* path, struct stat* info);
    // Milliseconds on a monotonic clock.
    virtual long long nowMs();

    // The implementation that calls the kernel; shared, never null.
    static const std::shared_ptr<LogFileIo>& system();
};
