// SPDX-License-Identifier: MIT
// The collector program end to end: NimbRemoteLogger runs as a child with its own
// settings home, logs folder and temporary folder, on a real nats-server; kib-call (or,
// for the burst, a satellite in this process) plays the device.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "CollectorProcess.h"
#include "CrashTestSupport.h"
#include "DeviceLogIndex.h"
#include "KibSatellite.h"
#include "NatsServer.h"
#include "TestValues.h"

namespace {

using namespace crashtest;

const char* const kAnnounce =
    R"(["00:11:22:33:44:55", "puck-7", "Living room", {"date":"2026-11-22T10:00:00Z"}, )";
const char* const kSystemLog = "puck-7001122334455-system.log";

class RemoteLoggerDaemonTest : public ::testing::Test {
protected:
    fs::path logs() const { return collector_.logs(); }
    void start() { ASSERT_TRUE(collector_.start()); }
    int stop(int signalNumber = SIGTERM) { return collector_.stop(signalNumber); }
    std::map<std::string, std::string> environment() const { return collector_.environment(); }

    struct CallResult {
        int status = -1;
        std::string output;
    };
    CallResult call(const std::string& service, const std::string& json) {
        const ChildResult run = runChild(
            {KIB_CALL, "--host", server_.host(), "--name", "dev1", "RemoteLogger", service, json},
            environment(), root_.path() / "call.txt");
        return {run.finished && WIFEXITED(run.status) ? WEXITSTATUS(run.status) : -1, run.output};
    }

    // The files of the logs folder (the history folder with the index is beside them).
    std::set<std::string> logFiles() const {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(logs()))
            if (!entry.is_directory()) names.insert(entry.path().filename().string());
        return names;
    }

    NatsServer server_;
    TempFolder root_;
    CollectorProcess collector_{root_.path(), server_.host()};
};

TEST_F(RemoteLoggerDaemonTest, AnnouncedLogsGetHeaderAndTextInTheirFile) {
    start();
    // Text for a log nobody announced is not taken: the device is told to announce it.
    const CallResult early = call("AppendLog", R"(["00:11:22:33:44:55", "early.log", "lost\n"])");
    EXPECT_EQ(early.status, 1);
    EXPECT_NE(early.output.find(R"({"status":2,"value":"AppendLog: unknown source: announce it )"
                                R"(with SetLogSource first"})"),
              std::string::npos)
        << early.output;
    EXPECT_EQ(call("SetLogSource", kAnnounce + std::string(R"({"str[]":["/var/log/system.log",
                                                                         "C:\\logs\\app.txt"]}])"))
                  .status,
              0);
    EXPECT_EQ(call("AppendLog", R"(["00:11:22:33:44:55", "system.log",
                                    "2000/01/01 00:00:00 shifted\n", {"date":"2000-01-01T00:00:00Z"}])")
                  .status,
              0);
    EXPECT_EQ(
        call("AppendLog", R"(["001122334455", "/other/system.log", "2000/01/01 00:00:00 raw\n"])")
            .status,
        0);
    EXPECT_EQ(call("SetLogSource", kAnnounce + std::string(R"({"str[]":["system.log"]}])")).status,
              0);
    EXPECT_EQ(call("AppendLog", R"(["00:11:22:33:44:55", "app.txt", "a\u0000b\n"])").status, 0);
    EXPECT_EQ(stop(), 0);

    EXPECT_EQ(logFiles(), (std::set<std::string>{"NimbRemoteLogger.log", "errors.log", kSystemLog,
                                                 "puck-7001122334455-app.txt"}));
    const std::string header =
        R"(\n===== Living room - dev1 === 2026/11/22 10:00:00 <-> \d{4}/\d\d/\d\d \d\d:\d\d:\d\d =====\n)";
    const std::string text = readFile(logs() / kSystemLog);
    EXPECT_TRUE(
        std::regex_match(text, std::regex(header + R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d shifted\n)" +
                                          "2000/01/01 00:00:00 raw\n" + header)))
        << text;
    EXPECT_EQ(text.find("2000/01/01 00:00:00 shifted"), std::string::npos) << text;
    const std::string app = readFile(logs() / "puck-7001122334455-app.txt");
    ASSERT_GT(app.size(), 7u);
    EXPECT_TRUE(std::regex_match(app.substr(0, app.size() - 6), std::regex(header))) << app;
    EXPECT_EQ(app.substr(app.size() - 6),
              "a\xEF\xBF\xBD"
              "b\n");

    // The listing tool sees what the collector wrote.
    const ChildResult listing =
        runChild({NIMB_LOGS, "--dir", logs().string()}, {}, root_.path() / "listing.txt");
    EXPECT_NE(listing.output.find(kSystemLog), std::string::npos) << listing.output;
}

TEST_F(RemoteLoggerDaemonTest, UnreachableBusEndsTheProgramWithZeroAndTheReason) {
    writeFile(
        root_.path() / "cfg/pellix/com.pellix.nimb.config.json",
        R"({"kibDirectory.host": "127.0.0.1:)" + std::to_string(NatsServer::freePort()) + "\"}");
    const ChildResult child =
        runChild({NIMB_REMOTE_LOGGER}, environment(), root_.path() / "daemon.txt");
    EXPECT_TRUE(child.finished && WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0);
    const std::string log = readFile(logs() / "NimbRemoteLogger.log");
    EXPECT_NE(log.find("Failed to register: -2147202300 (0x80044b04)"), std::string::npos) << log;
    EXPECT_NE(log.find("Failed to register 0x80044b04"), std::string::npos) << log;
}

// With the bus gone a stop has no server to wait for: the collector ends about as
// promptly as with the bus up, and says why it did not leave the bus in order.
TEST_F(RemoteLoggerDaemonTest, StopsPromptlyWithTheBusGone) {
    start();
    server_.stop();
    const fs::path log = logs() / "NimbRemoteLogger.log";
    ASSERT_TRUE(waitUntil([&] { return readFile(log).find("Lost the bus") != std::string::npos; }))
        << readFile(log);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(collector_.stop(SIGTERM, std::chrono::seconds(3)), 0) << readFile(log);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::steady_clock::now() - begin)
                          .count();
    RecordProperty("stop_ms", static_cast<int>(took));
    std::printf("stop with the bus gone: %lld ms\n", static_cast<long long>(took));
    EXPECT_NE(readFile(log).find("Leaving the bus without a connection"), std::string::npos);
}

TEST_F(RemoteLoggerDaemonTest, RefusesNamesReachingOutsideTheLogsFolder) {
    start();
    const std::pair<std::string, const char*> cases[] = {
        {R"("../../x", "d")", "SetLogSource: invalid addr: holds"},
        {R"("00:11", "/tmp/x")", "SetLogSource: invalid device id: holds"},
        {R"("00:11", ")" + std::string(300, 'y') + "\"",
         "SetLogSource: invalid device id: file name longer than 250 bytes"},
    };
    for (const auto& [who, message] : cases) {
        const CallResult result =
            call("SetLogSource", "[" + who + R"(, "n", {"date":0}, {"str[]":["l"]}])");
        EXPECT_EQ(result.status, 2) << who;
        EXPECT_NE(result.output.find(message), std::string::npos) << result.output;
    }
    // Directories in a log name are dropped: the file stays in the logs folder.
    EXPECT_EQ(
        call("SetLogSource", R"(["00:11", "d", "n", {"date":0}, {"str[]":["../../esc"]}])").status,
        0);
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(logFiles(),
              (std::set<std::string>{"NimbRemoteLogger.log", "errors.log", "d0011-esc"}));
    std::set<std::string> top;
    for (const auto& entry : fs::directory_iterator(root_.path()))
        top.insert(entry.path().filename().string());
    EXPECT_EQ(top, (std::set<std::string>{"cfg", "logs", "tmp", "daemon.txt", "call.txt"}));
}

// A log past its size limit is rotated into one ".back"; nothing of the text is lost.
TEST_F(RemoteLoggerDaemonTest, RotatesALogAtItsSizeLimit) {
    start();
    ASSERT_EQ(call("SetLogSource", kAnnounce + std::string(R"({"str[]":["system.log"]}])")).status,
              0);
    std::string sent;
    for (char c = 'a'; c < 'h'; ++c) {  // the seventh chunk finds the file full
        const std::string chunk = std::string(100000, c) + "\n";
        ASSERT_EQ(call("AppendLog", R"(["00:11:22:33:44:55", "system.log", ")" +
                                        std::string(100000, c) + R"(\n"])")
                      .status,
                  0);
        sent += chunk;
    }
    EXPECT_EQ(stop(), 0);
    const std::string back = readFile(logs() / (std::string(kSystemLog) + ".back"));
    const std::string current = readFile(logs() / kSystemLog);
    EXPECT_GE(back.size(), 524288u);
    EXPECT_FALSE(current.empty());
    const std::string all = back + current;
    ASSERT_GT(all.size(), sent.size());
    EXPECT_EQ(all.substr(all.size() - sent.size()), sent);
    EXPECT_EQ(logFiles(), (std::set<std::string>{"NimbRemoteLogger.log", "errors.log", kSystemLog,
                                                 std::string(kSystemLog) + ".back"}));
}

// A second rotation moves the backup it would replace into the history, where it is
// compressed, and the index finds every line in the history, the backup and the file.
TEST_F(RemoteLoggerDaemonTest, ASecondRotationKeepsTheBackupInTheHistory) {
    start();
    ASSERT_EQ(call("SetLogSource", kAnnounce + std::string(R"({"str[]":["system.log"]}])")).status,
              0);
    std::string sent;
    for (int i = 0; i < 14; ++i) {  // about 1.4 MB: two rotations
        const std::string chunk = std::string(100000, static_cast<char>('a' + i)) + "\n";
        ASSERT_EQ(call("AppendLog", R"(["00:11:22:33:44:55", "system.log", ")" +
                                        chunk.substr(0, chunk.size() - 1) + R"(\n"])")
                      .status,
                  0);
        sent += chunk;
    }
    EXPECT_EQ(stop(), 0);  // the history finishes its compression before the exit
    std::string error;
    const auto index = DeviceLogIndex::openForReading(logs().string(), error);
    ASSERT_TRUE(index) << error;
    DeviceLogIndex::Query all;
    all.file = kSystemLog;
    std::string history;
    std::string text;
    for (const DeviceLogIndex::Piece& piece : index->query(all)) {
        if (piece.path.find("/history/") == std::string::npos) continue;
        history = piece.path;
    }
    ASSERT_FALSE(history.empty());
    ASSERT_TRUE(fs::exists(history + ".zst")) << history;
    const nimbtest::ChildResult unpacked =
        nimbtest::runProgram({"/usr/bin/zstdcat", history + ".zst"}, root_);
    const std::string whole = unpacked.output +
                              readFile(logs() / (std::string(kSystemLog) + ".back")) +
                              readFile(logs() / kSystemLog);
    ASSERT_GT(whole.size(), sent.size());
    EXPECT_EQ(whole.substr(whole.size() - sent.size()), sent);
}

// Things planted at a log's name are never opened through and block nothing; a logs
// folder that vanished and came back serves the announced logs again by itself.
TEST_F(RemoteLoggerDaemonTest, PlantedFilesAnswerWithTheirPathAndAVanishedFolderRecovers) {
    start();
    const fs::path outside = root_.path() / "outside.txt";
    writeFile(outside, "keep\n");
    fs::permissions(outside, fs::perms::owner_read | fs::perms::owner_write);
    const fs::path link = logs() / "puck-7001122334455-link.log";
    const fs::path fifo = logs() / "puck-7001122334455-fifo.log";
    fs::create_symlink(outside, link);
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);

    const CallResult announced = call("SetLogSource", kAnnounce + std::string(R"({"str[]":[
        "link.log", "fifo.log", "ok.log"]}])"));
    EXPECT_EQ(announced.status, 2);
    EXPECT_NE(announced.output.find("SetLogSource: cannot open '" + link.string() +
                                    "': not a regular file"),
              std::string::npos)
        << announced.output;
    const CallResult toFifo = call("AppendLog", R"(["00:11:22:33:44:55", "fifo.log", "x\n"])");
    EXPECT_EQ(toFifo.status, 2);
    EXPECT_NE(toFifo.output.find("AppendLog: cannot open '" + fifo.string() + "'"),
              std::string::npos)
        << toFifo.output;
    EXPECT_EQ(call("AppendLog", R"(["00:11:22:33:44:55", "ok.log", "first\n"])").status, 0);
    EXPECT_EQ(readFile(outside), "keep\n");
    EXPECT_EQ(fs::status(outside).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_TRUE(fs::is_symlink(link) && fs::is_fifo(fifo));

    // The logger makes the folder again for the next text; no new announcement needed.
    fs::remove_all(logs());
    EXPECT_EQ(call("AppendLog", R"(["00:11:22:33:44:55", "ok.log", "second\n"])").status, 0);
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(readFile(logs() / "puck-7001122334455-ok.log"), "second\n");
}

}  // namespace
