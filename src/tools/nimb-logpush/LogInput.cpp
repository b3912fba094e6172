// SPDX-License-Identifier: MIT
#include "LogInput.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t kReadSize = 64 * 1024;
// How long an unfinished last line waits for its line end before it is sent as it is.
constexpr std::chrono::milliseconds kPartialLineWait{1000};

std::string errnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

}  // namespace

LogInput::LogInput(std::string path, std::string logName, bool follow)
    : path_(std::move(path)), logName_(std::move(logName)), follow_(follow) {}

LogInput::~LogInput() { closeFile(); }

bool LogInput::open(std::string& error) {
    if (isStandardInput()) {
        fd_ = STDIN_FILENO;
        struct stat info {};
        isPipe_ = ::fstat(fd_, &info) != 0 || !S_ISREG(info.st_mode);
        return true;
    }
    if (openFile(error)) return true;
    if (!follow_ || errno != ENOENT) return false;
    std::fprintf(stderr, "nimb-logpush: %s; waiting for it to appear\n", error.c_str());
    return true;
}

bool LogInput::openFile(std::string& error) {
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = errnoText("cannot open " + path_);
        return false;
    }
    struct stat info {};
    ::fstat(fd, &info);
    closeFile();
    fd_ = fd;
    ownsFd_ = true;
    isPipe_ = !S_ISREG(info.st_mode);
    device_ = info.st_dev;
    inode_ = info.st_ino;
    offset_ = 0;
    return true;
}

void LogInput::closeFile() {
    if (ownsFd_ && fd_ >= 0) ::close(fd_);
    fd_ = -1;
    ownsFd_ = false;
}

LogInput::Read LogInput::read(std::string& error) {
    moreWaiting_ = false;
    if (fd_ < 0) {
        // A followed file that does not exist (yet, or again).
        return openFile(error) ? Read::Data : Read::Idle;
    }
    if (isPipe_ && !readable()) return Read::Idle;
    const Read result = readSome(error);
    if (result != Read::End || !follow_ || isPipe_ || isStandardInput()) return result;
    return checkReplaced(error);
}

bool LogInput::readable() const {
    pollfd entry{fd_, POLLIN, 0};
    return ::poll(&entry, 1, 0) > 0;
}

LogInput::Read LogInput::readSome(std::string& error) {
    const std::size_t had = pending_.size();
    pending_.resize(had + kReadSize);
    ssize_t got = -1;
    do {
        got = ::read(fd_, pending_.data() + had, kReadSize);
    } while (got < 0 && errno == EINTR);
    pending_.resize(had + static_cast<std::size_t>(got > 0 ? got : 0));
    if (got < 0) {
        if (errno == EAGAIN) return Read::Idle;
        error = errnoText("cannot read " + (isStandardInput() ? std::string("stdin") : path_));
        return Read::Failed;
    }
    if (got == 0) return Read::End;
    moreWaiting_ = static_cast<std::size_t>(got) == kReadSize;
    offset_ += got;
    lastData_ = std::chrono::steady_clock::now();
    return Read::Data;
}

// At the end of a followed file: a path that now names another file means the old one was
// rotated away (it has been read to its end: carry on with the new one from its start);
// a file shorter than what was read was truncated (start again from its beginning). A
// truncation followed by new writes beyond the old length before this check cannot be told
// from growth; such text is picked up from the old offset.
LogInput::Read LogInput::checkReplaced(std::string& error) {
    struct stat now {};
    if (::stat(path_.c_str(), &now) != 0) return Read::Idle;
    if (now.st_dev != device_ || now.st_ino != inode_) {
        if (!openFile(error)) {
            // Not readable yet (created with restrictive rights, for instance): keep the old
            // file and try again on the next round.
            return Read::Idle;
        }
        flushMark_ = true;
        return Read::Data;
    }
    if (now.st_size < offset_) {
        ::lseek(fd_, 0, SEEK_SET);
        offset_ = 0;
        flushMark_ = true;
        return Read::Data;
    }
    return Read::Idle;
}

bool LogInput::takeFlush(bool ended) {
    const bool marked = std::exchange(flushMark_, false);
    if (ended || marked) return true;
    return std::chrono::steady_clock::now() - lastData_ >= kPartialLineWait;
}

int LogInput::waitDescriptor() const { return isPipe_ ? fd_ : -1; }
