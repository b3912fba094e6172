// SPDX-License-Identifier: MIT
// Child process of the multi-process logger tests. Usage:
//   log_test_helper <file name> <size limit> <line count> <tag> <start file>
// Waits (at most ten seconds) until <start file> exists, so that several helpers start
// together, then logs <line count> INFO lines "<tag>-<index>-xxx..." through its own
// logger (process id in the header) into the logs folder of the inherited settings, and
// exits 0 once its logger has written them all. Standard output goes to /dev/null.
//   log_test_helper fulldisk <logs folder>
// Runs the full-disk scenario (FullDisk.cpp) on a small file system it mounts there.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <unistd.h>

#include "CBBLog.h"

int runFullDisk(const std::string& folder);

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "fulldisk") return runFullDisk(argv[2]);
    if (argc != 6) {
        fprintf(stderr, "usage: %s <name> <limit> <count> <tag> <start file>\n", argv[0]);
        return 2;
    }
    if (freopen("/dev/null", "w", stdout) == nullptr) return 3;
    const long long limit = std::atoll(argv[2]);
    const int count = std::atoi(argv[3]);
    const std::string padding(60, 'x');
    for (int i = 0; i < 10000 && access(argv[5], F_OK) != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    {
        CBBLog log(argv[1], true, limit);
        log.setLogLevel(DEBUG);
        for (int i = 0; i < count; ++i) log.AddLog(INFO, "%s-%06d-%s", argv[4], i, padding.c_str());
    }
    return 0;
}
