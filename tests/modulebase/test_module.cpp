// SPDX-License-Identifier: MIT
// A module program for the module host's tests: records each step of its life, one a
// line, in the file named by its second argument.
//   test_module <mode> <record file>
// Modes: run (wait for a signal), sigpipe (write into a closed socket first),
// fail-init (init returns false), no-fds (no file descriptor left for the signal
// socket pair when the module is built), describe (record the application object's
// class and plug-in paths as the module is created, then fail init).
// Built twice: test_module, and gui_test_module (TEST_MODULE_GUI), which asks for a
// QApplication.
#include <cerrno>
#include <string>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QTimer>

#include "NimbModuleBaseQT.h"

#ifndef TEST_MODULE_GUI
#define TEST_MODULE_GUI 0
#endif

bool g_nimbModuleRequiresQApplication = TEST_MODULE_GUI;
const char* const g_nimbModuleProgramName = "test_module";
const char* const g_nimbModuleUsage = "test_module: a module for the module host's tests\n";

namespace {

std::string g_recordFile;

void record(const std::string& step) {
    if (g_recordFile.empty()) return;
    const int fd = open(g_recordFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd < 0) return;
    const std::string line = step + "\n";
    const ssize_t written = write(fd, line.data(), line.size());
    (void)written;
    close(fd);
}

// A write into a socket whose peer is closed: EPIPE instead of the end of the process.
void writeIntoClosedSocket() {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return;
    ::close(pair[1]);
    const ssize_t written = write(pair[0], "x", 1);
    record(written < 0 && errno == EPIPE ? "EPIPE" : "no EPIPE");
    ::close(pair[0]);
}

// Takes every free file descriptor, so that the next one cannot be opened.
void exhaustFileDescriptors() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 64;
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int i = 0; i < 64 && dup(STDERR_FILENO) >= 0; ++i) {
    }
}

class TestModule : public NimbModuleBaseQT {
public:
    TestModule() : NimbModuleBaseQT("TestModule") {}
    ~TestModule() override { record("destroyed"); }

    bool init(const std::vector<CStdStr>& args) override {
        const std::string mode = args.size() > 1 ? args[1] : "";
        record("init " + std::to_string(args.size()));
        if (mode == "fail-init" || mode == "describe") return false;
        if (mode == "sigpipe") QTimer::singleShot(0, this, [] { writeIntoClosedSocket(); });
        QTimer::singleShot(0, this, [] { record("running"); });
        return true;
    }
    void close() override { record("close"); }
    void abort() override {
        record("abort");
        NimbModuleBaseQT::abort();
    }
};

}  // namespace

NimbModuleBaseQT* createNimbModuleInstance() {
    const QStringList args = QCoreApplication::arguments();
    if (args.size() > 2) g_recordFile = args[2].toStdString();
    record("create");
    if (args.size() > 1 && args[1] == "no-fds") exhaustFileDescriptors();
    if (args.size() > 1 && args[1] == "describe") {
        record(std::string("application ") +
               QCoreApplication::instance()->metaObject()->className());
        for (const QString& path : QCoreApplication::libraryPaths())
            record("libpath " + path.toStdString());
    }
    return new TestModule;
}
