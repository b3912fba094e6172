// SPDX-License-Identifier: MIT
// Texts queued with a completion: when it is called, on which thread, with what outcome,
// and what the file holds at that moment.
#include <cerrno>
#include <csignal>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CBBLog.h"
#include "LogTestSupport.h"
#include <sys/resource.h>

namespace {

using logtest::LogTest;
using logtest::readFile;
using logtest::waitUntil;

// One completion as it was called.
struct Outcome {
    int error = -1;
    std::string message;
    bool onCaller = false;
    std::string fileThen;  // the log's content when the completion ran
};

// Collects completions from any thread.
class Outcomes {
public:
    CBBLog::WriteDone add(const std::string& fileToRead = std::string()) {
        std::lock_guard<std::mutex> lock(mutex_);
        const size_t slot = outcomes_.size();
        outcomes_.emplace_back();
        const std::thread::id caller = std::this_thread::get_id();
        return [this, slot, caller, fileToRead](int error, const CStdStr& message) {
            const std::string content = fileToRead.empty() ? "" : readFile(fileToRead);
            std::lock_guard<std::mutex> held(mutex_);
            Outcome& outcome = outcomes_[slot];
            ++calls_[slot];
            outcome = {error, message, std::this_thread::get_id() == caller, content};
        };
    }
    bool allCalled() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < outcomes_.size(); ++i) {
            if (calls_.count(i) == 0) return false;
        }
        return true;
    }
    std::vector<Outcome> get() {
        std::lock_guard<std::mutex> lock(mutex_);
        return outcomes_;
    }
    int callsOf(size_t slot) {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_.count(slot) != 0 ? calls_[slot] : 0;
    }

private:
    std::mutex mutex_;
    std::vector<Outcome> outcomes_;
    std::map<size_t, int> calls_;
};

// A logger whose writer can be stopped while the logger lives on.
class StoppableLog : public CBBLog {
public:
    using CBBLog::CBBLog;
    ~StoppableLog() override { stopWriter(); }
    using CBBLog::stopWriter;
};

TEST_F(LogTest, CompletionRunsOnTheWriterOnceTheTextIsInTheFile) {
    const std::string path = logFile("done.log");
    Outcomes outcomes;
    {
        CBBLog log("done.log", false, 1 << 20);
        log.AddRawLog("one\n", outcomes.add(path));
        log.AddLog(ERROR, "plain line");
        for (int i = 0; i < 200; ++i) {
            log.AddRawLog("text " + std::to_string(i) + "\n", outcomes.add(path));
        }
        ASSERT_TRUE(waitUntil([&] { return outcomes.allCalled(); }));
    }
    const std::vector<Outcome> got = outcomes.get();
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].error, 0) << i;
        EXPECT_EQ(got[i].message, "") << i;
        EXPECT_FALSE(got[i].onCaller) << i;
        EXPECT_EQ(outcomes.callsOf(i), 1) << i;
    }
    EXPECT_EQ(got[0].fileThen.substr(0, 4), "one\n");
    for (size_t i = 1; i < got.size(); ++i) {
        const std::string text = "text " + std::to_string(i - 1) + "\n";
        EXPECT_NE(got[i].fileThen.find(text), std::string::npos) << text;
    }
}

TEST_F(LogTest, CompletionReportsAtOnceWhatTheLoggerCannotTake) {
    Outcomes outcomes;
    {
        StoppableLog log("stopped.log", false, 1 << 20);
        log.AddRawLog("before\n", outcomes.add());
        log.stopWriter();
        log.AddRawLog("after\n", outcomes.add());
        const std::vector<Outcome> got = outcomes.get();
        EXPECT_EQ(got[0].error, 0);
        EXPECT_EQ(got[1].error, ECANCELED);
        EXPECT_TRUE(got[1].onCaller);
        EXPECT_EQ(got[1].message,
                  "cannot write '" + logFile("stopped.log") + "': the logger has stopped");
    }
    EXPECT_EQ(readFile(logFile("stopped.log")), "before\n");

    // A logs folder that cannot be created: the open failed, the text is refused.
    const std::string blocker = root() + "/blocker";
    logtest::writeFile(blocker, "a file where the folder should be");
    writeLogsDirSetting(blocker);
    CBBLog lost("lost.log", false, 1 << 20);
    lost.AddRawLog("never\n", outcomes.add());
    ASSERT_TRUE(waitUntil([&] { return outcomes.allCalled(); }));
    const Outcome got = outcomes.get().back();
    EXPECT_EQ(got.error, ENOTDIR);
    EXPECT_FALSE(got.onCaller);  // the writer thread opens the file, never the caller
    EXPECT_EQ(got.message, "cannot open '" + blocker + "/lost.log': Not a directory");
}

// Restores the file size limit and SIGXFSZ's handling at the end of scope.
class ScopedFileSizeLimit {
public:
    explicit ScopedFileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &saved_);
        savedHandler_ = signal(SIGXFSZ, SIG_IGN);
        set(bytes);
    }
    ~ScopedFileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &saved_);
        signal(SIGXFSZ, savedHandler_);
        clearerr(stdout);  // the echo may have met the limit too
    }
    void set(rlim_t bytes) {
        rlimit limit = saved_;
        limit.rlim_cur = bytes;
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }

private:
    rlimit saved_{};
    void (*savedHandler_)(int) = SIG_DFL;
};

TEST_F(LogTest, TextThatMeetsAFileLimitFailsWholeAndWritingResumesAfterIt) {
    const std::string path = logFile("limit.log");
    const std::string line(99, 'x');
    Outcomes outcomes;
    CBBLog log("limit.log", false, 1 << 20);
    log.AddRawLog("first\n", outcomes.add());
    ASSERT_TRUE(waitUntil([&] { return outcomes.allCalled(); }));
    {
        // Room for the first line and 3.5 lines of 100 bytes.
        ScopedFileSizeLimit limit(6 + 350);
        for (int i = 0; i < 6; ++i) log.AddRawLog(line + "\n", outcomes.add());
        ASSERT_TRUE(waitUntil([&] { return outcomes.allCalled(); }));
        std::string expected = "first\n";
        for (int i = 0; i < 3; ++i) expected += line + "\n";
        EXPECT_EQ(readFile(path), expected);
    }
    const std::vector<Outcome> got = outcomes.get();
    for (size_t i = 1; i <= 3; ++i) EXPECT_EQ(got[i].error, 0) << i;
    for (size_t i = 4; i <= 6; ++i) {
        EXPECT_EQ(got[i].error, EFBIG) << i;
        EXPECT_EQ(got[i].message, "cannot write '" + path + "': File too large");
    }
    // Nothing of the failed texts stays; the next text goes on from the last whole line.
    log.AddRawLog("after\n", outcomes.add());
    ASSERT_TRUE(waitUntil([&] { return outcomes.allCalled(); }));
    EXPECT_EQ(outcomes.get().back().error, 0);
    EXPECT_EQ(readFile(path).size(), 6 + 300 + 6u);
    EXPECT_EQ(readFile(path).substr(306), "after\n");
}

}  // namespace
