// SPDX-License-Identifier: MIT
// NimbModuleBaseQT: the base of every module object the module host runs. It owns the
// module's own log (installed as the process's default logger and the bus library's
// logger), the crash dump manager, and the bridge that turns SIGHUP, SIGTERM and SIGINT
// into an orderly end of the event loop. Created once by main() through
// createNimbModuleInstance() and deleted by main(); lives on the Qt main thread.
// Errors: a module reports a failed start by returning false from init() (after logging
// why); the host then skips the event loop and exits 0. Nothing here throws.
#pragma once

#include <vector>

#include <QObject>

#include <boost/shared_ptr.hpp>

#include "CBBLog.h"
#include "MiniDumper.h"
#include "StdString.h"

class QSocketNotifier;

class NimbModuleBaseQT : public QObject {
    Q_OBJECT

public:
    // Size at which the module's own log is rotated.
    static constexpr long long kModuleLogSize = 524288;

    // Arms the crash dump manager for `name`, creates "<name>.log" as the default
    // logger, and installs the signal bridge (SIGPIPE ignored). Main thread, before the
    // event loop. Ends the process with "Couldn't create HUP socketpair" when the signal
    // socket pair cannot be created.
    explicit NimbModuleBaseQT(const CStdStr& name);
    NimbModuleBaseQT(const NimbModuleBaseQT&) = delete;
    NimbModuleBaseQT& operator=(const NimbModuleBaseQT&) = delete;
    // Releases the crash dump manager, then the module's log. The socket pair and the
    // signal dispositions stay as they are.
    ~NimbModuleBaseQT() override;

    // Starts the module with the whole command line (argv[0] included); false means
    // start-up failed and the event loop is not run. Main thread.
    virtual bool init(const std::vector<CStdStr>& args) = 0;
    // Stops the module's activity after the event loop ended, before it is deleted.
    virtual void close() = 0;
    // Ends the event loop with 0 when an application object exists. Main thread.
    virtual void abort();

    // Installed for SIGHUP, SIGTERM and SIGINT: writes one byte into the socket pair and
    // nothing else. Runs in: signal context, any thread.
    static void unixSignalHandler(int);

public slots:
    // Consumes one byte from the socket pair and calls abort(). Main thread.
    void unixSignalSlot();

protected:
    const CStdStr& moduleName() const { return name; }
    const boost::shared_ptr<CBBLog>& moduleLog() const { return logger; }

private:
    // Immutable after construction. Declared in this order so that destruction runs
    // crash dumper, then logger, then name.
    CStdStr name;
    boost::shared_ptr<CBBLog> logger;
    MiniDumper crashDumper;
    QSocketNotifier* signalNotifier = nullptr;  // Qt child of this object

    // [0] written by the signal handler, [1] watched by the notifier; open for the life
    // of the process. Written once by the first module's constructor.
    static int unixSignalSockets[2];
};

// The module program's factory: a new module object, owned by the caller (main).
NimbModuleBaseQT* createNimbModuleInstance();

// Set by a module program that needs a GUI application object; see NimbModuleMain.cpp.
extern bool g_nimbModuleRequiresQApplication;
// The module program's name and the text `<program> --help` prints: what the module is,
// the settings it reads and where it logs. Defined by the module program.
extern const char* const g_nimbModuleProgramName;
extern const char* const g_nimbModuleUsage;
