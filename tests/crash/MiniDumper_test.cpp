// SPDX-License-Identifier: MIT
// The dump manager's set-up, in process: names, folders, the reporter path and the
// command lines the crash path will run. The hooks are not installed here (or are
// removed again), so a failing test still fails normally.
#include "MiniDumper.h"

#include <cstdlib>
#include <exception>

#include <signal.h>

#include <gtest/gtest.h>

#include "CRegistry.h"
#include "CrashTestSupport.h"

namespace {

using crashtest::TempFolder;
using nimbtest::kSuiteKey;

class MiniDumperTest : public nimbtest::ConfigHomeTest {
protected:
    void SetUp() override {
        ConfigHomeTest::SetUp();
        setInstallDir("");
    }
    static void setInstallDir(const std::string& folder) {
        CRegistry::getInstance()->WriteSettingImpl(kSuiteKey, "InstallDir", folder);
    }

    // Hooks off: launch and log flags on, as in the module host.
    static std::unique_ptr<MiniDumper> quietDumper(const char* name) {
        return std::make_unique<MiniDumper>(name, true, true, false, true, true);
    }

    // Unset for each test and restored after it: later tests need a usable one.
    nimbtest::ScopedEnv tmpDir_{"TMPDIR", std::nullopt};
};

TEST_F(MiniDumperTest, ShortCommandLineQuotesDumpAndNameAndAppendsAppData) {
    auto dumper = quietDumper("NimbRemoteLogger");
    dumper->SetCrashReporterPath("/opt/nimb/bin/NimbCrashReporter");
    EXPECT_EQ(dumper->commandLineFor("/tmp/1-2.dmp"),
              "/opt/nimb/bin/NimbCrashReporter \"/tmp/1-2.dmp\" \"NimbRemoteLogger\"");

    dumper->setAppData("say \"hi\" twice");
    EXPECT_EQ(dumper->getAppData(), "say  hi  twice");
    EXPECT_EQ(dumper->commandLineFor("/tmp/1-2.dmp"),
              "/opt/nimb/bin/NimbCrashReporter \"/tmp/1-2.dmp\" \"NimbRemoteLogger\" "
              "-appData \"say  hi  twice\"");
}

TEST_F(MiniDumperTest, EmptyNameBecomesUnknownAndDumpsGoToTheTemporaryFolder) {
    auto dumper = quietDumper("");
    EXPECT_EQ(dumper->getAppName(), "Unknown");
    EXPECT_EQ(dumper->getDumpDir(), "/tmp/");

    setenv("TMPDIR", "/var/tmp/private//", 1);
    EXPECT_EQ(quietDumper("x")->getDumpDir(), "/var/tmp/private/");
    setenv("TMPDIR", "relative/folder", 1);
    EXPECT_EQ(quietDumper("x")->getDumpDir(), "/tmp/");
}

TEST_F(MiniDumperTest, ReporterComesFromTheInstallFolderWithBlanksEscaped) {
    setInstallDir("/srv/my nimb suite");
    auto dumper = quietDumper("NimbRemoteLogger");
    EXPECT_EQ(dumper->getReporterPath(), "/srv/my\\ nimb\\ suite/bin/NimbCrashReporter");
    EXPECT_EQ(dumper->commandLineFor("/tmp/a.dmp"),
              "/srv/my\\ nimb\\ suite/bin/NimbCrashReporter \"/tmp/a.dmp\" \"NimbRemoteLogger\"");
}

TEST_F(MiniDumperTest, LongFormTakesReporterFromSettingsAndIgnoresAppData) {
    CRegistry::getInstance()->WriteSettingImpl(kSuiteKey, "CrashReporter", "/usr/lib/reporter");
    const auto previous = std::get_terminate();
    {
        MiniDumper configured("Player", "beta", kSuiteKey, "CrashReporter");
        configured.setAppData("ignored");
        EXPECT_EQ(configured.commandLineFor("/tmp/d.dmp"),
                  "/usr/lib/reporter \"/tmp/d.dmp\" \"Player\" \"Player\" \"beta\"");

        MiniDumper fallback("Player", "beta", kSuiteKey, "NoSuchValue");
        EXPECT_EQ(fallback.getReporterPath(), "./NimbCrashReporter");
        MiniDumper nullSetting("Player", "beta", nullptr, nullptr);
        EXPECT_EQ(nullSetting.getReporterPath(), "./NimbCrashReporter");
    }
    // These constructors install the process hooks, which outlive the dumper.
    signal(SIGUSR1, SIG_DFL);
    signal(SIGABRT, SIG_DFL);
    std::set_terminate(previous);
}

#if NIMB_HAVE_BREAKPAD
TEST_F(MiniDumperTest, ArmedDumperKnowsWhereItsDumpGoes) {
    TempFolder dumps;
    setenv("TMPDIR", dumps.path().c_str(), 1);
    auto dumper = quietDumper("App");
    ASSERT_TRUE(dumper->isArmed());
    const CStdStr next = dumper->nextDumpPath();
    EXPECT_EQ(next.rfind(dumper->getDumpDir(), 0), 0u) << next;
    EXPECT_EQ(next.substr(next.size() - 4), ".dmp");
}
#else
TEST_F(MiniDumperTest, WithoutCrashDumpsNothingIsArmed) {
    EXPECT_FALSE(quietDumper("App")->isArmed());
}
#endif

}  // namespace
