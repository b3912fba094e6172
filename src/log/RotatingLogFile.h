// SPDX-License-Identifier: MIT
// RotatingLogFile: the rules every log file of the suite is written by, for any writer
// that appends to one: opening (never through a link, never anything but a regular
// file), rotation into one ".back" generation at a size limit, serialised between
// processes by flock and an inode check, and batched appends that never leave a torn
// text behind. Stateless functions over a descriptor and its LogFileState; the caller
// owns both and calls them from one thread at a time per file. They allocate nothing,
// so the crash path may use them once the paths are built.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sys/stat.h>
#include <sys/uio.h>

#include "LogFileIo.h"
#include "StdString.h"

// The open and rotation state of one file, kept by whoever writes it.
struct LogFileState {
    int openError = 0;             // errno of the failed open; 0 while it opens
    long long openRetryAt = 0;     // no new open before this (ms)
    long long rotateRetryAt = 0;   // no new rotation before this (ms)
    long long rotateReportAt = 0;  // no new report of a failed rotation before this
    int rotateError = 0;           // a failed rotation waiting to be reported
    std::uint64_t fileId = 0;      // device and inode of the file last looked at (0: none)
};

// One file's identity (device and inode) as LogFileState keeps it.
std::uint64_t logFileIdOf(const struct stat& info);

// Told when a rotation is about to replace a file's backup, so that the backup can be
// kept elsewhere first (the device logs' history). Runs on the rotating thread under the
// rotation's file lock.
class RotationHook {
public:
    virtual ~RotationHook() = default;
    // `backupPath` exists and is about to be replaced; a hook that moves it away leaves
    // the rename a free name.
    virtual void beforeReplacingBackup(const char* backupPath) = 0;
};

namespace RotatingLogFile {

// Suffix of the one older generation a rotation leaves.
constexpr const char* kBackupSuffix = ".back";
// The least time between two attempts to rotate a file whose rotation failed.
constexpr long long kRotateRetryMs = 5000;
// Mode of the files the suite creates, and the group they are given when the system has
// it; files that already exist keep their mode and group.
constexpr mode_t kFileMode = 0660;
constexpr const char* kFileGroup = "nimb";

// Opens `path` write-only for appending (truncating when asked), creating it with
// kFileMode and kFileGroup when it does not exist. Never follows a symbolic link, never
// blocks on a FIFO, and refuses anything but a regular file (errno EINVAL, ELOOP or
// EISDIR). Returns false with errno set on failure.
bool open(LogFileIo& io, int& fd, const CStdStr& path, bool truncate);

// Whether `error` from open() means that something other than a regular file is there.
bool isNotARegularFile(int error);

// Before a write to `fd` (open on `path`): reopens `path` when the file was deleted or
// rotated by another process, and renames it to `path`.back when it has reached
// `maxSize`, under an exclusive flock so that two processes never both rotate it. A
// rotation that fails leaves the file open for appending, is tried again only after
// kRotateRetryMs, and is left in state.rotateError for the caller to report. `hook` (may
// be null) is told before an existing backup is replaced. Returns the
// size of the file `fd` then names, -1 when unknown (`fd` is -1 when it could not be
// reopened, with errno set).
long long rotateAndGetSize(LogFileIo& io, int& fd, const CStdStr& path, long long maxSize,
                           LogFileState& state, RotationHook* hook = nullptr);

// Appends `count` parts with as few writev calls as the kernel allows, continuing a
// short write until the kernel refuses with an error. On a failure, cuts a partly
// written part off the file again. Returns the number of parts written whole; `error`
// is the errno of the failure (0 when all were); `cutError` is the errno of a failed
// cut (0 when none was needed or it worked). `part` is changed.
std::size_t writeParts(LogFileIo& io, int fd, iovec* part, int count, int& error, int& cutError);

// Once per process, before the first file is opened: a write past the file size limit
// fails with EFBIG instead of killing the process (SIGXFSZ is ignored unless the
// process handles it), and the suite's group is looked up.
void prepareProcess();

}  // namespace RotatingLogFile
