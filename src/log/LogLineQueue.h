// SPDX-License-Identifier: MIT
// LogLineQueue: a logger's queue of lines and the writer thread that empties it. Callers
// (any thread) append lines, each echoed to standard output under the queue lock so that
// echoed lines never interleave; the queue has no bound and never drops a line. The
// writer thread (named "nimb-log", with an alternate signal stack) first runs `opened`,
// then takes everything queued at once and hands it to `write` outside the lock, until
// stopped with the queue empty.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "PCondMutex.h"
#include "StdString.h"

class PThread;

class LogLineQueue {
public:
    // The outcome of one queued text: 0, or the errno that stopped it and a message
    // naming the file and the reason. Must not throw.
    using WriteDone = std::function<void(int error, const CStdStr& message)>;
    // A queued text's completion: `index` is the text's position in its run.
    struct Completion {
        size_t index = 0;
        WriteDone done;
    };
    // Writes one run of lines and calls their completions (in order, each once).
    using RunWriter =
        std::function<void(std::deque<CStdStr>& lines, std::vector<Completion>& done)>;

    static constexpr const char* kThreadName = "nimb-log";

    LogLineQueue();
    LogLineQueue(const LogLineQueue&) = delete;
    LogLineQueue& operator=(const LogLineQueue&) = delete;
    ~LogLineQueue();

    // Starts the writer thread; call once. Throws std::runtime_error when the thread
    // cannot be started.
    void start(std::function<void()> opened, RunWriter write);
    // Queues `line` and echoes it; with `done`, also its completion (taken). Returns
    // false, with nothing queued, when a text with a completion comes after stop().
    bool push(CStdStr line, WriteDone* done = nullptr);
    // Tells the writer to stop once the queue is empty and waits for it. Safe to call
    // more than once, and without a started writer.
    void stop();

    // Writes `line` to standard output unless that is /dev/null; the caller serialises.
    static void echo(const CStdStr& line);

private:
    void* run(void*);

    // Set by start(), before the thread runs; read by the writer only.
    std::function<void()> opened_;
    RunWriter write_;
    // Started by start(), joined by stop().
    std::unique_ptr<PThread> thread_;
    PCondMutex lock_;
    bool stop_ NIMB_GUARDED_BY(lock_) = false;
    std::deque<CStdStr> lines_ NIMB_GUARDED_BY(lock_);
    // Completions of queued texts, in queue order (most lines have none).
    std::vector<Completion> completions_ NIMB_GUARDED_BY(lock_);
};
