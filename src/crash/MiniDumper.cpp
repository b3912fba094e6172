// SPDX-License-Identifier: MIT
#include "MiniDumper.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <typeinfo>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#if NIMB_HAVE_BREAKPAD
#include "client/linux/handler/exception_handler.h"
#include "client/linux/handler/minidump_descriptor.h"
#else
// Builds without crash dumps never create a handler; the type only has to be complete.
namespace google_breakpad {
class ExceptionHandler {};
}  // namespace google_breakpad
#endif

#include "CBBLog.h"
#include "CFileTools.h"
#include "CRegistry.h"
#include "CStdPath.h"
#include "CrashLog.h"
#include "PSignalStack.h"
#include "PThread.h"

extern char** environ;

namespace {

constexpr const char* kReporterName = "NimbCrashReporter";

// Read through a volatile pointer so that the compiler emits a real store to address
// zero (a plain null store is undefined and may be turned into a trap instruction).
int* volatile g_nullAddress = nullptr;

// Makes the processor fault with an ordinary invalid write, which the dump handler
// turns into a dump of the current thread.
[[noreturn]] __attribute__((noinline)) void writeToAddressZero() {
    *g_nullAddress = 0;
    _exit(0);  // not reached: the store above faults
}

// Runs in: crash context. Ends the process when the dump callback overruns its time.
void callbackTimeout(int) { _exit(0); }

// Runs in: crash context. Starts `/bin/sh -c commandLine` and waits for it, like
// system() but with only async-signal-safe calls: a raw fork (glibc's fork runs atfork
// handlers that take the allocator's locks, which the crashed thread may hold), execve
// and waitpid.
void runThroughShell(const char* commandLine) {
    const long pid = syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
    if (pid < 0) return;  // no reporter; the callback goes on with the log line
    if (pid == 0) {
        // The crashed thread's handler blocked signals; the reporter must not inherit that.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        const char* argv[] = {"sh", "-c", commandLine, nullptr};
        execve("/bin/sh", const_cast<char* const*>(argv), environ);
        _exit(127);
    }
    int status = 0;
    while (waitpid(static_cast<pid_t>(pid), &status, 0) < 0 && errno == EINTR) {
    }
}

// Runs in: crash context. Appends `text` at `*length` without passing `capacity - 1`;
// the result stays NUL-terminated.
void appendText(char* buffer, std::size_t capacity, std::size_t* length, const char* text) {
    if (text == nullptr) return;
    std::size_t n = *length;
    for (; *text != '\0' && n + 1 < capacity; ++text, ++n) buffer[n] = *text;
    buffer[n] = '\0';
    *length = n;
}

// Hooks, installed only where crash dumps are built in.

// Runs in: the thread started for a SIGUSR1 request. Faults on purpose.
void* generateCrash(void*) {
    writeToAddressZero();
    return nullptr;
}

// Runs in: signal handler for SIGUSR1. Starts a thread that faults, so that the dump
// shows a running process whose request came from a fresh thread; this thread goes on.
[[maybe_unused]] void usr1Handler(int) {
    PThread thread(PThreadDelegateFunction(&generateCrash), nullptr, "crash request");
    thread.detach();
    if (CBBLog::isInfoEnabled()) CBBLog::info("USR1 signal received, generating crash");
}

// Runs in: signal handler for SIGABRT. Turns abort() into a processor fault.
[[maybe_unused]] void abortHandler(int) {
    static const char kMessage[] = "abort() was called";
    ssize_t ignored = write(STDOUT_FILENO, kMessage, sizeof(kMessage) - 1);
    (void)ignored;  // nothing to do when stdout is gone: the fault below still follows
    writeToAddressZero();
}

// Runs in: normal context, on the thread whose exception went uncaught. Logs the
// exception, then faults so that the dump handler takes a dump of this thread.
[[noreturn, maybe_unused]] void terminateHandler() {
    if (std::current_exception()) {
        try {
            throw;
        } catch (const std::exception& e) {
            CBBLog::fatal("uncaught %s c++ exception: %s", typeid(e).name(), e.what());
        } catch (...) {
            CBBLog::fatal("uncaught unknown c++ exception");
        }
    } else {
        CBBLog::fatal("uncaught unknown c++ exception");
    }
    writeToAddressZero();
}

// The dump folder without its trailing "/", as the dump handler wants it.
CStdStr withoutTrailingSlash(const CStdStr& folder) {
    CStdStr result = folder;
    while (result.size() > 1 && result.back() == '/') result.pop_back();
    return result;
}

}  // namespace

MiniDumper::MiniDumper(const char* name) : appName(name) { initialize(true, true); }

MiniDumper::MiniDumper(const char* name, bool launch, bool log, bool installHooks, bool secondFlag,
                       bool spareFlag)
    : appName(name), logCrash(log), launchReporter(launch), spare(spareFlag) {
    initialize(installHooks, secondFlag);
}

MiniDumper::MiniDumper(const char* name, const char* arg2, const char* registryKey,
                       const char* registryValue)
    : appName(name), reporterArg1(name), reporterArg2(arg2) {
    CStdStr configured;
    if (CRegistry::getInstance()->ReadSettingImpl(CStdStr(registryKey), CStdStr(registryValue),
                                                  configured)) {
        reporterPath = configured;
    } else {
        reporterPath = CStdStr("./") + kReporterName;
    }
    initialize(true, true);
}

MiniDumper::~MiniDumper() = default;  // CrashLog is complete here

CStdStr MiniDumper::defaultDumpDir() {
    const char* tmp = std::getenv("TMPDIR");
    if (tmp == nullptr || tmp[0] != '/') return "/tmp/";
    CStdStr folder = withoutTrailingSlash(tmp);
    if (folder != "/") folder += "/";
    return folder;
}

void MiniDumper::initialize(bool installHooks, bool /*secondFlag*/) {
    if (appName.empty()) appName = "Unknown";
    if (dumpDir.empty()) dumpDir = defaultDumpDir();
    if (reporterPath.empty()) {
        CStdStr path = CStdPath::AppendPath(CFileTools::getNimbBinFolderPath(), kReporterName);
        path.Replace(" ", "\\ ");
        reporterPath = path;
    }
#if NIMB_HAVE_BREAKPAD
    // The dump handler runs on an alternate stack; give this thread a large one so
    // that the callback has room after a stack overflow too. Deliberately never freed:
    // it must stay usable until the process is gone, exit handlers included.
    static PSignalStack* const mainSignalStack = new PSignalStack();
    (void)mainSignalStack;
    handler = std::make_unique<google_breakpad::ExceptionHandler>(
        google_breakpad::MinidumpDescriptor(withoutTrailingSlash(dumpDir)), nullptr,
        &MiniDumper::descriptorCallback, this, true, -1);
    dumpPath = handler->minidump_descriptor().path();
    if (installHooks) {
        signal(SIGUSR1, &usr1Handler);
        std::set_terminate(&terminateHandler);
        signal(SIGABRT, &abortHandler);
    }
#else
    (void)installHooks;  // builds without crash dumps leave every hook alone
#endif
    if (!crashLog) crashLog = std::make_unique<CrashLog>();
    crashLog->prepare(CBBLog::getLogsDirectory(), appName);
    prepareCrashPath();
}

void MiniDumper::SetCrashReporterPath(const CStdStr& path) {
    reporterPath = path;
    prepareCrashPath();
}

void MiniDumper::setAppData(const CStdStr& data) {
    appData = data;
    appData.Replace("\"", " ");
    prepareCrashPath();
}

CStdStr MiniDumper::nextDumpPath() const { return dumpPath; }

CStdStr MiniDumper::commandLineFor(const CStdStr& path) const {
    CStdStr line;
    if (!reporterArg1.empty()) {
        line.Format("%s \"%s\" \"%s\" \"%s\" \"%s\"", reporterPath.c_str(), path.c_str(),
                    appName.c_str(), reporterArg1.c_str(), reporterArg2.c_str());
    } else {
        line.Format("%s \"%s\" \"%s\"", reporterPath.c_str(), path.c_str(), appName.c_str());
        if (!appData.empty()) line.AppendFormat(" -appData \"%s\"", appData.c_str());
    }
    return line;
}

void MiniDumper::prepareCrashPath() {
    // The command line with an empty dump path splits at the first `""`, which is where
    // the path goes: everything before the path's opening quote is the prefix.
    const CStdStr full = commandLineFor("");
    const std::size_t split = reporterPath.size() + 2;
    commandPrefix = full.substr(0, split);
    commandSuffix = full.substr(split);
    commandBuffer.assign(commandPrefix.size() + sizeof(crashDumpPath) + commandSuffix.size() + 1,
                         '\0');
}

bool MiniDumper::descriptorCallback(const google_breakpad::MinidumpDescriptor& descriptor,
                                    void* context, bool succeeded) {
#if NIMB_HAVE_BREAKPAD
    // The descriptor's path is "<folder>/<id>.dmp": split it in place of the directory
    // and id that the callback takes.
    auto* self = static_cast<MiniDumper*>(context);
    char folder[PATH_MAX] = {};
    char id[NAME_MAX + 1] = {};
    const char* path = descriptor.path();
    const char* slash = path != nullptr ? std::strrchr(path, '/') : nullptr;
    if (slash != nullptr) {
        std::size_t folderLength = static_cast<std::size_t>(slash - path) + 1;
        if (folderLength >= sizeof(folder)) folderLength = sizeof(folder) - 1;
        std::memcpy(folder, path, folderLength);
        std::size_t idLength = 0;
        appendText(id, sizeof(id), &idLength, slash + 1);
        if (idLength >= 4 && std::strcmp(id + idLength - 4, ".dmp") == 0) id[idLength - 4] = '\0';
    }
    return _minidumpCallback(folder, id, self, succeeded);
#else
    (void)descriptor;
    return _minidumpCallback(nullptr, nullptr, context, succeeded);
#endif
}

bool MiniDumper::_minidumpCallback(const char* folder, const char* id, void* context,
                                   bool succeeded) {
    static_cast<MiniDumper*>(context)->minidumpCallback(folder, id, context, succeeded);
}

void MiniDumper::minidumpCallback(const char* folder, const char* id, void* /*context*/,
                                  bool /*succeeded*/) {
    // Whatever hangs below (the reporter, a lock held by the crashed thread), the
    // process ends when the alarm fires.
    struct sigaction onAlarm = {};
    onAlarm.sa_handler = &callbackTimeout;
    sigemptyset(&onAlarm.sa_mask);
    sigaction(SIGALRM, &onAlarm, nullptr);
    sigset_t alarmOnly;
    sigemptyset(&alarmOnly);
    sigaddset(&alarmOnly, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &alarmOnly, nullptr);
    alarm(kCallbackTimeoutSeconds);

    std::size_t pathLength = 0;
    appendText(crashDumpPath, sizeof(crashDumpPath), &pathLength, folder);
    appendText(crashDumpPath, sizeof(crashDumpPath), &pathLength, id);
    appendText(crashDumpPath, sizeof(crashDumpPath), &pathLength, ".dmp");

    struct stat info = {};
    const long long size = stat(crashDumpPath, &info) == 0 ? info.st_size : 0;

    if (launchReporter && !reporterPath.empty()) {
        std::size_t length = 0;
        char* line = commandBuffer.data();
        appendText(line, commandBuffer.size(), &length, commandPrefix.c_str());
        appendText(line, commandBuffer.size(), &length, crashDumpPath);
        appendText(line, commandBuffer.size(), &length, commandSuffix.c_str());
        runThroughShell(line);
    }
    if (logCrash) {
        // Lines queued before the crash go first, as long as the writer thread still
        // runs; the crash line itself never touches the logger (its locks and its
        // allocations may be what the crashed thread was holding).
        crashLog->waitUntilQuiet(kLogDrainMilliseconds);
        crashLog->begin();
        crashLog->append("crash of ");
        crashLog->append(appName.c_str());
        crashLog->append(". minidump generated as ");
        crashLog->append(crashDumpPath);
        crashLog->append(" (");
        crashLog->append(size / 1024);
        crashLog->append("kB)");
        crashLog->finish();
    }
    _exit(0);
}
