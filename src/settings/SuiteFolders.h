// SPDX-License-Identifier: MIT
// The one lookup of the suite's machine-wide folders, shared by the file logger and
// the folder helpers: the string settings "LogsDir" and "DataDir" under
// "Software\Pellix\Nimb" when present (and not empty), else the fixed defaults.
// Stateless; any thread.
#pragma once

#include "StdString.h"

class CSuiteFolders {
public:
    static constexpr const char* kDefaultLogsDirectory = "/var/log/pellix";
    static constexpr const char* kDefaultDataDirectory = "/var/lib/pellix";

    // The logs folder, without a trailing "/". Not created here.
    static CStdStr logsDirectory();
    // The machine-wide data folder, without a trailing "/". Not created here.
    static CStdStr dataDirectory();
};
