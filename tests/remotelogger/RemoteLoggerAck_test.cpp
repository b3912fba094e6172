// SPDX-License-Identifier: MIT
// A success reply means the text is in its file: simulated devices (8 devices x 5 logs,
// one request in flight per log) push numbered lines while the collector is killed,
// stopped by a signal, or loses its bus; every acknowledged line must then be found in
// its file, in order, whole, and the index must point at exactly the bytes the files hold.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CollectorProcess.h"
#include "CrashTestSupport.h"
#include "DeviceLogIndex.h"
#include "DeviceSimulator.h"
#include "NatsServer.h"

namespace {

using namespace crashtest;
using namespace std::chrono_literals;

class RemoteLoggerAckTest : public ::testing::Test {
protected:
    nimbtest::DeviceSimulator::Options options(int linesPerLog) const {
        nimbtest::DeviceSimulator::Options result;
        result.host = server_.host();
        result.linesPerLog = linesPerLog;
        return result;
    }

    // A pause of 100 to 600 ms drawn from `random`.
    static std::chrono::milliseconds moment(std::mt19937& random) {
        return std::chrono::milliseconds(std::uniform_int_distribution<int>(100, 600)(random));
    }

    // Lets the devices finish, stops the collector in order and checks the files.
    void finish(nimbtest::DeviceSimulator& devices, bool tornAllowed) {
        EXPECT_TRUE(devices.waitUntilDone(60s))
            << devices.acknowledged() << " of " << devices.total() << " acknowledged";
        devices.stop();
        EXPECT_EQ(collector_.stop(SIGTERM), 0);
        const nimbtest::DeviceSimulator::Report report = devices.check(collector_.logs());
        EXPECT_TRUE(report.clean(tornAllowed)) << report.text();
        EXPECT_EQ(report.acknowledged, devices.total());
        expectTheIndexFollowsTheFiles();
    }

    // The index points at nothing that is not in a file, and finds every byte of every
    // log's current file: what a kill kept from it was completed at the next start.
    void expectTheIndexFollowsTheFiles() const {
        std::string error;
        const auto index = DeviceLogIndex::openForReading(collector_.logs().string(), error);
        ASSERT_TRUE(index) << error;
        DeviceLogIndex::Query all;
        all.limit = 1000000;
        std::map<std::string, std::uint64_t> coveredUpTo;
        std::vector<DeviceLogIndex::Piece> pieces = index->query(all);
        std::sort(pieces.begin(), pieces.end(), [](const auto& a, const auto& b) {
            return std::tie(a.file, a.generation, a.offset) <
                   std::tie(b.file, b.generation, b.offset);
        });
        for (const DeviceLogIndex::Piece& piece : pieces) {
            struct stat info {};
            ASSERT_EQ(::stat(piece.path.c_str(), &info), 0) << piece.path;
            EXPECT_LE(piece.offset + piece.length, static_cast<std::uint64_t>(info.st_size))
                << piece.path;
            if (piece.path != (collector_.logs() / piece.file).string()) continue;
            std::uint64_t& next = coveredUpTo[piece.file];
            EXPECT_EQ(piece.offset, next) << piece.file << ": a gap or an overlap";
            next = piece.offset + piece.length;
        }
        for (const auto& [file, end] : coveredUpTo) {
            EXPECT_EQ(end, std::filesystem::file_size(collector_.logs() / file)) << file;
        }
        EXPECT_GE(coveredUpTo.size(), 40u);  // every simulated log
    }

    NatsServer server_;
    TempFolder root_;
    CollectorProcess collector_{root_.path(), server_.host()};
};

// A killed collector loses only what it had not acknowledged; a write it was killed in
// may leave a piece of a line that was never acknowledged.
class RemoteLoggerKillTest : public RemoteLoggerAckTest,
                             public ::testing::WithParamInterface<unsigned> {};

TEST_P(RemoteLoggerKillTest, SigkillLosesNoAcknowledgedLine) {
    std::mt19937 random(GetParam());
    ASSERT_TRUE(collector_.start());
    nimbtest::DeviceSimulator devices(options(400));
    ASSERT_TRUE(devices.start());
    for (int kill = 0; kill < 3; ++kill) {
        devices.waitForAcknowledged(devices.acknowledged() + 200, 10s);
        std::this_thread::sleep_for(moment(random));
        EXPECT_EQ(collector_.stop(SIGKILL), -1);
        ASSERT_TRUE(collector_.start());
    }
    finish(devices, true);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RemoteLoggerKillTest, ::testing::Values(1u, 2u, 3u));

TEST_F(RemoteLoggerAckTest, EndSignalsUnderLoadExitZeroAndLoseNothing) {
    std::mt19937 random(7);
    ASSERT_TRUE(collector_.start());
    nimbtest::DeviceSimulator devices(options(500));
    ASSERT_TRUE(devices.start());
    for (const int signalNumber : {SIGTERM, SIGINT, SIGHUP}) {
        devices.waitForAcknowledged(devices.acknowledged() + 200, 10s);
        std::this_thread::sleep_for(moment(random));
        EXPECT_EQ(collector_.stop(signalNumber), 0) << "signal " << signalNumber;
        ASSERT_TRUE(collector_.start());
    }
    finish(devices, false);
    // An orderly stop leaves the bus before it stops taking work: no request it received
    // is answered with an error (busy, not written).
    EXPECT_EQ(devices.errorReplies(), 0) << devices.firstError();
    EXPECT_EQ(readFile(collector_.output()).find("no such service"), std::string::npos);
}

TEST_F(RemoteLoggerAckTest, BusRestartLosesNothingAndTheCollectorSaysItIsBack) {
    ASSERT_TRUE(collector_.start());
    nimbtest::DeviceSimulator devices(options(400));
    ASSERT_TRUE(devices.start());
    // The server dies (as in a crash) twice: a short outage and one longer than a
    // device's reply timeout.
    for (const auto outage : {1s, 5s}) {
        devices.waitForAcknowledged(devices.acknowledged() + 1000, 10s);
        server_.kill();
        std::this_thread::sleep_for(outage);
        ASSERT_TRUE(server_.start());
    }
    finish(devices, false);
    EXPECT_EQ(devices.errorReplies(), 0) << devices.firstError();
    const std::string log = readFile(collector_.logs() / "NimbRemoteLogger.log");
    EXPECT_NE(log.find("Lost the bus connection of RemoteLogger; reconnecting"), std::string::npos);
    EXPECT_NE(log.find("Reconnected RemoteLogger to nats://127.0.0.1:"), std::string::npos) << log;
}

// The logs folder fills up: texts are answered with errors naming the file, nothing
// acknowledged is lost, no piece of a line stays in a file, and service comes back as
// soon as there is space again.
TEST_F(RemoteLoggerAckTest, FullDiskAnswersWithErrorsAndLosesNothing) {
    // The helper mounts the small disk inside a mount namespace of its own (through a
    // user namespace unless it runs as root), so nothing stays mounted when it ends, and
    // the collector it starts inherits the namespace.
    const char* const unshare = "/usr/bin/unshare";
    if (::access(unshare, X_OK) != 0) GTEST_SKIP() << unshare << " is missing (util-linux)";
    nimbtest::ChildResult result;
    std::string reasons;
    for (const char* options : {"-rm", "-m"}) {
        result = nimbtest::runChild({unshare, options, COLLECTOR_FULL_DISK,
                                     (root_.path() / (options + 1)).string(), server_.host()},
                                    {}, root_.path() / "fulldisk.txt", true, 150s);
        if (result.exitCode() != 77) break;
        reasons += std::string("unshare ") + options + ": " + result.output;
    }
    if (result.exitCode() == 77) GTEST_SKIP() << "no small file system here: " << reasons;
    EXPECT_EQ(result.exitCode(), 0) << result.output;
}

}  // namespace
