// SPDX-License-Identifier: MIT
#include "CBBLog.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include <boost/format.hpp>
#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include "LogFileIo.h"
#include "LogTestSupport.h"

namespace {

using namespace std::chrono_literals;
using logtest::linesOf;
using logtest::LogTest;
using logtest::readFile;
using logtest::waitUntil;

const char* const kHeader = R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} )";
constexpr long long kSystemLimit = 524288;

// Whether `line` is a time header followed by text matching `rest`.
testing::AssertionResult headed(const std::string& line, const std::string& rest) {
    if (std::regex_match(line, std::regex(kHeader + rest))) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "line: " << line;
}

// The number of this process's threads named `name`.
int countThreads(const char* name) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        count += readFile(entry.path().string() + "/comm") == name + std::string("\n");
    }
    return count;
}

// A logger that keeps its lines instead of writing them, and notes whether its writer
// thread could take a signal on an alternate stack.
class CapturingLog : public CBBLog {
public:
    CapturingLog() : CBBLog("capture.log", false, kSystemLimit) {}
    ~CapturingLog() override { stopWriter(); }

    bool writerHadAltStack() const { return altStack_; }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }

protected:
    bool writesLineByLine() const override { return true; }
    void logLineToFile(const CStdStr& line) override {
        stack_t stack{};
        altStack_ = sigaltstack(nullptr, &stack) == 0 && (stack.ss_flags & SS_DISABLE) == 0;
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(line);
    }

private:
    std::atomic<bool> altStack_{false};
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

TEST_F(LogTest, UnusedLoggerCreatesNoFileAndNoThreadUntilItsFirstLine) {
    CBBLog unused("unused.log", false, kSystemLimit);
    EXPECT_FALSE(std::filesystem::exists(logsDir()));
    EXPECT_EQ(countThreads("nimb-log"), 0);
    CBBLog used("used.log", false, kSystemLimit);
    used.AddLog(ERROR, "first");
    EXPECT_EQ(countThreads("nimb-log"), 1);
    // The writer thread opens the files.
    EXPECT_TRUE(waitUntil([&] { return used.getFileSize() > 0; }));
    EXPECT_TRUE(std::filesystem::exists(logFile("errors.log")));
    // A write past the file size limit fails (EFBIG) instead of killing the process.
    struct sigaction fileSizeSignal {};
    ASSERT_EQ(sigaction(SIGXFSZ, nullptr, &fileSizeSignal), 0);
    EXPECT_EQ(fileSizeSignal.sa_handler, SIG_IGN);
}

TEST_F(LogTest, LevelSettingDecidesWhichLevelsAreWritten) {
    auto labelsWritten = [this](const std::string& name) {
        {
            CBBLog log(name, false, kSystemLimit);
            for (int level = FATAL; level <= DEBUG; ++level) {
                log.AddLog(static_cast<LOGLEVEL>(level), "message at level %d", level);
            }
        }
        std::string labels;
        for (const std::string& line : linesOf(readFile(logFile(name)))) {
            labels += line.substr(line.find('[') + 1, 5) + ";";
        }
        return labels;
    };
    EXPECT_EQ(labelsWritten("missing.log"), "FATAL;ERROR;");  // no setting: ERROR
    writeLevelSetting(DEBUG);
    EXPECT_EQ(labelsWritten("debug.log"), "FATAL;ERROR;WARN ;INFO ;DEBUG;");
}

TEST_F(LogTest, StaticFunctionsFollowTheDefaultLoggerWhileShortcutsNeedAKnownLevel) {
    writeLevelSetting(INFO);
    CBBLog::error("no default logger: nothing happens");
    boost::shared_ptr<CBBLog> log = boost::make_shared<CBBLog>("default.log", false, kSystemLimit);
    log->_error("instance before the level is known: dropped");
    EXPECT_EQ(log->getLogLevel(), CBBLog::kLevelUnset);

    CBBLog::setLogger(log);
    EXPECT_TRUE(CBBLog::isDebugEnabled());  // unset: the level is read on the first message
    CBBLog::info("static %d", 1);
    EXPECT_EQ(log->getLogLevel(), INFO);
    CBBLog::debug("static debug, above the level");
    log->_info("instance %s", "now");
    log->setLogLevel(WARN);
    EXPECT_TRUE(CBBLog::isWarnEnabled());
    EXPECT_FALSE(CBBLog::isInfoEnabled());
    CBBLog::warn(boost::format("%1% of %2%") % 3 % 4);
    log->setLogLevel(DEBUG);
    CBBLog::debug("retries: %d", 0);  // a literal 0 selects the va_list overload
    log->setLogLevel(WARN);
    CBBLog::info(boost::format("%1%") % "not written");
    log.reset();
    EXPECT_FALSE(CBBLog::isWarnEnabled());
    CBBLog::fatal("default logger destroyed: nothing happens");

    const std::vector<std::string> lines = linesOf(readFile(logFile("default.log")));
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_TRUE(headed(lines[0], R"(\[INFO \] - static 1)"));
    EXPECT_TRUE(headed(lines[1], R"(\[INFO \] - instance now)"));
    EXPECT_TRUE(headed(lines[2], R"(\[WARN \] - 3 of 4)"));
    EXPECT_TRUE(headed(lines[3], R"(\[DEBUG\] - retries: 0)"));
    EXPECT_EQ(readFile(logFile("errors.log")), "");
}

TEST_F(LogTest, FatalLineReachesErrorLogWithShortNameBeforeTheCallReturns) {
    boost::shared_ptr<CBBLog> module =
        boost::make_shared<CBBLog>("Nimb.Module.log", false, kSystemLimit);
    CBBLog::setLogger(module);
    CBBLog::fatal("disk %s", "gone");

    const std::string errors = readFile(logFile("errors.log"));
    EXPECT_TRUE(headed(errors, R"(\[FATAL\] - Nimb - disk gone\n)"));

    // A second logger shares the same errors.log.
    boost::shared_ptr<CBBLog> other = boost::make_shared<CBBLog>("Other.log", false, kSystemLimit);
    CBBLog::fatal(other, "%s", "second");
    const std::vector<std::string> lines = linesOf(readFile(logFile("errors.log")));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[1].find("[FATAL] - Other - second"), std::string::npos) << lines[1];

    module.reset();
    EXPECT_EQ(readFile(logFile("Nimb.Module.log")), errors);
}

TEST_F(LogTest, LineHeadersAndTextFollowTheFixedFormat) {
    writeLevelSetting(DEBUG);
    const std::string longText(30000, 'x');
    {
        CBBLog plain("plain.log", false, kSystemLimit);
        plain.AddLog("debug by default");
        plain.AddLog(INFO, "%s", longText.c_str());
        plain.AddRawLog("raw text without header");
        plain.AddRawLog(nullptr);
        plain.AddRawLog("\n");
        CBBLog withPid("pid.log", true, kSystemLimit);
        withPid.AddLog(WARN, "with pid");
    }
    const std::vector<std::string> lines = linesOf(readFile(logFile("plain.log")));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(headed(lines[0], R"(\[DEBUG\] - debug by default)"));
    // Text is cut to the format buffer less its terminating NUL; the line stays whole.
    EXPECT_TRUE(headed(lines[1], R"(\[INFO \] - x{20479})"));
    EXPECT_EQ(lines[2], "raw text without header");

    const std::string pidLine = readFile(logFile("pid.log"));
    EXPECT_TRUE(headed(pidLine, R"(\[WARN \] )" + std::to_string(getpid()) + " - with pid\n"));

    // Every line is echoed to standard output as it is queued.
    EXPECT_NE(capturedStdout().find("] - debug by default\n"), std::string::npos);
    EXPECT_TRUE(headed(CBBLog::getTimeString() + std::string(" "), ""));
}

TEST_F(LogTest, DerivedLoggerReceivesEveryLineOnAWriterWithAltSignalStack) {
    writeLevelSetting(DEBUG);
    auto log = boost::make_shared<CapturingLog>();
    log->AddLog(INFO, "one");
    log->AddRawLog("two\n");
    CBBLog::info(log, "three");
    ASSERT_TRUE(waitUntil([&] { return log->lines().size() == 3; }));
    const std::vector<std::string> lines = log->lines();
    EXPECT_TRUE(headed(lines[0], R"(\[INFO \] - one\n)"));
    EXPECT_EQ(lines[1], "two\n");
    EXPECT_TRUE(headed(lines[2], R"(\[INFO \] - three\n)"));
    EXPECT_EQ(log->getFileSize(), 0);  // redirected: nothing reached the file
    // A crash handler can run on the writer thread after a stack overflow.
    EXPECT_TRUE(log->writerHadAltStack());
}

// Holds the writer thread in its first open until released, so that the lines queued
// meanwhile reach it as one batch.
class GateIo : public LogFileIo {
public:
    std::atomic<bool> released{false};
    int open(const char* path, int flags, mode_t mode) override {
        for (int i = 0; i < 5000 && !released; ++i) std::this_thread::sleep_for(1ms);
        return LogFileIo::open(path, flags, mode);
    }
};

// A derived logger: every line goes through logLineToFile on its own.
class PerLineLog : public CBBLog {
public:
    using CBBLog::CBBLog;
    ~PerLineLog() override { stopWriter(); }

protected:
    bool writesLineByLine() const override { return true; }
    void logLineToFile(const CStdStr& line) override { CBBLog::logLineToFile(line); }
};

TEST_F(LogTest, RotationHappensOnTheByteTheFileReachesTheLimit) {
    auto line = [](char c) { return std::string(59, c) + "\n"; };  // 60 bytes
    const struct {
        long long limit;
        std::string back;
        std::string current;
    } cases[] = {
        // Exactly at the limit after two lines: the third starts a new file.
        {120, line('a') + line('b'), line('c') + line('d')},
        // One byte below it: the third line still fits, the fourth rotates.
        {121, line('a') + line('b') + line('c'), line('d')},
        // No limit at all: every line rotates, each replacing the backup.
        {0, line('c'), line('d')},
    };
    for (const auto& c : cases) {
        for (bool perLine : {false, true}) {
            const std::string name =
                "edge" + std::to_string(c.limit) + (perLine ? "-line" : "-batch") + ".log";
            SCOPED_TRACE(name);
            auto io = std::make_shared<GateIo>();
            {
                std::unique_ptr<CBBLog> log =
                    perLine ? std::make_unique<PerLineLog>(name, false, c.limit)
                            : std::make_unique<CBBLog>(name, false, c.limit);
                log->setFileIoForTesting(io);
                for (char tag : {'a', 'b', 'c', 'd'}) log->AddRawLog(line(tag).c_str());
                io->released = true;
            }
            EXPECT_EQ(readFile(logFile(name + ".back")), c.back);
            EXPECT_EQ(readFile(logFile(name)), c.current);
        }
    }
}

TEST_F(LogTest, DeletedTruncatedOrReplacedFileAndVanishedFolderAreFollowedByTheNextLine) {
    const std::string path = logFile("moved.log");
    {
        CBBLog log("moved.log", false, kSystemLimit);
        auto writeAndExpect = [&](const std::string& text, const std::string& file) {
            logtest::Outcome outcome;
            logtest::addAndWait(log, text, outcome);
            EXPECT_EQ(outcome.error, 0) << outcome.message;
            EXPECT_EQ(readFile(path), file);
        };
        writeAndExpect("first\n", "first\n");
        ASSERT_EQ(unlink(path.c_str()), 0);
        writeAndExpect("second\n", "second\n");
        ASSERT_EQ(truncate(path.c_str(), 0), 0);
        writeAndExpect("third\n", "third\n");
        std::filesystem::remove_all(logsDir());
        writeAndExpect("fourth\n", "fourth\n");

        // As another process rotates: the file moves away and a new one takes its place.
        ASSERT_EQ(rename(path.c_str(), (path + ".back").c_str()), 0);
        logtest::writeFile(path, "other process\n");
        log.AddRawLog("fifth\n");
    }
    EXPECT_EQ(readFile(path), "other process\nfifth\n");
    EXPECT_EQ(readFile(path + ".back"), "fourth\n");
}

TEST_F(LogTest, DestroyingRightAfterABurstWritesEveryLine) {
    constexpr int kThreads = 4;
    constexpr int kLinesPerThread = 5000;
    {
        CBBLog log("burst.log", false, 64 * 1024 * 1024);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&log, t] {
                for (int i = 0; i < kLinesPerThread; ++i) log.AddLog(ERROR, "t%d %05d", t, i);
            });
        }
        for (std::thread& thread : threads) thread.join();
    }
    int next[kThreads] = {};
    const std::regex line(std::string(kHeader) + R"(\[ERROR\] - t(\d) (\d{5}))");
    for (const std::string& text : linesOf(readFile(logFile("burst.log")))) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(text, match, line)) << text;
        const int t = std::stoi(match[1]);
        ASSERT_EQ(std::stoi(match[2]), next[t]) << "thread " << t;  // complete and in order
        ++next[t];
    }
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kLinesPerThread);
}

TEST_F(LogTest, OpenFailuresAreReportedAndAnErrorLogFailureLeavesTheMainLogWorking) {
    std::filesystem::create_directories(logFile("errors.log"));  // a folder in its place
    CBBLog("main.log", false, kSystemLimit).AddLog(FATAL, "still logged");
    EXPECT_NE(capturedStdout().find("Error: could not open error log file '" + logFile("main.log") +
                                    "': " + std::to_string(EISDIR) + "\n"),
              std::string::npos);
    EXPECT_TRUE(headed(readFile(logFile("main.log")), R"(\[FATAL\] - main - still logged\n)"));

    // A logs folder that cannot be created: both opens fail, each reported once.
    const size_t before = capturedStdout().size();
    const std::string blocker = root() + "/blocker";
    logtest::writeFile(blocker, "a file where the folder should be");
    writeLogsDirSetting(blocker);
    {
        CBBLog log("lost.log", false, kSystemLimit);
        log.AddLog(FATAL, "dropped");
        log.AddLog(ERROR, "dropped again");
        EXPECT_EQ(log.getFileSize(), -1);
    }
    // Both name the main log's path.
    const std::string path = blocker + "/lost.log";
    const std::string output = capturedStdout().substr(before);
    for (const std::string& message :
         {"Error: could not open log file '" + path + "': " + std::to_string(ENOTDIR) + "\n",
          "Error: could not open error log file '" + path + "': " + std::to_string(ENOTDIR) +
              "\n"}) {
        const size_t at = output.find(message);
        EXPECT_NE(at, std::string::npos) << message;
        EXPECT_EQ(output.find(message, at + 1), std::string::npos) << message;
    }
}

}  // namespace
