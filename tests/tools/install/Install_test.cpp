// SPDX-License-Identifier: MIT
// The installed suite: `cmake --install` into a temporary prefix lays out the programs,
// the launcher marker and the service files, and the installed collector finds its own
// install folder without any setting (its crash reporter, started from there on request,
// writes a report with the stack, read by the minidump_stackwalk installed beside it and
// named by the symbol files installed there).
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "NatsServer.h"
#include "NimbSettingsKeys.h"

namespace fs = std::filesystem;

namespace {

std::string readFile(const fs::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs a command line through the shell with its output in `output`; the exit status.
int run(const std::string& command, const fs::path& output) {
    const int status = std::system((command + " >'" + output.string() + "' 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// One installation, shared by the tests of this program (installing takes a moment).
class InstallTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        char folder[] = "/tmp/nimb-install-test-XXXXXX";
        ASSERT_NE(::mkdtemp(folder), nullptr);
        root_ = folder;
        prefix_ = root_ / "prefix";
        installStatus_ = run(std::string("'") + NIMB_CMAKE + "' --install '" + NIMB_BUILD_DIR +
                                 "' --prefix '" + prefix_.string() + "'",
                             root_ / "install.out");
    }
    static void TearDownTestSuite() {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }
    void SetUp() override { ASSERT_EQ(installStatus_, 0) << readFile(root_ / "install.out"); }

    static fs::path root_;
    static fs::path prefix_;
    static int installStatus_;
};
fs::path InstallTest::root_;
fs::path InstallTest::prefix_;
int InstallTest::installStatus_ = -1;

TEST_F(InstallTest, LaysOutProgramsMarkerAndServiceFiles) {
    const fs::path bin = prefix_ / "bin";
    std::vector<std::string> programs = {"NimbRemoteLogger", "NimbCrashReporter", "kib-call",
                                         "nimb-defaults",    "nimb-logs",         "nimb-bus-setup"};
    if (NIMB_HAVE_LOGPUSH) programs.push_back("nimb-logpush");
    if (NIMB_HAVE_BREAKPAD) programs.push_back("minidump_stackwalk");
    for (const std::string& program : programs) {
        EXPECT_EQ(::access((bin / program).c_str(), X_OK), 0) << program;
    }
    EXPECT_TRUE(fs::is_regular_file(bin / "NimbLauncher"));

    // One symbol file per built program, where minidump_stackwalk looks for it:
    // symbols/<program>/<id>/<program>.sym, its first line naming that id and program.
    for (const std::string& program : programs) {
        if (!NIMB_HAVE_BREAKPAD || program == "nimb-bus-setup" || program == "minidump_stackwalk")
            continue;
        std::vector<fs::path> ids;
        std::error_code ec;
        for (fs::directory_iterator it(bin / "symbols" / program, ec), end; !ec && it != end;
             it.increment(ec)) {
            ids.push_back(it->path());
        }
        ASSERT_EQ(ids.size(), 1u) << program;
        const std::string head = readFile(ids[0] / (program + ".sym")).substr(0, 200);
        const std::string first = head.substr(0, head.find('\n'));
        EXPECT_EQ(first.rfind("MODULE Linux ", 0), 0u) << program << ": " << first;
        EXPECT_TRUE(first.ends_with(" " + ids[0].filename().string() + " " + program)) << first;
    }

    // The unit starts the collector where the default install puts it, and keeps its
    // logs where the collector writes them without a LogsDir setting.
    const std::string unit = readFile(prefix_ / "share/nimb/nimb-remote-logger.service");
    EXPECT_NE(unit.find("\nExecStart=/opt/pellix/nimb/bin/NimbRemoteLogger\n"), std::string::npos);
    EXPECT_NE(unit.find("\nLogsDirectory=pellix\n"), std::string::npos);

    // The bus directory's settings are valid for the installed nats-server and keep it
    // on the loopback interface.
    const fs::path conf = prefix_ / "share/nimb/nats-server.conf";
    EXPECT_NE(readFile(conf).find("\nhost: 127.0.0.1\n"), std::string::npos);
    const char* server =
        ::access("/usr/sbin/nats-server", X_OK) == 0 ? "/usr/sbin/nats-server" : "nats-server";
    EXPECT_EQ(run(std::string(server) + " -c '" + conf.string() + "' -t", root_ / "conf.out"), 0)
        << readFile(root_ / "conf.out");
}

// Every installed program answers --version with its name and the suite's version, and
// --help with its usage (its name in it), instead of starting. The collector's help lists
// each setting of the table under the keys it reads.
TEST_F(InstallTest, ProgramsAnswerVersionAndHelp) {
    const fs::path bin = prefix_ / "bin";
    std::vector<std::string> programs = {"NimbRemoteLogger", "NimbCrashReporter", "kib-call",
                                         "nimb-defaults",    "nimb-logs",         "nimb-web",
                                         "nimb-bus-setup"};
    if (NIMB_HAVE_LOGPUSH) programs.push_back("nimb-logpush");
    const fs::path out = root_ / "answer.out";
    for (const std::string& program : programs) {
        const std::string path = "'" + (bin / program).string() + "'";
        EXPECT_EQ(run(path + " --version", out), 0) << program;
        EXPECT_EQ(readFile(out), program + " " + NIMB_VERSION + "\n");
        EXPECT_EQ(run(path + " --help", out), 0) << program;
        EXPECT_NE(readFile(out).find(program), std::string::npos) << program << "\n"
                                                                  << readFile(out);
    }
    EXPECT_EQ(run("'" + (bin / "NimbRemoteLogger").string() + "' --help", out), 0);
    const std::string help = readFile(out);
    for (const char* part : {"Usage: NimbRemoteLogger", "NimbRemoteLogger.log", "errors.log"})
        EXPECT_NE(help.find(part), std::string::npos) << part << "\n" << help;
    std::vector<std::string> lines;
    std::istringstream in(help);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    for (const NimbSettings::Key& key : NimbSettings::kKeys) {
        const std::string path(key.keyPath);
        const bool read = path == NimbSettings::kSuiteKey || path == NimbSettings::kConfigKey ||
                          path == NimbSettings::kSyslogKey;
        bool listed = false;
        for (const std::string& line : lines) {
            listed = listed || (line.rfind("  " + path + " ", 0) == 0 &&
                                line.find(std::string(" ") + key.name + " ") != std::string::npos);
        }
        EXPECT_EQ(listed, read) << path << " " << key.name;
    }
}

TEST_F(InstallTest, InstalledCollectorFindsItsFolderAndReporter) {
    if (!NIMB_HAVE_BREAKPAD) GTEST_SKIP() << "builds without Breakpad write no dumps";
    NatsServer nats;
    const fs::path home = root_ / "config";
    const fs::path logs = root_ / "logs";
    const fs::path dumps = root_ / "dumps";
    fs::create_directories(home / "pellix");
    fs::create_directories(logs);
    fs::create_directories(dumps);
    std::ofstream(home / "pellix/com.pellix.nimb.json")
        << "{\"LogsDir\": \"" << logs.string() << "\"}\n";
    std::ofstream(home / "pellix/com.pellix.nimb.config.json")
        << "{\"kibDirectory.host\": \"" << nats.host() << "\"}\n";

    const fs::path daemon = prefix_ / "bin/NimbRemoteLogger";
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setenv("XDG_CONFIG_HOME", home.c_str(), 1);
        ::setenv("TMPDIR", dumps.c_str(), 1);
        const int out = ::open((root_ / "daemon.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(out, STDERR_FILENO);
        ::execl(daemon.c_str(), daemon.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ASSERT_GT(pid, 0);
    const fs::path ownLog = logs / "NimbRemoteLogger.log";
    for (int i = 0; i < 200 && readFile(ownLog).find("connected") == std::string::npos; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_NE(readFile(ownLog).find("connected"), std::string::npos)
        << readFile(root_ / "daemon.out");

    ::kill(pid, SIGUSR1);
    int status = -1;
    for (int i = 0; i < 700 && ::waitpid(pid, &status, WNOHANG) != pid; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!WIFEXITED(status)) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        FAIL() << "the collector did not end after its dump";
    }

    fs::path report;
    int dumpCount = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(dumps)) {
        if (entry.path().extension() == ".dmp") ++dumpCount;
        if (entry.path().extension() == ".txt") report = entry.path();
    }
    EXPECT_EQ(dumpCount, 1);
    ASSERT_FALSE(report.empty()) << "no crash report: the collector did not find "
                                    "NimbCrashReporter in its install folder";
    const std::string text = readFile(report);
    EXPECT_NE(text.find("Stack of the crashing thread:"), std::string::npos) << text;
    EXPECT_NE(text.find("Symbols: " + (prefix_ / "bin/symbols").string() + "\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("  NimbRemoteLogger!generateCrash ["), std::string::npos) << text;
}

}  // namespace
