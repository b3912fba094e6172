// SPDX-License-Identifier: MIT
// The module host, run as a child program with a test module: start-up, the signals
// that end it in order, SIGPIPE, a failing init and a failing socket pair.

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <signal.h>

#include <gtest/gtest.h>

#include "CRegistry.h"
#include "CrashTestSupport.h"

namespace {

using namespace crashtest;
using Steps = std::vector<std::string>;

// Each test has its own folder and settings home; the children inherit the home.
class ModuleHostTest : public ConfigHomeTest {
protected:
    void SetUp() override {
        ConfigHomeTest::SetUp();
        fs::create_directories(logs());
        fs::create_directories(root() / "dumps");
        auto registry = CRegistry::getInstance();
        registry->WriteSettingImpl(kSuiteKey, "LogsDir", logs().string());
        registry->WriteSettingImpl(kSuiteKey, "LogLevel", 4);
        registry->WriteSettingImpl(kSuiteKey, "InstallDir", "");
    }

    fs::path logs() const { return root() / "logs"; }
    fs::path recordFile() const { return root() / "steps.txt"; }
    fs::path outputFile() const { return root() / "output.txt"; }
    Steps steps() const { return readLines(recordFile()); }

    pid_t start(const std::string& mode, const char* program = TEST_MODULE) {
        return spawnChild({program, mode, recordFile().string()},
                          {{"TMPDIR", (root() / "dumps").string()}}, outputFile());
    }

    // Waits (boundedly) until the module recorded `step`.
    bool waitForStep(const std::string& step) const {
        return waitUntil(
            [&] {
                const Steps seen = steps();
                return std::find(seen.begin(), seen.end(), step) != seen.end();
            },
            std::chrono::seconds(10));
    }

    fs::path root() const { return dir_.path(); }
};

TEST_F(ModuleHostTest, EachEndSignalClosesTheModuleBeforeItIsDestroyed) {
    for (int signalNumber : {SIGTERM, SIGINT, SIGHUP}) {
        SCOPED_TRACE(signalNumber);
        fs::remove(recordFile());
        const pid_t pid = start("run");
        ASSERT_TRUE(waitForStep("running"));
        kill(pid, signalNumber);
        const ChildResult child = waitChild(pid, outputFile());
        EXPECT_EQ(child.exitCode(), 0) << child.status << "\n" << child.output;
        EXPECT_EQ(steps(), (Steps{"create", "init 3", "running", "abort", "close", "destroyed"}));
    }
    // The module's own log, named after the module, saw it start and end.
    const std::string log = readFile(logs() / "TestModule.log");
    EXPECT_NE(log.find("NimbModuleBaseQT TestModule"), std::string::npos) << log;
    EXPECT_NE(log.find("~NimbModuleBaseQT TestModule"), std::string::npos) << log;
}

TEST_F(ModuleHostTest, TwoQuickSignalsStillEndInOrder) {
    const pid_t pid = start("run");
    ASSERT_TRUE(waitForStep("running"));
    kill(pid, SIGTERM);
    kill(pid, SIGHUP);
    const ChildResult child = waitChild(pid, outputFile());
    EXPECT_EQ(child.exitCode(), 0) << child.output;
    Steps seen = steps();
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(Steps(seen.end() - 2, seen.end()), (Steps{"close", "destroyed"}));
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "close"), 1);
}

TEST_F(ModuleHostTest, SigpipeDoesNotEndTheProcess) {
    const pid_t pid = start("sigpipe");
    ASSERT_TRUE(waitForStep("EPIPE"));
    kill(pid, SIGPIPE);
    ASSERT_TRUE(waitForStep("running"));
    kill(pid, SIGTERM);
    const ChildResult child = waitChild(pid, outputFile());
    EXPECT_EQ(child.exitCode(), 0) << child.output;
    EXPECT_TRUE(waitForStep("close"));
}

TEST_F(ModuleHostTest, FailingInitSkipsTheEventLoopAndExitsZero) {
    const ChildResult child = waitChild(start("fail-init"), outputFile());
    EXPECT_EQ(child.exitCode(), 0) << child.output;
    EXPECT_EQ(steps(), (Steps{"create", "init 3", "destroyed"}));
}

#ifdef GUI_TEST_MODULE
TEST_F(ModuleHostTest, OnlyAModuleThatAsksForItGetsAGuiApplicationAndThePluginPath) {
    // The install folder as set holds "..": the plug-in path is the cleaned bin folder.
    fs::create_directories(root() / "suite" / "bin");
    CRegistry::getInstance()->WriteSettingImpl(kSuiteKey, "InstallDir",
                                               (root() / "other/../suite").string());
    const std::string pluginPath = "libpath " + (root() / "suite" / "bin").string();

    ChildResult child = waitChild(start("describe"), outputFile());
    EXPECT_EQ(child.exitCode(), 0) << child.output;
    Steps seen = steps();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "application QCoreApplication"), 1);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), pluginPath), 0);

    fs::remove(recordFile());
    child = waitChild(start("describe", GUI_TEST_MODULE), outputFile());
    EXPECT_EQ(child.exitCode(), 0) << child.output;
    seen = steps();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "application QApplication"), 1);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), pluginPath), 1);
    EXPECT_EQ(seen.back(), "destroyed");
}
#endif

#if !NIMB_SANITIZED_BUILD
// The child ends through abort(), a crash; and the sanitizers' own checks need free file
// descriptors, so this one runs in normal builds only.
TEST_F(ModuleHostTest, MissingSocketPairIsFatal) {
    const ChildResult child = waitChild(start("no-fds"), outputFile());
    EXPECT_TRUE(child.finished);
    EXPECT_NE(child.output.find("Couldn't create HUP socketpair"), std::string::npos)
        << child.output;
    EXPECT_EQ(steps(), (Steps{"create"}));
}
#endif

}  // namespace
