// SPDX-License-Identifier: MIT
#include "AltSignalStack.h"

#include <csignal>
#include <thread>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "CBBLog.h"
#include "LogTestSupport.h"

namespace {

using logtest::LogTest;

bool threadHasAltStack() {
    stack_t current{};
    return sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0;
}

TEST(AltSignalStackTest, GivesAThreadAStackOnlyForItsLifetimeAndKeepsAnExistingOne) {
    std::thread([] {
        const bool hadOne = threadHasAltStack();  // sanitizer runtimes install their own
        {
            AltSignalStack stack;
            EXPECT_NE(stack.isInstalled(), hadOne);
            EXPECT_TRUE(threadHasAltStack());
            AltSignalStack nested;
            EXPECT_FALSE(nested.isInstalled());
        }
        EXPECT_EQ(threadHasAltStack(), hadOne);
    }).join();
}

// Records whether the writer thread can take a signal on an alternate stack.
class StackProbeLog : public CBBLog {
public:
    StackProbeLog() : CBBLog("probe.log", false, 0) {}
    ~StackProbeLog() override { stopWriter(); }
    std::atomic<int> sawAltStack{-1};

protected:
    void logLineToFile(const CStdStr&) override { sawAltStack = threadHasAltStack() ? 1 : 0; }
};

TEST_F(LogTest, WriterThreadRunsWithAnAlternateSignalStack) {
    auto log = boost::make_shared<StackProbeLog>();
    log->AddRawLog("probe\n");
    ASSERT_TRUE(logtest::waitUntil([&] { return log->sawAltStack != -1; }));
    EXPECT_EQ(log->sawAltStack, 1);
}

}  // namespace
