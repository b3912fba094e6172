// SPDX-License-Identifier: MIT
// The process the crash tests crash: sets up its settings, its own log as the default
// logger and a MiniDumper the way the module host does, then dies in the way its first
// argument names. Exit status 3 means it did not die.
//   crash_child <mode> <logs folder> <install folder> <application name> [app data]
// Modes: main-null, writer-null, worker-overflow, abort, uncaught, usr1.
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include <boost/shared_ptr.hpp>

#include "CBBLog.h"
#include "CRegistry.h"
#include "MiniDumper.h"
#include "PThread.h"
#include <signal.h>
#include <unistd.h>

namespace {

constexpr const char* kWriterCrashMarker = "crash the writer thread";

int* volatile g_null = nullptr;

// A logger whose writer thread faults on the line that carries the marker.
class FaultingLog : public CBBLog {
public:
    using CBBLog::CBBLog;
    ~FaultingLog() override { stopWriter(); }

protected:
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
    }
    waitToDie();
    return 3;
}
