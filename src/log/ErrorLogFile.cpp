// SPDX-License-Identifier: MIT
#include "ErrorLogFile.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

ErrorLogFile::ErrorLogFile(const LogLineFormat& format, long long maxSize)
    : format_(format), maxSize_(maxSize) {}

void ErrorLogFile::setPaths(const CStdStr& logsFolder, const CStdStr& namedOnFailure) {
    path_ = logsFolder.empty() ? CStdStr() : logsFolder + "/" + kFileName;
    namedOnFailure_ = namedOnFailure;
}

void ErrorLogFile::makeLogsFolder() const {
    // The folder may have vanished since the last open; an existing one is fine, and a
    // failure shows in the open that follows.
    const size_t slash = path_.rfind('/');
    if (slash == CStdStr::npos || slash == 0) return;
    char folder[PATH_MAX];
    if (slash >= sizeof(folder)) return;
    memcpy(folder, path_.data(), slash);
    folder[slash] = '\0';
    mkdir(folder, kFolderMode);
}

void ErrorLogFile::open() {
    PMutexLocker lock(mutex_);
    openLocked();
}

void ErrorLogFile::openLocked() {
    if (fd_ != -1 || path_.empty()) return;
    makeLogsFolder();
    if (!RotatingLogFile::open(*io_, fd_, path_, false)) {
        const int error = errno;
        if (state_.openError == 0) {
            printf("Error: could not open error log file '%s': %d\n", namedOnFailure_.c_str(),
                   error);
            fflush(stdout);
        }
        state_.openError = error;
        return;
    }
    state_.openError = 0;
}

bool ErrorLogFile::append(const char* line, size_t length) {
    PMutexLocker lock(mutex_);
    openLocked();
    if (fd_ == -1) return false;
    RotatingLogFile::rotateAndGetSize(*io_, fd_, path_, maxSize_, state_);
    if (fd_ == -1) return false;
    const long long now = io_->nowMs();
    if (state_.rotateError != 0 && now >= state_.rotateReportAt) {
        char report[1024];
        const size_t reportLength =
            format_.rotationReport(report, sizeof(report), path_, state_.rotateError);
        if (io_->write(fd_, report, reportLength) < 0) {
            // Lost like the line below would be.
        }
        state_.rotateReportAt = now + kReportIntervalMs;
    }
    state_.rotateError = 0;
    if (io_->write(fd_, line, length) < 0) {
        // Not retried: a line that cannot be written is lost, as any other.
    }
    return true;
}

void ErrorLogFile::close() {
    PMutexLocker lock(mutex_);
    if (fd_ != -1) ::close(fd_);
    fd_ = -1;
}
