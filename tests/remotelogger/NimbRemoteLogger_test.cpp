// SPDX-License-Identifier: MIT
// The name a remote log is kept under, from which its file name is made.

#include "NimbRemoteLogger.h"

#include <gtest/gtest.h>

TEST(NimbRemoteLogger, LogIdIsMacWithoutColonsAndLastNameComponent) {
    const struct {
        const char* mac;
        const char* logName;
        const char* id;
    } cases[] = {
        {"00:1A:2b:3C:4d:5E", "/var/log/system.log", "001A2b3C4d5E-system.log"},
        {"001122334455", "C:\\logs\\app.txt", "001122334455-app.txt"},
        {"00:11", "messages", "0011-messages"},
        {"00:11", "/a\\b/x.log", "0011-x.log"},
        {"00:11", "c:\\x.log", "0011-x.log"},
        {"00:11", "dir/", "0011-"},
        {"00:11", "", "0011-"},
        {"", "x", "-x"},
        {"a::b-c", "x", "ab-c-x"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(NimbRemoteLogger::getLogId(c.mac, c.logName), c.id) << c.mac << " " << c.logName;
    }
}
