// SPDX-License-Identifier: MIT
// MiniDumper: the process's crash dump manager. Turns a processor fault, an uncaught
// C++ exception, abort() and a SIGUSR1 request into one path: a minidump in the dump
// folder, the crash reporter started on it, a FATAL line in the logs, exit status 0.
// One per process, owned by the module host for the life of the process; built and
// destroyed on the main thread. The dump callback runs on whichever thread crashed.
// Errors: nothing is returned or thrown. Whatever the dump's outcome, the callback
// writes its FATAL line and ends the process with status 0; an alarm ends it too if the
// reporter or the log hangs.
#pragma once

#include <memory>
#include <vector>

#include <limits.h>

#include "StdString.h"

namespace google_breakpad {
class ExceptionHandler;
class MinidumpDescriptor;
}  // namespace google_breakpad

class CrashLog;

class MiniDumper {
public:
    // Seconds the dump callback may take (reporter, log line) before the process is
    // ended regardless, so that a hang in the crash path cannot keep it alive.
    static constexpr unsigned kCallbackTimeoutSeconds = 30;
    // How long the dump callback lets the logger's writer thread finish the lines
    // queued before the crash.
    static constexpr int kLogDrainMilliseconds = 1000;

    // All flags true, hooks installed. The constructor the module host uses.
    // Runs in: normal context.
    explicit MiniDumper(const char* appName);
    // Flags passed through; then initialize(installHooks, secondFlag).
    MiniDumper(const char* appName, bool launchReporter, bool logCrash, bool installHooks,
               bool secondFlag, bool spare);
    // Long command-line form: the reporter also receives `appName` and `arg2`. The
    // reporter program is the string setting `registryValue` under `registryKey` (either
    // may be null), else "./NimbCrashReporter".
    MiniDumper(const char* appName, const char* arg2, const char* registryKey,
               const char* registryValue);
    MiniDumper(const MiniDumper&) = delete;
    MiniDumper& operator=(const MiniDumper&) = delete;
    // Removes the dump handler. The SIGUSR1, SIGABRT and terminate hooks stay installed.
    virtual ~MiniDumper();

    // Fills in the defaults (name "Unknown", the dump folder, the reporter found in the
    // install folder with its blanks escaped for the shell), creates the dump handler
    // and, when `installHooks`, installs the SIGUSR1, SIGABRT and terminate hooks.
    // `secondFlag` has no effect. Runs in: normal context, main thread.
    void initialize(bool installHooks, bool secondFlag);

    // Replaces the reporter program; `path` is used as given (shell-ready). An empty
    // path turns the reporter launch off. Runs in: normal context.
    void SetCrashReporterPath(const CStdStr& path);
    // Extra "-appData" argument for the reporter; double quotes become blanks so that
    // the quoted command line stays intact. Runs in: normal context.
    void setAppData(const CStdStr& data);

    // After a dump: starts the reporter, writes the FATAL line to errors.log and to
    // "<appName>.log" in the logs folder, ends the process with status 0. Never
    // returns. Runs in: crash context (the crashed thread's signal handler), so it only
    // uses what was prepared in normal context and async-signal-safe calls: no
    // allocation, no lock, no logger.
    [[noreturn]] void minidumpCallback(const char* dumpDir, const char* minidumpId, void* context,
                                       bool succeeded);
    // The dump handler's callback in the directory + id form; `context` is the
    // MiniDumper. Runs in: crash context.
    static bool _minidumpCallback(const char* dumpDir, const char* minidumpId, void* context,
                                  bool succeeded);

    // The command line the reporter is started with for a dump at `dumpPath`.
    // Runs in: normal context.
    CStdStr commandLineFor(const CStdStr& dumpPath) const;
    const CStdStr& getAppName() const { return appName; }
    const CStdStr& getReporterPath() const { return reporterPath; }
    const CStdStr& getDumpDir() const { return dumpDir; }
    const CStdStr& getAppData() const { return appData; }
    // Where the next dump will be written; empty when no dump handler is armed.
    CStdStr nextDumpPath() const;
    // Whether a dump handler is armed (false in builds without crash dumps).
    bool isArmed() const { return handler != nullptr; }

    // The dump folder used when none is set: $TMPDIR (when absolute) with a trailing
    // "/", else "/tmp/".
    static CStdStr defaultDumpDir();

private:
    // Adapts the handler's descriptor form to the directory + id form.
    // Runs in: crash context.
    static bool descriptorCallback(const google_breakpad::MinidumpDescriptor& descriptor,
                                   void* context, bool succeeded);
    // Rebuilds the command-line pieces and buffers used by the crash path.
    // Runs in: normal context.
    void prepareCrashPath();

    CStdStr appName;
    bool logCrash = true;
    bool launchReporter = true;
    bool spare = true;  // kept for callers; nothing consults it
    CStdStr reporterArg1;
    CStdStr reporterArg2;
    CStdStr reporterPath;
    CStdStr dumpDir;
    std::unique_ptr<google_breakpad::ExceptionHandler> handler;
    CStdStr dumpPath;  // where the handler will write its dump
    CStdStr appData;

    // Prepared in normal context for the crash path: the command line is
    // commandPrefix + dump path + commandSuffix, assembled into commandBuffer.
    CStdStr commandPrefix;
    CStdStr commandSuffix;
    std::vector<char> commandBuffer;
    char crashDumpPath[PATH_MAX] = {};
    // The FATAL line's files and buffer, opened by initialize().
    std::unique_ptr<CrashLog> crashLog;
};
