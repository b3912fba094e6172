// SPDX-License-Identifier: MIT
// The shared device-log writer: order per log across handles and threads, rotation by
// the suite's file rules, the bounded file cache (with the same checks on every reopen),
// failures told to each text's listener with nothing torn left behind, a fixed number of
// threads however many logs there are, and refusal after the writer stopped.

#include "DeviceLogWriter.h"

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "CBBLog.h"
#include "NimbTestSupport.h"

namespace {

namespace fs = std::filesystem;
using nimbtest::linesOf;
using nimbtest::readFile;

// Counts the outcomes it is told; the first failure's text is kept.
class Tally : public LogWriteListener {
public:
    void writeDone(int error, const CStdStr& message) override {
        std::lock_guard<std::mutex> lock(mutex_);
        (error == 0 ? ok : failed)++;
        if (error != 0 && firstError == 0) {
            firstError = error;
            firstMessage = message;
        }
    }
    std::mutex mutex_;
    int ok = 0;
    int failed = 0;
    int firstError = 0;
    std::string firstMessage;
};

// Passes every call to the kernel; writev fails with ENOSPC once `room` bytes were written.
class FullDiskIo : public LogFileIo {
public:
    explicit FullDiskIo(long long room) : room_(room) {}
    ssize_t writev(int fd, const iovec* parts, int count) override {
        std::size_t wanted = 0;
        for (int i = 0; i < count; ++i) wanted += parts[i].iov_len;
        if (room_ <= 0) {
            errno = ENOSPC;
            return -1;
        }
        // A short write first, as a filling disk gives, then the refusal.
        const std::size_t allowed = std::min<std::size_t>(wanted, static_cast<std::size_t>(room_));
        std::vector<iovec> cut;
        std::size_t left = allowed;
        for (int i = 0; i < count && left > 0; ++i) {
            cut.push_back({parts[i].iov_base, std::min(left, parts[i].iov_len)});
            left -= cut.back().iov_len;
        }
        const ssize_t n = ::writev(fd, cut.data(), static_cast<int>(cut.size()));
        if (n > 0) room_ -= n;
        return n;
    }

private:
    std::atomic<long long> room_;
};

std::size_t countEntries(const char* folder) {
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator(folder)) {
        (void)entry;
        ++count;
    }
    return count;
}

class DeviceLogWriterTest : public ::testing::Test {
protected:
    DeviceLogWriter::Options options(long long rotateSize = 1 << 20) const {
        DeviceLogWriter::Options result;
        result.logsDir = (root() / "logs").string();
        result.rotateSize = rotateSize;
        result.threads = 2;
        return result;
    }
    fs::path root() const { return fs::path(dir_.path()); }
    std::string file(const std::string& name) const { return readFile(root() / "logs" / name); }

    nimbtest::TempDir dir_;
};

TEST_F(DeviceLogWriterTest, EachLogKeepsItsOrderAcrossHandlesAndThreads) {
    DeviceLogWriter writer(options());
    auto tally = std::make_shared<Tally>();
    constexpr int kThreads = 4;
    constexpr int kLines = 500;
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&, t] {
            // Two handles on one log: an old one and the one that replaces it.
            const auto first = writer.open("log" + std::to_string(t % 2));
            const auto second = writer.open("log" + std::to_string(t % 2));
            for (int i = 0; i < kLines; ++i) {
                const auto& handle = i < kLines / 2 ? first : second;
                ASSERT_TRUE(handle->append("t" + std::to_string(t) + " " + std::to_string(i) + "\n",
                                           tally));
            }
        });
    }
    for (std::thread& producer : producers) producer.join();
    writer.drain();
    EXPECT_EQ(tally->ok, kThreads * kLines);
    EXPECT_EQ(tally->failed, 0);
    for (int log = 0; log < 2; ++log) {
        std::vector<int> next(kThreads, 0);
        for (const std::string& line : linesOf(file("log" + std::to_string(log)))) {
            const int t = std::stoi(line.substr(1));
            EXPECT_EQ(t % 2, log);
            EXPECT_EQ(std::stoi(line.substr(line.find(' ') + 1)), next[t]++) << line;
        }
        for (int t = log; t < kThreads; t += 2) EXPECT_EQ(next[t], kLines);
    }
    // The handles are gone: nothing of the logs is kept.
    EXPECT_EQ(writer.stats().logs, 0u);
    EXPECT_EQ(writer.stats().openFiles, 0u);
}

// The size is checked before each text: a text goes into the current file while the file
// is below the limit, and the one after the limit was reached starts a new file; one
// ".back" generation is kept.
TEST_F(DeviceLogWriterTest, RotatesBeforeTheTextThatFindsTheFileAtItsLimit) {
    DeviceLogWriter writer(options(100));
    const auto log = writer.open("dev-a");
    const std::string text(30, 'x');
    for (int i = 0; i < 12; ++i) {
        ASSERT_TRUE(log->append(std::to_string(i % 10) + text.substr(1) + "\n", nullptr));
        if (i % 3 == 0) writer.drain();  // batches of different shapes
    }
    writer.drain();
    // Four texts (0, 30, 60 and 90 bytes before them) per file: 0-3, 4-7 (.back), 8-11.
    const std::string current = file("dev-a");
    const std::string back = file("dev-a.back");
    ASSERT_EQ(current.size(), 4u * 31);
    ASSERT_EQ(back.size(), 4u * 31);
    EXPECT_EQ(back[0], '4');
    EXPECT_EQ(current[0], '8');
    EXPECT_EQ(countEntries((root() / "logs").c_str()), 2u);
}

// A file the cache closed between two texts is checked for its size just the same.
TEST_F(DeviceLogWriterTest, FilesTheCacheClosedAreRotatedAtTheLimitToo) {
    DeviceLogWriter::Options bounded = options(100);
    bounded.maxOpenFiles = 1;
    DeviceLogWriter writer(bounded);
    const auto first = writer.open("dev-c");
    const auto second = writer.open("dev-d");
    for (int i = 0; i < 12; ++i) {
        for (const auto& log : {first, second}) {
            ASSERT_TRUE(log->append(std::to_string(i % 10) + std::string(29, 'x') + "\n", nullptr));
            writer.drain();  // the other log's text closes this one's file
        }
    }
    EXPECT_GT(writer.stats().reopened, 10u);
    for (const char* name : {"dev-c", "dev-d"}) {
        EXPECT_EQ(file(name).size(), 4u * 31) << name;
        EXPECT_EQ(file(std::string(name) + ".back").size(), 4u * 31) << name;
    }
}

TEST_F(DeviceLogWriterTest, TheFileCacheClosesTheIdlestAndReopensWithTheSameChecks) {
    DeviceLogWriter::Options bounded = options();
    bounded.maxOpenFiles = 3;
    DeviceLogWriter writer(bounded);
    std::vector<std::shared_ptr<CBBLogSink>> logs;
    for (int i = 0; i < 40; ++i) logs.push_back(writer.open("dev-" + std::to_string(i)));
    auto tally = std::make_shared<Tally>();
    for (int round = 0; round < 3; ++round) {
        for (std::size_t i = 0; i < logs.size(); ++i) {
            ASSERT_TRUE(logs[i]->append("round " + std::to_string(round) + "\n", tally));
            writer.drain();
            // A few more than the bound at most while writers open files.
            EXPECT_LE(writer.stats().openFiles, 3u);
        }
    }
    EXPECT_EQ(tally->ok, 120);
    EXPECT_GT(writer.stats().reopened, 0u);
    EXPECT_EQ(writer.stats().threads, 2u);
    EXPECT_EQ(file("dev-7"), "round 0\nround 1\nround 2\n");
    // A link planted where a closed file was is never followed: the text fails and the
    // link's target stays untouched.
    const fs::path target = root() / "target";
    nimbtest::writeFile(target, "secret\n");
    fs::remove(root() / "logs" / "dev-0");
    fs::create_symlink(target, root() / "logs" / "dev-0");
    auto refused = std::make_shared<Tally>();
    ASSERT_TRUE(logs[0]->append("planted\n", refused));
    writer.drain();
    EXPECT_EQ(refused->failed, 1);
    EXPECT_EQ(refused->firstMessage, "cannot open '" + (root() / "logs" / "dev-0").string() +
                                         "': not a regular file (Too many levels of symbolic "
                                         "links)");
    EXPECT_EQ(readFile(target), "secret\n");
}

// A full disk: the texts that did not fit are told so, each with the file and the reason,
// and nothing of a text cut short stays in the file.
TEST_F(DeviceLogWriterTest, FailuresReachEachTextAndLeaveNothingTorn) {
    DeviceLogWriter::Options full = options();
    full.io = std::make_shared<FullDiskIo>(25);
    full.threads = 1;
    DeviceLogWriter writer(full);
    const auto log = writer.open("dev-full");
    auto tally = std::make_shared<Tally>();
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(log->append("line " + std::to_string(i) + "\n", tally));
    writer.drain();
    // 7 bytes each: three fit whole into 25 bytes, the fourth is cut off again.
    EXPECT_EQ(tally->ok, 3);
    EXPECT_EQ(tally->failed, 2);
    EXPECT_EQ(tally->firstError, ENOSPC);
    EXPECT_EQ(tally->firstMessage, "cannot write '" + (root() / "logs" / "dev-full").string() +
                                       "': No space left on device");
    EXPECT_EQ(file("dev-full"), "line 0\nline 1\nline 2\n");
}

// However many logs there are, the writer's threads stay the same few.
TEST_F(DeviceLogWriterTest, ThreadsDoNotGrowWithLogs) {
    const std::size_t before = countEntries("/proc/self/task");
    {
        DeviceLogWriter writer(options());
        std::vector<std::shared_ptr<CBBLogSink>> logs;
        for (int i = 0; i < 2000; ++i) {
            logs.push_back(writer.open("dev-" + std::to_string(i)));
            ASSERT_TRUE(logs.back()->append("x\n", nullptr));
        }
        writer.drain();
        EXPECT_EQ(countEntries("/proc/self/task"), before + 2);
        EXPECT_EQ(writer.stats().logs, 2000u);
        EXPECT_LE(writer.stats().openFiles, DeviceLogWriter::kDefaultMaxOpenFiles);
    }
    EXPECT_EQ(countEntries((root() / "logs").c_str()), 2000u);
}

// A logger that writes through the shared writer echoes and writes like any other;
// once the writer has stopped, its texts are refused with the reason.
TEST_F(DeviceLogWriterTest, LoggersWriteThroughItAndAreRefusedOnceItStopped) {
    auto writer = std::make_unique<DeviceLogWriter>(options());
    CBBLog log("dev-b", false, 1 << 20, writer->open("dev-b"));
    log.AddRawLog("first\n");
    std::atomic<int> error{-1};
    std::string message;
    log.AddRawLog("second\n", [&](int code, const CStdStr& text) {
        message = text;
        error = code;
    });
    writer->drain();
    EXPECT_EQ(error.load(), 0);
    EXPECT_EQ(file("dev-b"), "first\nsecond\n");
    EXPECT_EQ(log.getLogPath(), (root() / "logs" / "dev-b").string());
    writer.reset();
    log.AddRawLog("third\n", [&](int code, const CStdStr& text) {
        message = text;
        error = code;
    });
    EXPECT_EQ(error.load(), ECANCELED);
    EXPECT_EQ(message, "cannot write '" + (root() / "logs" / "dev-b").string() +
                           "': the logger has stopped");
    EXPECT_EQ(file("dev-b"), "first\nsecond\n");
}

}  // namespace
