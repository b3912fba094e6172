// SPDX-License-Identifier: MIT
// The process the crash tests crash: sets up its settings, its own log as the default
// logger and a MiniDumper the way the module host does, then dies in the way its first
// argument names. Exit status 3 means it did not die.
//   crash_child <mode> <logs folder> <install folder> <application name> [app data]
// Modes: main-null, writer-null, worker-overflow, abort, uncaught, usr1, logger-held
// (the main thread faults while another thread is stuck inside the logger, holding its
// queue lock), malloc-busy (a fault hits a thread that allocates in a loop).
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include <malloc.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <boost/shared_ptr.hpp>

#include "CBBLog.h"
#include "CRegistry.h"
#include "MiniDumper.h"
#include "PThread.h"

namespace {

constexpr const char* kWriterCrashMarker = "crash the writer thread";

int* volatile g_null = nullptr;

// A logger whose writer thread faults on the line that carries the marker.
class FaultingLog : public CBBLog {
public:
    using CBBLog::CBBLog;
    ~FaultingLog() override { stopWriter(); }

protected:
    bool writesLineByLine() const override { return true; }
    void logLineToFile(const CStdStr& line) override {
        if (line.find(kWriterCrashMarker) != CStdStr::npos) *g_null = 0;
        CBBLog::logLineToFile(line);
    }
};

// Recurses until the stack runs out (the bound is far beyond any thread's stack); each
// frame keeps a buffer alive across the next call.
__attribute__((noinline)) long overflow(volatile char* previous, long depth) {
    volatile char frame[1024];
    frame[0] = previous != nullptr ? previous[0] : 1;
    if (depth > (1L << 40)) return frame[0];
    return overflow(frame, depth + 1) + frame[0];
}

void* overflowThread(void*) { return reinterpret_cast<void*>(overflow(nullptr, 0)); }

std::atomic<long> g_progress{0};
std::atomic<long> g_workerTid{0};
void* volatile g_block = nullptr;

// Logs until a line blocks: standard output is a pipe nobody reads, so the logger's
// echo of a queued line blocks while the logger holds its queue lock.
void* loggingThread(void*) {
    for (;;) {
        CBBLog::info("filler line %ld to fill the pipe behind standard output", g_progress.load());
        ++g_progress;
    }
    return nullptr;
}

// Allocates and frees blocks too large for the per-thread caches, so that nearly all
// of its time is spent inside the allocator holding its lock.
void* allocatingThread(void*) {
    g_workerTid = syscall(SYS_gettid);
    unsigned size = 2048;
    for (;;) {
        // Through a volatile pointer, so that the pair is not optimised away.
        g_block = std::malloc(size);
        std::free(g_block);
        size = size * 7 % 65536 + 2048;
        ++g_progress;
    }
    return nullptr;
}

// Waits (at most 3 s) until g_progress has stood still for 200 ms.
void waitUntilStuck() {
    long last = -1;
    for (int i = 0, still = 0; i < 300 && still < 20; ++i) {
        const long now = g_progress.load();
        still = now == last ? still + 1 : 0;
        last = now;
        usleep(10 * 1000);
    }
}

// Waits (at most 3 s) until g_progress has reached `count`.
void waitForProgress(long count) {
    for (int i = 0; i < 300 && g_progress.load() < count; ++i) usleep(10 * 1000);
}

void waitToDie() {
    for (int i = 0; i < 100; ++i) usleep(100 * 1000);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: crash_child <mode> <logs> <install> <name> [data]\n");
        return 2;
    }
    const std::string mode = argv[1];
    if (mode == "malloc-busy" && std::getenv("GLIBC_TUNABLES") == nullptr) {
        // Without the per-thread caches every allocation, the crash path's small ones
        // included, takes the allocator's lock.
        setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
        execv("/proc/self/exe", argv);
        return 4;
    }
    auto registry = CRegistry::getInstance();
    registry->WriteSettingImpl("Software\\Pellix\\Nimb", "LogsDir", argv[2]);
    registry->WriteSettingImpl("Software\\Pellix\\Nimb", "InstallDir", argv[3]);
    registry->WriteSettingImpl("Software\\Pellix\\Nimb", "LogLevel", 3);

    boost::shared_ptr<CBBLog> log(new FaultingLog("CrashChild.log", false, 524288));
    CBBLog::setLogger(log);
    CBBLog::info("crash child started: %s", mode.c_str());

    MiniDumper dumper(argv[4]);
    if (argc > 5) dumper.setAppData(argv[5]);

    if (mode == "main-null") {
        *g_null = 0;
    } else if (mode == "writer-null") {
        CBBLog::error("%s", kWriterCrashMarker);
    } else if (mode == "worker-overflow") {
        PThread worker(PThreadDelegateFunction(&overflowThread), nullptr, "overflow");
        worker.join();
    } else if (mode == "abort") {
        std::abort();
    } else if (mode == "uncaught") {
        throw std::runtime_error("boom in the child");
    } else if (mode == "usr1") {
        kill(getpid(), SIGUSR1);
    } else if (mode == "logger-held") {
        int pipeFds[2];
        if (pipe(pipeFds) != 0 || dup2(pipeFds[1], STDOUT_FILENO) < 0) return 4;
        PThread logging(PThreadDelegateFunction(&loggingThread), nullptr, "logging");
        waitUntilStuck();
        *g_null = 0;
    } else if (mode == "malloc-busy") {
        mallopt(M_ARENA_MAX, 1);  // one allocator lock for every thread
        PThread allocating(PThreadDelegateFunction(&allocatingThread), nullptr, "allocating");
        waitForProgress(100000);
        syscall(SYS_tgkill, getpid(), g_workerTid.load(), SIGSEGV);
    }
    waitToDie();
    return 3;
}
