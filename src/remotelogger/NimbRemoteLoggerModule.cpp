// SPDX-License-Identifier: MIT
// The collector program: the module host's entry with NimbRemoteLogger as its module.
#include "NimbRemoteLogger.h"

bool g_nimbModuleRequiresQApplication = false;

const char* const g_nimbModuleProgramName = "NimbRemoteLogger";

const char* const g_nimbModuleUsage =
    "Usage: NimbRemoteLogger [--help | --version]\n"
    "\n"
    "The remote log collector: devices on the component bus call SetLogSource and\n"
    "AppendLog, and it keeps one rotating log file per device log. It runs until\n"
    "SIGTERM, SIGINT or SIGHUP; any other argument is ignored.\n"
    "\n"
    "Settings it reads (edit them with nimb-defaults):\n"
    "  Software\\Pellix\\Nimb\\Config  kibDirectory.host  bus directory, host[:port]\n"
    "                                                  (default 127.0.0.1:4222)\n"
    "  Software\\Pellix\\Nimb\\Config  MaxLogSources      device logs kept (default 256)\n"
    "  Software\\Pellix\\Nimb         LogLevel           0 FATAL .. 4 DEBUG (default 1)\n"
    "  Software\\Pellix\\Nimb         LogsDir            logs folder (default /var/log/pellix)\n"
    "  Software\\Pellix\\Nimb         InstallDir         install folder of the crash reporter\n"
    "\n"
    "Where it logs: its own lines to NimbRemoteLogger.log and FATAL lines also to\n"
    "errors.log, each device log to <device id><MAC>-<log name>, all in the logs\n"
    "folder (its MAC without colons). Crash dumps go to $TMPDIR (else /tmp).\n";

NimbModuleBaseQT* createNimbModuleInstance() { return new NimbRemoteLogger(); }
