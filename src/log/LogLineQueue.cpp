// SPDX-License-Identifier: MIT
#include "LogLineQueue.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

#include <sys/stat.h>
#include <unistd.h>

#include "PThread.h"
#include "PThreadDelegate.h"

namespace {

// Whether standard output is /dev/null, looked at once per process: echoing there would
// only cost a write per line (a service's standard output often is).
bool echoDiscarded() {
    static const bool discarded = [] {
        struct stat out {};
        struct stat null {};
        return fstat(STDOUT_FILENO, &out) == 0 && S_ISCHR(out.st_mode) &&
               stat("/dev/null", &null) == 0 && out.st_rdev == null.st_rdev;
    }();
    return discarded;
}

}  // namespace

void LogLineQueue::echo(const CStdStr& line) {
    if (echoDiscarded()) return;
    fputs(line.c_str(), stdout);
    fflush(stdout);
}

LogLineQueue::LogLineQueue() = default;

LogLineQueue::~LogLineQueue() { stop(); }

void LogLineQueue::start(std::function<void()> opened, RunWriter write) {
    opened_ = std::move(opened);
    write_ = std::move(write);
    thread_ = std::make_unique<PThread>(
        PThreadDelegateMember<LogLineQueue>(this, &LogLineQueue::run), nullptr, kThreadName);
}

bool LogLineQueue::push(CStdStr line, WriteDone* done) {
    PMutexLocker lock(lock_);
    // Once stopping, the writer may already have ended: a text that wants its outcome
    // is refused rather than left waiting forever.
    if (done != nullptr && stop_) return false;
    // The writer waits only while the queue is empty, so only the first line into an
    // empty queue needs to wake it; later ones find it awake or already woken.
    const bool wakeWriter = lines_.empty();
    if (done != nullptr) completions_.push_back({lines_.size(), std::move(*done)});
    lines_.push_back(std::move(line));
    echo(lines_.back());
    if (wakeWriter) lock_.broadcast();
    return true;
}

void LogLineQueue::stop() {
    {
        PMutexLocker lock(lock_);
        stop_ = true;
        lock_.broadcast();
    }
    if (thread_) {
        thread_->join();  // the writer empties the queue before it ends
        thread_.reset();
    }
}

void* LogLineQueue::run(void*) {
    // PThread gives this thread an alternate signal stack, so a crash handler can
    // still run here after the stack overflowed.
    std::deque<CStdStr> batch;
    std::vector<Completion> batchDone;
    try {
        opened_();
        for (;;) {
            {
                PMutexLocker lock(lock_);
                while (!stop_ && lines_.empty()) lock_.wait();
                // Ends only once the queue is empty, so every line queued before stop
                // was set has been written.
                if (lines_.empty()) break;
                batch.swap(lines_);
                batchDone.swap(completions_);
            }
            write_(batch, batchDone);
            batch.clear();
            batchDone.clear();
        }
    } catch (const std::exception& e) {
        fprintf(stderr, "%s: writer thread failed: %s\n", kThreadName, e.what());
        std::abort();
    } catch (...) {
        fprintf(stderr, "%s: writer thread failed: unknown exception\n", kThreadName);
        std::abort();
    }
    return nullptr;
}
