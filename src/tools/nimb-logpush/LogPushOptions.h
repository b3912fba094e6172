// SPDX-License-Identifier: MIT
// LogPushOptions: the command line of nimb-logpush, read into the client's settings and
// the list of inputs, with the defaults filled in (bus host from the suite's settings,
// MAC address and host name of this machine). Main thread.
#pragma once

#include <string>
#include <vector>

#include "LogPushClient.h"

struct LogPushSource {
    std::string path;  // "-" for standard input
    std::string logName;
};

struct LogPushOptions {
    LogPushClient::Settings client;
    std::vector<LogPushSource> inputs;
    bool follow = false;
    bool helpShown = false;  // --help was given: the text has been printed

    // Reads `arguments` (argv without the program name is taken from it by the parser).
    // Returns false with `error` set for a command line that cannot be used.
    bool parse(const std::vector<std::string>& arguments, std::string& error);
};
