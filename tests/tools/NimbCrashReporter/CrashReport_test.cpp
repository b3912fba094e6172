// SPDX-License-Identifier: MIT
// The crash reporter: its two command-line forms, the report it writes for a real dump
// and without minidump_stackwalk, and the pruning of the dump folder.
#include "CrashReport.h"

#include <chrono>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "CRegistry.h"
#include "CrashTestSupport.h"

#if NIMB_HAVE_BREAKPAD
#include "client/linux/handler/exception_handler.h"
#endif

namespace {

using namespace crashtest;

const char* const kIds[] = {
    "0a1b2c3d-0001-4a2b-8c3d4e5f-00000001", "0a1b2c3d-0002-4a2b-8c3d4e5f-00000002",
    "0a1b2c3d-0003-4a2b-8c3d4e5f-00000003", "0a1b2c3d-0004-4a2b-8c3d4e5f-00000004",
    "0a1b2c3d-0005-4a2b-8c3d4e5f-00000005"};

std::optional<CrashReportRequest> parse(std::vector<std::string> args) {
    std::string error;
    auto request = parseCrashReporterArguments(args, &error);
    EXPECT_EQ(request.has_value(), error.empty());
    return request;
}

TEST(CrashReporterArguments, AcceptsShortAppDataAndLongForms) {
    auto plain = parse({"/tmp/a.dmp", "NimbRemoteLogger"});
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->dumpPath, "/tmp/a.dmp");
    EXPECT_EQ(plain->appName, "NimbRemoteLogger");
    EXPECT_TRUE(plain->appData.empty());
    EXPECT_TRUE(plain->extraArgs.empty());

    auto withData = parse({"/tmp/a.dmp", "App", "-appData", "build 42"});
    ASSERT_TRUE(withData);
    EXPECT_EQ(withData->appData, "build 42");
    EXPECT_TRUE(withData->extraArgs.empty());

    auto longForm = parse({"/tmp/a.dmp", "App", "App", "beta"});
    ASSERT_TRUE(longForm);
    EXPECT_EQ(longForm->extraArgs, (std::vector<std::string>{"App", "beta"}));

    EXPECT_FALSE(parse({}));
    EXPECT_FALSE(parse({"/tmp/a.dmp"}));
    EXPECT_FALSE(parse({"/tmp/a.dmp", "App", "-appData"}));
    EXPECT_FALSE(parse({"", "App"}));
}

TEST(CrashReporterReport, ReadsReasonAndCrashingThreadFromStackwalk) {
    const std::string output =
        "OS|Linux|6.1\n"
        "Crash|SIGSEGV /SEGV_MAPERR|0x0|1\n"
        "\n"
        "0|0|app||||0x10\n"
        "1|0|app|crash()|crash.cpp|12|0x4\n"
        "1|1|libc.so.6||||0x29d90\n"
        "1|2|||||0x7f00\n";
    const auto summary = parseStackwalkOutput(output);
    ASSERT_TRUE(summary);
    EXPECT_EQ(summary->reason, "SIGSEGV /SEGV_MAPERR");
    EXPECT_EQ(summary->address, "0x0");
    EXPECT_EQ(summary->crashingThread, 1);
    EXPECT_EQ(summary->threadCount, 2);
    EXPECT_EQ(summary->frames, (std::vector<std::string>{" 0  app!crash() [crash.cpp:12]",
                                                         " 1  libc.so.6 + 0x29d90", " 2  0x7f00"}));
    EXPECT_FALSE(parseStackwalkOutput("OS|Linux|6.1\n0|0|app||||0x10\n"));
}

TEST(CrashReporterReport, WithoutStackwalkGivesTheBasicFacts) {
    TempFolder folder;
    const fs::path dump = folder.path() / (std::string(kIds[0]) + ".dmp");
    writeFile(dump, std::string(2048, 'x'));
    fs::permissions(dump, fs::perms::owner_read | fs::perms::owner_write);
    CrashReportRequest request{dump.string(), "NimbRemoteLogger", "build 42", {}};
    std::string error;
    ASSERT_TRUE(writeCrashReport(request, "", "", &error)) << error;
    const std::string report = readFile(reportPathFor(dump.string()));
    // As private as the dump.
    EXPECT_EQ(fs::status(reportPathFor(dump.string())).permissions(),
              fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_NE(report.find("Application: NimbRemoteLogger\n"), std::string::npos) << report;
    EXPECT_NE(report.find("Dump: " + dump.string() + "\n"), std::string::npos);
    EXPECT_NE(report.find("Dump size: 2048 bytes\n"), std::string::npos);
    EXPECT_NE(report.find("Application data: build 42\n"), std::string::npos);
    EXPECT_NE(report.find("Stack: not available (minidump_stackwalk not found)"),
              std::string::npos);

    // A program that is there but cannot read the dump leads to the same facts.
    ASSERT_TRUE(writeCrashReport(request, "/bin/false", "", &error));
    EXPECT_NE(readFile(reportPathFor(dump.string())).find("could not read the dump"),
              std::string::npos);
}

// Gives `path` a modification time `age` seconds in the past.
void age(const fs::path& path, int seconds) {
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::seconds(seconds));
}

TEST(CrashReporterPrune, KeepsTheNewestDumpsAndReportsAndNothingElse) {
    TempFolder folder;
    for (int i = 0; i < 5; ++i) {
        for (const char* extension : {".dmp", ".txt"}) {
            const fs::path file = folder.path() / (std::string(kIds[i]) + extension);
            writeFile(file, "x");
            age(file, 100 - i);  // kIds[4] is the newest
        }
    }
    writeFile(folder.path() / "notes.dmp", "not ours");
    writeFile(folder.path() / "readme.txt", "not ours");
    age(folder.path() / "notes.dmp", 1000);
    age(folder.path() / "readme.txt", 1000);

    EXPECT_EQ(pruneDumpFolder(folder.path().string(), 2).size(), 6u);
    std::vector<std::string> left;
    for (const auto& entry : fs::directory_iterator(folder.path()))
        left.push_back(entry.path().filename().string());
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (std::vector<std::string>{
                        std::string(kIds[3]) + ".dmp", std::string(kIds[3]) + ".txt",
                        std::string(kIds[4]) + ".dmp", std::string(kIds[4]) + ".txt", "notes.dmp",
                        "readme.txt"}));
    EXPECT_TRUE(pruneDumpFolder(folder.path().string(), 0).size() == 2u);
}

#if NIMB_HAVE_BREAKPAD
bool keepDump(const google_breakpad::MinidumpDescriptor& descriptor, void* path, bool succeeded) {
    if (succeeded) *static_cast<fs::path*>(path) = descriptor.path();
    return succeeded;
}

// A real dump of this process, taken on request; empty when none was written.
fs::path writeRealDump(const fs::path& folder) {
    fs::path dump;
    google_breakpad::ExceptionHandler::WriteMinidump(folder.string(), &keepDump, &dump);
    return dump;
}

TEST(CrashReporterProgram, ReportsARealDumpAndPrunesTheFolder) {
    TempFolder folder;
    const fs::path config = folder.path() / "config";
    const fs::path dumps = folder.path() / "dumps";
    fs::create_directories(dumps);
    for (int i = 0; i < 3; ++i) {
        writeFile(dumps / (std::string(kIds[i]) + ".dmp"), "old");
        age(dumps / (std::string(kIds[i]) + ".dmp"), 100 - i);
    }
    const fs::path dump = writeRealDump(dumps);
    ASSERT_FALSE(dump.empty());
    // The keep count comes from the settings of the crashed process's environment.
    const ScopedEnv home("XDG_CONFIG_HOME", config.string());
    CRegistry::getInstance()->WriteSettingImpl(kSuiteKey, "CrashDumpsKept", 2);

    const ChildResult run = runChild(
        {NIMB_CRASH_REPORTER, dump.string(), "NimbRemoteLogger", "NimbRemoteLogger", "beta"},
        {{"XDG_CONFIG_HOME", config.string()}}, folder.path() / "out.txt");
    ASSERT_EQ(run.exitCode(), 0) << run.output;
    const std::string report = readFile(reportPathFor(dump.string()));
    EXPECT_NE(report.find("Application: NimbRemoteLogger\n"), std::string::npos) << report;
    EXPECT_NE(report.find("Arguments: \"NimbRemoteLogger\" \"beta\"\n"), std::string::npos);
    EXPECT_NE(report.find("Crash reason: DUMP_REQUESTED\n"), std::string::npos) << report;
    EXPECT_NE(report.find("Stack of the crashing thread:\n   0  "), std::string::npos) << report;
    EXPECT_NE(report.find("crashreporter_tests"), std::string::npos) << report;

    // Two dumps kept: the new one and the newest old one.
    EXPECT_EQ(filesWithExtension(dumps, ".dmp").size(), 2u);
    EXPECT_TRUE(fs::exists(dump));
    EXPECT_TRUE(fs::exists(dumps / (std::string(kIds[2]) + ".dmp")));
    EXPECT_FALSE(fs::exists(dumps / (std::string(kIds[1]) + ".dmp")));
    EXPECT_FALSE(fs::exists(dumps / (std::string(kIds[0]) + ".dmp")));
}
#endif

}  // namespace
