// SPDX-License-Identifier: MIT
// Texts queued with a completion: when it is called, on which thread, with what outcome,
// and what the file holds at that moment.
#include <cerrno>
#include <deque>
#include <string>

#include <gtest/gtest.h>

#include "CBBLog.h"
#include "LogTestSupport.h"

namespace {

using logtest::addAndWait;
using logtest::addRaw;
using logtest::LogTest;
using logtest::Outcome;
using logtest::readFile;
using logtest::waitUntil;

// A logger whose writer can be stopped while the logger lives on.
class StoppableLog : public CBBLog {
public:
    using CBBLog::CBBLog;
    ~StoppableLog() override { stopWriter(); }
    using CBBLog::stopWriter;
};

TEST_F(LogTest, CompletionRunsOnceOnTheWriterAfterTheTextIsInTheFile) {
    const std::string path = logFile("done.log");
    constexpr int kTexts = 200;
    std::deque<Outcome> outcomes(kTexts);
    std::deque<std::string> fileThen(kTexts);
    CBBLog log("done.log", false, 1 << 20);
    for (int i = 0; i < kTexts; ++i) {
        if (i == kTexts / 2) log.AddLog(ERROR, "a plain line between them");
        const std::string text = "text " + std::to_string(i) + "\n";
        log.AddRawLog(text, [&, i](int error, const CStdStr&) {
            fileThen[i] = error == 0 ? readFile(path) : "failed";
            outcomes[i].calls.fetch_add(1);
        });
    }
    ASSERT_TRUE(waitUntil([&] { return outcomes.back().calls.load() > 0; }));
    for (int i = 0; i < kTexts; ++i) {
        // Completions come in queue order, each after its text reached the file.
        ASSERT_EQ(outcomes[i].calls.load(), 1) << i;
        EXPECT_NE(fileThen[i].find("text " + std::to_string(i) + "\n"), std::string::npos) << i;
    }
    Outcome one;
    addAndWait(log, "one more\n", one);
    EXPECT_EQ(one.error, 0);
    EXPECT_EQ(one.message, "");
    EXPECT_FALSE(one.onCaller);
}

TEST_F(LogTest, CompletionReportsAtOnceWhatAStoppedLoggerCannotTake) {
    StoppableLog log("stopped.log", false, 1 << 20);
    Outcome before;
    addAndWait(log, "before\n", before);
    log.stopWriter();
    Outcome after;
    addRaw(log, "after\n", after);
    EXPECT_EQ(before.error, 0);
    ASSERT_EQ(after.calls.load(), 1);  // already called when AddRawLog returned
    EXPECT_EQ(after.error, ECANCELED);
    EXPECT_TRUE(after.onCaller);
    EXPECT_EQ(after.message,
              "cannot write '" + logFile("stopped.log") + "': the logger has stopped");
    EXPECT_EQ(readFile(logFile("stopped.log")), "before\n");
}

TEST_F(LogTest, CompletionOfATextForAFileThatCannotBeOpenedComesFromTheWriter) {
    const std::string blocker = root() + "/blocker";
    logtest::writeFile(blocker, "a file where the folder should be");
    writeLogsDirSetting(blocker);
    CBBLog lost("lost.log", false, 1 << 20);
    Outcome outcome;
    addAndWait(lost, "never\n", outcome);
    EXPECT_EQ(outcome.error, ENOTDIR);
    EXPECT_FALSE(outcome.onCaller);  // the writer thread opens the file, never the caller
    EXPECT_EQ(outcome.message, "cannot open '" + blocker + "/lost.log': Not a directory");
}

}  // namespace
