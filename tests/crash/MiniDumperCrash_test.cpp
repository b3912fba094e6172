// SPDX-License-Identifier: MIT
// Crashes a child process in each way the dump manager handles and checks what is left:
// exit status 0, one dump that minidump_stackwalk reads with the expected crash, the
// reporter started with the expected arguments, and the FATAL line in the logs; and, with
// the real reporter, a report that names the crashing function from the symbol store.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "CrashTestSupport.h"

namespace {

using namespace crashtest;

constexpr const char* kChildName = "CrashChild";

// Records its arguments, one a line, in "argv.txt" beside itself.
constexpr const char* kStubReporter =
    "#!/bin/sh\n"
    "out=\"$(dirname \"$0\")/argv.txt\"\n"
    ": > \"$out\"\n"
    "for a in \"$@\"; do printf '%s\\n' \"$a\" >> \"$out\"; done\n";

struct DumpFacts {
    std::string reason;  // as minidump_stackwalk names it
    std::string address;
    unsigned long threadId = 0;  // the crashing thread
};

class MiniDumperCrashTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(root_.path().empty());
        // A blank in the install folder: the reporter path must reach the shell escaped.
        bin_ = root_.path() / "install dir" / "bin";
        for (const fs::path& folder :
             {root_.path() / "config", root_.path() / "logs", root_.path() / "dumps", bin_}) {
            fs::create_directories(folder);
        }
        writeFile(bin_ / "NimbCrashReporter", kStubReporter);
        chmod((bin_ / "NimbCrashReporter").c_str(), 0755);
    }

    ChildResult crash(const std::string& mode, const std::string& name = kChildName,
                      const std::vector<std::string>& extra = {},
                      std::chrono::seconds timeout = std::chrono::seconds(60)) {
        std::vector<std::string> argv = {NIMB_CRASH_CHILD, mode, logs().string(),
                                         (root_.path() / "install dir").string(), name};
        argv.insert(argv.end(), extra.begin(), extra.end());
        return runChild(
            argv,
            {{"XDG_CONFIG_HOME", (root_.path() / "config").string()}, {"TMPDIR", dumps().string()}},
            root_.path() / "output.txt", true, timeout);
    }

    fs::path logs() const { return root_.path() / "logs"; }
    fs::path dumps() const { return root_.path() / "dumps"; }
    std::vector<std::string> reporterArgs() const { return readLines(bin_ / "argv.txt"); }

    // The one dump the crash left; fails the test otherwise.
    fs::path onlyDump() const {
        const auto found = filesWithExtension(dumps(), ".dmp");
        EXPECT_EQ(found.size(), 1u);
        return found.empty() ? fs::path() : found.front();
    }

    DumpFacts readDump(const fs::path& dump) const {
        DumpFacts facts;
        std::istringstream walk(
            captureOutput(root_.path(), {NIMB_MINIDUMP_STACKWALK, "-m", dump.string()}));
        for (std::string line; std::getline(walk, line);) {
            if (line.rfind("Crash|", 0) != 0) continue;
            const auto second = line.find('|', 6);
            facts.reason = line.substr(6, second - 6);
            facts.address = line.substr(second + 1, line.find('|', second + 1) - second - 1);
        }
        const std::string raw = captureOutput(root_.path(), {NIMB_MINIDUMP_DUMP, dump.string()});
        const auto exception = raw.find("MDException");
        const auto id = raw.find("thread_id", exception);
        if (exception != std::string::npos && id != std::string::npos) {
            facts.threadId = std::stoul(raw.substr(raw.find('=', id) + 1), nullptr, 16);
        }
        return facts;
    }

    // What every handled crash leaves: exit status 0, one dump, the reporter called
    // with the dump and the name, and the FATAL line with the dump's size.
    fs::path expectHandled(const ChildResult& child, const std::string& name = kChildName) {
        EXPECT_TRUE(child.finished);
        EXPECT_TRUE(WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0)
            << "status " << child.status << "\n"
            << child.output;
        const fs::path dump = onlyDump();
        if (dump.empty()) return dump;
        const std::vector<std::string> args = reporterArgs();
        EXPECT_GE(args.size(), 2u);
        if (args.size() >= 2) {
            EXPECT_EQ(args[0], dump.string());
            EXPECT_EQ(args[1], name);
        }
        const std::string fatal = "crash of " + name + ". minidump generated as " + dump.string() +
                                  " (" + std::to_string(fs::file_size(dump) / 1024) + "kB)";
        EXPECT_NE(readFile(logs() / "errors.log").find(fatal), std::string::npos) << fatal;
        fatalLine_ = fatal;
        return dump;
    }

    // The FATAL line also reached the module's own log.
    void expectFatalInOwnLog() const {
        const std::string own = readFile(logs() / "CrashChild.log");
        EXPECT_NE(own.find("[FATAL] - CrashChild - " + fatalLine_), std::string::npos) << own;
    }

    TempFolder root_;
    fs::path bin_;
    std::string fatalLine_;  // the crash line of the last expectHandled()
};

TEST_F(MiniDumperCrashTest, EmptyNameAndAppDataReachTheReporter) {
    const ChildResult child = crash("main-null", "", {"build \"42\" beta"});
    const fs::path dump = expectHandled(child, "Unknown");
    EXPECT_EQ(reporterArgs(),
              (std::vector<std::string>{dump.string(), "Unknown", "-appData", "build  42  beta"}));
}

// The real reporter (linked into the install folder, so that it still finds
// minidump_stackwalk and the build's symbol store beside its own file) names the function
// that crashed and its source file, which only the symbol files can tell.
TEST_F(MiniDumperCrashTest, ReportNamesTheCrashingFunction) {
    fs::remove(bin_ / "NimbCrashReporter");
    fs::create_symlink(NIMB_CRASH_REPORTER, bin_ / "NimbCrashReporter");
    const ChildResult child = crash("writer-null");
    ASSERT_TRUE(child.finished);
    const fs::path dump = onlyDump();
    ASSERT_FALSE(dump.empty());
    const std::string report = readFile(dump.parent_path() / (dump.stem().string() + ".txt"));
    EXPECT_NE(report.find("/symbols\nCrash reason: SIGSEGV"), std::string::npos) << report;
    const std::size_t stack = report.find("Stack of the crashing thread:\n   0  crash_child!");
    ASSERT_NE(stack, std::string::npos) << report;
    const std::string top = report.substr(stack, report.find('\n', stack + 40) - stack);
    EXPECT_NE(top.find("FaultingLog::logLineToFile"), std::string::npos) << report;
    EXPECT_NE(top.find("crash_child.cpp:"), std::string::npos) << report;
}

enum class CrashingThread { Main, Other, Any };

struct CrashKind {
    const char* mode;       // what the child does
    const char* reason;     // how minidump_stackwalk names the fault (its start)
    CrashingThread thread;  // where the dump says it happened
    const char* output;     // printed by the handler, or nullptr
    const char* logged;     // logged in both logs besides the FATAL line, or nullptr
    int seconds = 60;       // the child's whole run, set-up included, must end within this
};

void PrintTo(const CrashKind& kind, std::ostream* out) { *out << kind.mode; }

class MiniDumperCrashKindTest : public MiniDumperCrashTest,
                                public ::testing::WithParamInterface<CrashKind> {};

TEST_P(MiniDumperCrashKindTest, IsDumpedReportedAndLogged) {
    const CrashKind& kind = GetParam();
    const ChildResult child = crash(kind.mode, kChildName, {}, std::chrono::seconds(kind.seconds));
    const fs::path dump = expectHandled(child);
    ASSERT_FALSE(dump.empty());
    EXPECT_EQ(reporterArgs().size(), 2u);
    expectFatalInOwnLog();
    if (kind.output) {
        EXPECT_NE(child.output.find(kind.output), std::string::npos) << child.output;
    }
    if (kind.logged) {
        EXPECT_NE(readFile(logs() / "errors.log").find(kind.logged), std::string::npos);
        EXPECT_NE(readFile(logs() / "CrashChild.log").find(kind.logged), std::string::npos);
    }
    const DumpFacts facts = readDump(dump);
    EXPECT_EQ(facts.reason.rfind(kind.reason, 0), 0u) << facts.reason;
    EXPECT_NE(facts.threadId, 0ul);
    if (kind.thread == CrashingThread::Main) {
        EXPECT_EQ(facts.threadId, static_cast<unsigned long>(child.pid));
    } else if (kind.thread == CrashingThread::Other) {
        EXPECT_NE(facts.threadId, static_cast<unsigned long>(child.pid));
    }
    if (std::string(kind.mode) == "main-null") {
        EXPECT_EQ(facts.address, "0x0");
    }
}

// A null write on the main thread and on the logger's writer thread, a stack overflow
// on a worker, abort() (made a fault on the aborting thread), an uncaught exception
// (logged with its type and message), SIGUSR1 (the running process dumped from a
// fresh thread), and two crashes the crash path must not deadlock on: while another
// thread is stuck inside the logger holding its queue lock, and on a thread that is
// busy allocating (holding the allocator's lock). Those two must end within 3 s of
// set-up (the child's own wait) plus 5 s; a crash path that waits on either lock hangs
// until its 30 s alarm instead.
INSTANTIATE_TEST_SUITE_P(
    Kinds, MiniDumperCrashKindTest,
    ::testing::Values(
        CrashKind{"main-null", "SIGSEGV /SEGV_MAPERR", CrashingThread::Main, nullptr, nullptr},
        CrashKind{"writer-null", "SIGSEGV /SEGV_MAPERR", CrashingThread::Other, nullptr, nullptr},
        CrashKind{"worker-overflow", "SIGSEGV", CrashingThread::Other, nullptr, nullptr},
        CrashKind{"abort", "SIGSEGV /SEGV_MAPERR", CrashingThread::Main, "abort() was called",
                  nullptr},
        CrashKind{"uncaught", "SIGSEGV /SEGV_MAPERR", CrashingThread::Any, nullptr,
                  "uncaught St13runtime_error c++ exception: boom in the child"},
        CrashKind{"usr1", "SIGSEGV /SEGV_MAPERR", CrashingThread::Other,
                  "USR1 signal received, generating crash", nullptr},
        CrashKind{"logger-held", "SIGSEGV /SEGV_MAPERR", CrashingThread::Main, nullptr, nullptr, 8},
        CrashKind{"malloc-busy", "SIGSEGV", CrashingThread::Other, nullptr, nullptr, 8}),
    [](const ::testing::TestParamInfo<CrashKind>& param) {
        std::string name = param.param.mode;
        name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
        return name;
    });

}  // namespace
