// SPDX-License-Identifier: MIT
// The collector program: the module host's entry with NimbRemoteLogger as its module.
#include <cstdio>
#include <cstring>
#include <string>

#include "NimbRemoteLogger.h"
#include "NimbSettingsKeys.h"

namespace {

const char kUsageHead[] =
    "Usage: NimbRemoteLogger [--help | --version]\n"
    "\n"
    "The remote log collector: devices on the component bus call SetLogSource and\n"
    "AppendLog, and it keeps one rotating log file per device log. It runs until\n"
    "SIGTERM, SIGINT or SIGHUP; any other argument is ignored.\n"
    "\n"
    "Settings it reads (edit them with nimb-defaults):\n";

const char kUsageTail[] =
    "\n"
    "Where it logs: its own lines to NimbRemoteLogger.log and FATAL lines also to\n"
    "errors.log, each device log to <device id><MAC>-<log name>, all in the logs\n"
    "folder (its MAC without colons). Crash dumps go to $TMPDIR (else /tmp).\n";

// The collector reads the suite's own key, the bus and collector configuration and the
// syslog receiver's key; the console's and the alerts' keys belong to nimb-web.
bool readByCollector(const char* keyPath) {
    for (const char* own :
         {NimbSettings::kSuiteKey, NimbSettings::kConfigKey, NimbSettings::kSyslogKey}) {
        if (std::strcmp(keyPath, own) == 0) return true;
    }
    return false;
}

// The usage text with one line per setting of the settings table the collector reads.
const std::string& usageText() {
    static const std::string text = [] {
        std::string usage = kUsageHead;
        char row[320];
        for (const NimbSettings::Key& key : NimbSettings::kKeys) {
            if (!readByCollector(key.keyPath)) continue;
            std::snprintf(row, sizeof row, "  %-28s %-24s %s (default %s)\n", key.keyPath, key.name,
                          key.meaning, key.defaultText);
            usage += row;
        }
        return usage + kUsageTail;
    }();
    return text;
}

}  // namespace

bool g_nimbModuleRequiresQApplication = false;

const char* const g_nimbModuleProgramName = "NimbRemoteLogger";

const char* const g_nimbModuleUsage = usageText().c_str();

NimbModuleBaseQT* createNimbModuleInstance() { return new NimbRemoteLogger(); }
