// SPDX-License-Identifier: MIT
// LogInput: one source of log text (a file, or standard input) and the text read from it
// that has not been sent yet. Following a file, it keeps reading what is appended, and
// survives the file being renamed away and recreated (rotation) or truncated: at its end
// it compares the open file with the one the path names now, and switches to the new file
// once the old one is read to its end. Owned by the program's main loop; one thread.
#pragma once

#include <chrono>
#include <string>

#include <sys/types.h>

class LogInput {
public:
    enum class Read {
        Data,    // text was added to pending()
        Idle,    // nothing new for now (a pipe with nothing to read, a followed file at its end)
        End,     // the input is finished
        Failed,  // reading failed; the error says why
    };

    // `path` "-" reads standard input. `logName` is the collector's name for the log.
    LogInput(std::string path, std::string logName, bool follow);
    LogInput(const LogInput&) = delete;
    LogInput& operator=(const LogInput&) = delete;
    ~LogInput();

    // Opens the input. Returns false with `error` set when the file cannot be opened, except
    // when following: a missing file is then waited for (a note goes to standard error).
    bool open(std::string& error);

    // Reads once, without blocking, what the input has to offer (at most 64 KiB) and adds it
    // to pending(). At the end of a followed file, checks for rotation and truncation.
    Read read(std::string& error);

    // Whether the last read() filled its buffer, so that the input most likely holds more
    // text right now: a short last piece is better sent with what the next read brings.
    bool moreWaiting() const { return moreWaiting_; }

    // Text read and not yet sent; the caller removes what it has sent from the front.
    std::string& pending() { return pending_; }

    // Whether an unfinished last line in pending() should be sent now rather than wait for
    // its line end: the input ended, the file was rotated or truncated (the line belongs to
    // the old content), or nothing was added for a while. Clears the rotation mark.
    bool takeFlush(bool ended);

    // A descriptor worth waiting on with poll() while idle (a pipe or terminal), else -1.
    int waitDescriptor() const;

    const std::string& logName() const { return logName_; }
    const std::string& path() const { return path_; }

private:
    bool isStandardInput() const { return path_ == "-"; }
    bool openFile(std::string& error);
    bool readable() const;
    Read readSome(std::string& error);
    Read checkReplaced(std::string& error);
    void closeFile();

    // Immutable after construction
    std::string path_;
    std::string logName_;
    bool follow_ = false;

    int fd_ = -1;
    bool ownsFd_ = false;
    bool isPipe_ = false;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    off_t offset_ = 0;
    bool flushMark_ = false;
    bool moreWaiting_ = false;
    std::chrono::steady_clock::time_point lastData_ = std::chrono::steady_clock::now();
    std::string pending_;
};
