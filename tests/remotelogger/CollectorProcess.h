// SPDX-License-Identifier: MIT
// CollectorProcess: the real NimbRemoteLogger as a child of the test, with its own
// settings home (logs folder, log level, bus host), dump folder and output file under
// `root`. Started and stopped from the test's thread; every wait is bounded.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include <signal.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "NimbTestSupport.h"

class CollectorProcess {
public:
    CollectorProcess(const std::filesystem::path& root, const std::string& busHost) : root_(root) {
        for (const char* dir : {"cfg/pellix", "logs", "tmp"})
            std::filesystem::create_directories(root_ / dir);
        setLogsFolder(logs());
        nimbtest::writeFile(root_ / "cfg/pellix/com.pellix.nimb.config.json",
                            R"({"kibDirectory.host": ")" + busHost + "\"}");
    }
    CollectorProcess(const CollectorProcess&) = delete;
    CollectorProcess& operator=(const CollectorProcess&) = delete;
    ~CollectorProcess() {
        if (pid_ > 0) stop(SIGKILL);
    }

    // The logs folder the next start() uses.
    void setLogsFolder(const std::filesystem::path& folder) {
        nimbtest::writeFile(root_ / "cfg/pellix/com.pellix.nimb.json",
                            R"({"LogLevel": 3, "LogsDir": ")" + folder.string() + "\"}");
    }
    std::filesystem::path logs() const { return root_ / "logs"; }
    std::filesystem::path output() const { return root_ / "daemon.txt"; }
    std::map<std::string, std::string> environment() const {
        return {{"XDG_CONFIG_HOME", (root_ / "cfg").string()},
                {"TMPDIR", (root_ / "tmp").string()},
                {"TZ", "UTC"}};
    }
    bool running() const { return pid_ > 0; }

    // Starts the collector and waits (up to 10 s) until it is on the bus.
    ::testing::AssertionResult start() {
        // The child empties the file only after the fork: an earlier run's "connected"
        // must not be taken for this one's.
        std::filesystem::remove(output());
        pid_ = nimbtest::spawnChild({NIMB_REMOTE_LOGGER}, environment(), output());
        for (int i = 0; i < 500; ++i) {
            if (nimbtest::readFile(output()).find("connected") != std::string::npos)
                return ::testing::AssertionSuccess();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return ::testing::AssertionFailure()
               << "collector did not connect: " << nimbtest::readFile(output());
    }

    // Sends `signalNumber` and returns the exit status (-1 if it did not exit normally,
    // or not within `limit`: it is killed then).
    int stop(int signalNumber = SIGTERM, std::chrono::seconds limit = std::chrono::seconds(60)) {
        ::kill(pid_, signalNumber);
        const nimbtest::ChildResult child = nimbtest::waitChild(pid_, output(), limit);
        pid_ = -1;
        return child.finished && WIFEXITED(child.status) ? WEXITSTATUS(child.status) : -1;
    }

private:
    std::filesystem::path root_;
    pid_t pid_ = -1;
};
