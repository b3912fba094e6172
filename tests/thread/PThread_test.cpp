// SPDX-License-Identifier: MIT
#include "PThread.h"

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "NimbTestSupport.h"
#include "PCondMutex.h"

namespace {

// Counts live delegates, so that tests can see when the thread's copy is freed.
std::atomic<int> g_liveDelegates{0};

class CountingDelegate : public PThreadDelegateGeneric {
public:
    explicit CountingDelegate(std::atomic<bool>* release, std::atomic<bool>* ran)
        : release_(release), ran_(ran) {
        ++g_liveDelegates;
    }
    ~CountingDelegate() override { --g_liveDelegates; }
    void* Invoke(void*) override {
        ran_->store(true);
        for (int i = 0; i < 5000 && !release_->load(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return nullptr;
    }
    PThreadDelegateGeneric* clone() const override { return new CountingDelegate(release_, ran_); }

private:
    std::atomic<bool>* release_;
    std::atomic<bool>* ran_;
};

struct Target {
    std::atomic<int> calls{0};
    void* arg = nullptr;
    virtual ~Target() = default;
    virtual void* run(void* a) {
        arg = a;
        ++calls;
        return this;
    }
};
struct DerivedTarget : Target {
    void* run(void* a) override {
        calls += 10;
        arg = a;
        return nullptr;
    }
};

}  // namespace

// The real start routine behind delayedCreate, and whether the new thread reached it.
void* (*g_realStart)(void*) = nullptr;
std::atomic<bool> g_reachedStart{false};

// Lets the new thread sleep before it runs the start routine, so that a constructor
// that returned without waiting for the thread to begin would be caught.
void* delayedStart(void* arg) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    g_reachedStart = true;
    return g_realStart(arg);
}

int delayedCreate(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg) {
    g_realStart = start;
    return pthread_create(thread, attr, &delayedStart, arg);
}

TEST(PThread, ConstructorWaitsForASlowStartingThread) {
    PThread::setCreateFunctionForTesting(&delayedCreate);
    std::atomic<bool> release{true}, ran{false};
    {
        PThread thread(CountingDelegate(&release, &ran), nullptr, "nimb-test");
        EXPECT_TRUE(g_reachedStart.load());
        thread.join();
    }
    PThread::setCreateFunctionForTesting(nullptr);
    EXPECT_TRUE(ran.load());
    EXPECT_EQ(g_liveDelegates.load(), 0);
}

// join() and detach() on a thread that has already ended return and release it.
TEST(PThread, JoinAndDetachAfterTheThreadEnded) {
    for (const bool joining : {true, false}) {
        std::atomic<bool> release{true}, ran{false};
        PThread thread(CountingDelegate(&release, &ran), nullptr);
        // The thread's copy of the delegate goes when the thread ends.
        ASSERT_TRUE(nimbtest::waitUntil([] { return g_liveDelegates.load() == 0; }));
        if (joining) {
            thread.join();
        } else {
            thread.detach();
        }
        EXPECT_TRUE(thread.isReleased());
        EXPECT_TRUE(ran.load());
    }
}

TEST(PThread, DestroyingAJoinableThreadLeavesItRunningAndFreesItsDelegateAtTheEnd) {
    std::atomic<bool> release{false}, ran{false};
    { PThread thread(CountingDelegate(&release, &ran), nullptr); }
    // The object is gone; the thread still runs with its own copy of the delegate.
    EXPECT_TRUE(nimbtest::waitUntil([&] { return ran.load(); }));
    EXPECT_EQ(g_liveDelegates.load(), 1);
    release = true;
    EXPECT_TRUE(nimbtest::waitUntil([] { return g_liveDelegates.load() == 0; }));
}

TEST(PThread, MemberAndFunctionDelegatesRunWithTheArgument) {
    DerivedTarget target;
    int value = 7;
    PThread member(PThreadDelegateMember<Target>(&target, &Target::run), &value);
    member.join();
    EXPECT_EQ(target.calls.load(), 10);  // dispatched virtually
    EXPECT_EQ(target.arg, &value);

    static std::atomic<void*> seen{nullptr};
    PThread function(PThreadDelegateFunction([](void* arg) -> void* { return seen = arg; }),
                     &value);
    function.join();
    EXPECT_EQ(seen.load(), &value);
}

TEST(PThread, CreateFailureThrowsWithTheCodeAndStartsNothing) {
    PThread::setCreateFunctionForTesting(
        [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return 11; });
    std::atomic<bool> release{true}, ran{false};
    try {
        PThread thread(CountingDelegate(&release, &ran), nullptr);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Failed to create thread: 11");
    }
    PThread::setCreateFunctionForTesting(nullptr);
    EXPECT_FALSE(ran.load());
    EXPECT_EQ(g_liveDelegates.load(), 0);
}

TEST(PCondMutex, BroadcastWakesEveryWaiter) {
    PCondMutex cond;
    bool go = false;
    std::atomic<int> woken{0};
    auto waiter = [&] {
        PMutexLocker lock(cond);
        while (!go) cond.wait();
        ++woken;
    };
    std::thread a(waiter), b(waiter);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    {
        PMutexLocker lock(cond);
        go = true;
        cond.broadcast();
    }
    a.join();
    b.join();
    EXPECT_EQ(woken.load(), 2);
}

// The timed wait returns false once its deadline passed, and true (early) when woken.
TEST(PCondMutex, TimedWaitEndsAtTheDeadlineOrWhenWoken) {
    using Clock = std::chrono::steady_clock;
    PCondMutex cond;
    {
        PMutexLocker lock(cond);
        const auto deadline = Clock::now() + std::chrono::milliseconds(30);
        EXPECT_FALSE(cond.waitUntil(deadline));
        EXPECT_GE(Clock::now(), deadline);
        EXPECT_FALSE(cond.waitUntil(Clock::now() - std::chrono::seconds(1)));
    }
    bool go = false;
    bool woken = false;
    std::thread waiter([&] {
        PMutexLocker lock(cond);
        const auto deadline = Clock::now() + std::chrono::seconds(30);
        while (!go && cond.waitUntil(deadline)) {
        }
        woken = go;
    });
    {
        PMutexLocker lock(cond);
        go = true;
        cond.broadcast();
    }
    waiter.join();
    EXPECT_TRUE(woken);
}
