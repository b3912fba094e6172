// SPDX-License-Identifier: MIT
// A success reply means the text is in its file: simulated devices (8 devices x 5 logs,
// one request in flight per log) push numbered lines while the collector is killed,
// stopped by a signal, or loses its bus; every acknowledged line must then be found in
// its file, in order, whole.

#include <cerrno>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CollectorProcess.h"
#include "CrashTestSupport.h"
#include "DeviceSimulator.h"
#include "NatsServer.h"
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

using namespace crashtest;
using namespace std::chrono_literals;

std::string describe(const nimbtest::DeviceSimulator::Report& report) {
    std::string text = std::to_string(report.acknowledged) + " acknowledged, " +
                       std::to_string(report.lost) + " lost, " + std::to_string(report.outOfOrder) +
                       " out of order, " + std::to_string(report.duplicated) + " duplicated, " +
                       std::to_string(report.torn) + " torn";
    for (const std::string& problem : report.problems) text += "\n  " + problem;
    return text;
}

// Gives this (single-threaded) process a mount namespace of its own, through a user
// namespace unless it runs as root, and mounts a tmpfs of `bytes` at `folder`. Empty on
// success, else why it could not.
std::string mountSmallDisk(const fs::path& folder, std::size_t bytes) {
    const uid_t uid = ::geteuid();
    const gid_t gid = ::getegid();
    const auto failed = [](const std::string& what) { return what + ": " + std::strerror(errno); };
    if (uid != 0) {
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return failed("no user namespace");
        writeFile("/proc/self/setgroups", "deny");
        writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    } else if (::unshare(CLONE_NEWNS) != 0) {
        return failed("no mount namespace");
    }
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return failed("cannot make the mounts private");
    const std::string size = "size=" + std::to_string(bytes);
    if (::mount("tmpfs", folder.c_str(), "tmpfs", 0, size.c_str()) != 0)
        return failed("cannot mount a tmpfs");
    return {};
}

// Fills the file system of `file` up to `spare` free bytes.
void fillUpTo(const fs::path& file, std::size_t spare) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const std::vector<char> block(4096, 'f');
    off_t size = 0;
    for (int i = 0; i < 1 << 16; ++i, size += static_cast<off_t>(block.size())) {
        if (::write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) break;
    }
    (void)::ftruncate(fd, size > static_cast<off_t>(spare) ? size - static_cast<off_t>(spare) : 0);
    ::close(fd);
}

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
        EXPECT_TRUE(report.clean(tornAllowed)) << describe(report);
        EXPECT_EQ(report.acknowledged, devices.total());
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
    EXPECT_EQ(readFile(collector_.output()).find("no such service"), std::string::npos);
}

TEST_F(RemoteLoggerAckTest, BusRestartLosesNothingAndTheCollectorSaysItIsBack) {
    ASSERT_TRUE(collector_.start());
    nimbtest::DeviceSimulator devices(options(400));
    ASSERT_TRUE(devices.start());
    devices.waitForAcknowledged(2000, 10s);
    server_.stop();
    std::this_thread::sleep_for(1500ms);
    ASSERT_TRUE(server_.start());
    finish(devices, false);
    const std::string log = readFile(collector_.logs() / "NimbRemoteLogger.log");
    EXPECT_NE(log.find("Lost the bus connection of RemoteLogger; reconnecting"), std::string::npos);
    EXPECT_NE(log.find("Reconnected RemoteLogger to nats://127.0.0.1:"), std::string::npos) << log;
}

// Runs in a child process, which mounts the small disk in a namespace of its own (the
// collector it starts inherits it); returns the failures found, or "skip: <why>".
std::vector<std::string> fullDiskScenario(CollectorProcess& collector, const std::string& host,
                                          const fs::path& disk) {
    const std::string why = mountSmallDisk(disk, 1024 * 1024);
    if (!why.empty()) return {"skip: " + why};
    fillUpTo(disk / "filler", 96 * 1024);
    collector.setLogsFolder(disk);
    std::vector<std::string> failures;
    const auto expect = [&](bool condition, const std::string& what) {
        if (!condition) failures.push_back(what);
    };
    if (!collector.start()) return {"collector did not start"};
    nimbtest::DeviceSimulator::Options options;
    options.host = host;
    options.linesPerLog = 400;  // about 700 KB in all, far more than the free space
    nimbtest::DeviceSimulator devices(options);
    expect(devices.start(), "devices did not connect");
    expect(nimbtest::waitUntil([&] { return devices.errorReplies() > 40; }, 30s),
           "no error replies while the disk was full");
    const std::string error = devices.firstError();
    expect(error.find("AppendLog: cannot write '" + disk.string() + "/") == 0 &&
               error.find("': No space left on device") != std::string::npos,
           "error reply: " + error);
    std::this_thread::sleep_for(300ms);
    const long before = devices.acknowledged();
    fs::remove(disk / "filler");
    const auto freed = std::chrono::steady_clock::now();
    expect(devices.waitForAcknowledged(before + 40, 2s), "service not back within 2 s");
    const auto back = std::chrono::steady_clock::now() - freed;
    expect(devices.waitUntilDone(60s), "not every line was acknowledged");
    devices.stop();
    expect(collector.stop(SIGTERM) == 0, "the collector did not exit with 0");
    const nimbtest::DeviceSimulator::Report report = devices.check(disk);
    expect(report.clean() && report.acknowledged == devices.total(), describe(report));
    std::fprintf(stderr, "full disk: %ld error replies, back %lld ms after space returned\n",
                 devices.errorReplies(),
                 static_cast<long long>(
                     std::chrono::duration_cast<std::chrono::milliseconds>(back).count()));
    return failures;
}

// The logs folder fills up: texts are answered with errors naming the file, nothing
// acknowledged is lost, no piece of a line stays in a file, and service comes back as
// soon as there is space again.
TEST_F(RemoteLoggerAckTest, FullDiskAnswersWithErrorsAndLosesNothing) {
    const fs::path disk = root_.path() / "disk";
    fs::create_directories(disk);
    const fs::path verdict = root_.path() / "verdict.txt";
    const pid_t child = ::fork();
    if (child == 0) {
        std::string text;
        for (const std::string& failure : fullDiskScenario(collector_, server_.host(), disk))
            text += failure + "\n";
        if (collector_.running()) collector_.stop(SIGKILL);
        writeFile(verdict, text);
        ::_exit(0);
    }
    ASSERT_GT(child, 0);
    const ChildResult result =
        waitChild(child, root_.path() / "unused.txt", std::chrono::seconds(120));
    ASSERT_TRUE(result.finished && result.exitCode() == 0);
    const std::string text = readFile(verdict);
    if (text.rfind("skip: ", 0) == 0) GTEST_SKIP() << "no small file system: " << text;
    EXPECT_EQ(text, "");
}

}  // namespace
