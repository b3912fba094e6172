// SPDX-License-Identifier: MIT
#include "KibReplyBatch.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "KibConnectOptions.h"
#include "KibDeferredReply.h"
#include "KibSatellite.h"
#include "NatsServer.h"
#include "NimbTestSupport.h"
#include "TestValues.h"

using namespace testvalues;
using namespace std::chrono_literals;

namespace {

using Numbered = std::pair<int, KibDeferredReply>;

// A satellite whose service defers every reply to the test, with the request's number.
class DeferringSatellite : public KibSatellite {
public:
    explicit DeferringSatellite(bool batchReplies) {
        KibConnectOptions options;
        options.batchReplies = batchReplies;
        setConnectOptions(options);
    }
    ~DeferringSatellite() override { Disconnect(); }

    int CreateServices() override {
        using Member = KibSatelliteDelegateMember<DeferringSatellite>;
        return AddService("Later", "", new Member(this, &DeferringSatellite::later));
    }

    int later(const char*, const tagVARIANT& in, tagVARIANT*) {
        const std::lock_guard<std::mutex> lock(mutex_);
        pending_.emplace_back(in.lVal, DeferReply());
        return 0;
    }

    // Waits (boundedly) for `count` deferred replies and takes them.
    std::vector<Numbered> take(std::size_t count) {
        std::vector<Numbered> taken;
        nimbtest::waitUntil([&] {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (pending_.size() < count) return false;
            taken.swap(pending_);
            return true;
        });
        return taken;
    }

private:
    std::mutex mutex_;
    std::vector<Numbered> pending_;
};

// Callers on threads of their own, caller i asking `server`'s service with number i.
class Callers {
public:
    Callers(KibSatellite& client, const char* server, int count, int timeoutMs = 5000)
        : replies_(count), finished_(new std::atomic<bool>[count]) {
        for (int i = 0; i < count; ++i) {
            finished_[i] = false;
            threads_.emplace_back([&client, server, timeoutMs, this, i] {
                client.Call(server, "Later", i4(i).get(), &replies_[i], timeoutMs);
                finished_[i] = true;
            });
        }
    }
    Callers(const Callers&) = delete;
    Callers& operator=(const Callers&) = delete;
    ~Callers() { join(); }

    bool finished(int i) const { return finished_[i]; }
    int finishedCount() const {
        int count = 0;
        for (std::size_t i = 0; i < replies_.size(); ++i) count += finished_[i] ? 1 : 0;
        return count;
    }
    bool allFinished() const { return finishedCount() == static_cast<int>(replies_.size()); }
    void join() {
        for (std::thread& thread : threads_) {
            if (thread.joinable()) thread.join();
        }
    }
    // After join(): caller i got the answer its own request was given.
    testing::AssertionResult answered(int i) const {
        const KibReply& reply = replies_[i];
        if (reply.failed() || reply.status != i || reply.value.vt() != VT_I4 ||
            reply.value.get().lVal != i) {
            return testing::AssertionFailure()
                   << "caller " << i << " got status " << reply.status << ": " << reply.errorText;
        }
        return testing::AssertionSuccess();
    }

private:
    std::vector<KibReply> replies_;
    std::unique_ptr<std::atomic<bool>[]> finished_;
    std::vector<std::thread> threads_;
};

bool complete(Numbered& numbered) {
    const KibVariantHolder value = i4(numbered.first);
    return numbered.second.succeed(numbered.first, &value.get());
}

class KibReplyBatchTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(batching_.Connect(nats_.host().c_str(), "Batching"), KIB_OK);
        ASSERT_EQ(plain_.Connect(nats_.host().c_str(), "Plain"), KIB_OK);
        ASSERT_EQ(client_.Connect(nats_.host().c_str(), "Client"), KIB_OK);
    }

    NatsServer nats_;
    DeferringSatellite batching_{true};
    DeferringSatellite plain_{false};
    KibSatellite client_;
};

}  // namespace

// Nested batches end with the outermost; until then nothing leaves, and then every
// requester gets its own reply. Without a reply connection a batch changes nothing.
TEST_F(KibReplyBatchTest, RepliesLeaveTogetherWhenTheOutermostBatchEnds) {
    constexpr int kCount = 16;
    Callers callers(client_, "Batching", kCount);
    std::vector<Numbered> taken = batching_.take(kCount);
    ASSERT_EQ(taken.size(), static_cast<std::size_t>(kCount));
    bool heldBack = false;
    std::thread writer([&] {
        const KibReplyBatch outer;
        {
            const KibReplyBatch inner;
            for (Numbered& numbered : taken) EXPECT_TRUE(complete(numbered));
        }
        std::this_thread::sleep_for(100ms);
        heldBack = callers.finishedCount() == 0;
    });
    writer.join();
    EXPECT_TRUE(heldBack);
    EXPECT_TRUE(nimbtest::waitUntil([&] { return callers.allFinished(); }, 2s));
    callers.join();
    for (int i = 0; i < kCount; ++i) EXPECT_TRUE(callers.answered(i));

    Callers plainCallers(client_, "Plain", 4);
    taken = plain_.take(4);
    ASSERT_EQ(taken.size(), 4U);
    bool leftAtOnce = false;
    std::thread plainWriter([&] {
        const KibReplyBatch batch;
        for (Numbered& numbered : taken) EXPECT_TRUE(complete(numbered));
        leftAtOnce = nimbtest::waitUntil([&] { return plainCallers.allFinished(); }, 2s);
    });
    plainWriter.join();
    EXPECT_TRUE(leftAtOnce);
    plainCallers.join();
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(plainCallers.answered(i));
}

// A reply completed outside a batch does not wait for another thread's batch, nor is
// the batch's reply sent by it.
TEST_F(KibReplyBatchTest, LoneReplyLeavesAtOnceWhileAnotherThreadHoldsABatch) {
    Callers callers(client_, "Batching", 2);
    std::vector<Numbered> taken = batching_.take(2);
    ASSERT_EQ(taken.size(), 2U);
    std::atomic<bool> held{false};
    std::atomic<bool> end{false};
    std::thread writer([&] {
        const KibReplyBatch batch;
        EXPECT_TRUE(complete(taken[0]));
        held = true;
        nimbtest::waitUntil([&] { return end.load(); });
    });
    ASSERT_TRUE(nimbtest::waitUntil([&] { return held.load(); }));
    EXPECT_TRUE(complete(taken[1]));
    const int lone = taken[1].first;
    EXPECT_TRUE(nimbtest::waitUntil([&] { return callers.finished(lone); }, 2s));
    EXPECT_FALSE(callers.finished(taken[0].first));
    end = true;
    writer.join();
    EXPECT_TRUE(nimbtest::waitUntil([&] { return callers.allFinished(); }, 2s));
    callers.join();
    EXPECT_TRUE(callers.answered(0));
    EXPECT_TRUE(callers.answered(1));
}

// Replies completed in a batch before the satellite leaves still reach their
// requesters; those completed after it left are dropped, and nothing breaks.
TEST_F(KibReplyBatchTest, DisconnectSendsWhatIsHeldAndDropsWhatComesLater) {
    Callers callers(client_, "Batching", 4);
    std::vector<Numbered> taken = batching_.take(4);
    ASSERT_EQ(taken.size(), 4U);
    std::atomic<bool> held{false};
    std::atomic<bool> end{false};
    std::thread writer([&] {
        const KibReplyBatch batch;
        for (Numbered& numbered : taken) EXPECT_TRUE(complete(numbered));
        held = true;
        nimbtest::waitUntil([&] { return end.load(); });
    });
    ASSERT_TRUE(nimbtest::waitUntil([&] { return held.load(); }));
    Callers late(client_, "Batching", 2, 500);
    std::vector<Numbered> lateReplies = batching_.take(2);
    ASSERT_EQ(lateReplies.size(), 2U);
    EXPECT_EQ(batching_.Disconnect(), KIB_OK);
    EXPECT_TRUE(nimbtest::waitUntil([&] { return callers.allFinished(); }, 2s));
    end = true;
    writer.join();
    callers.join();
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(callers.answered(i));

    {
        const KibReplyBatch batch;
        for (Numbered& numbered : lateReplies) EXPECT_TRUE(complete(numbered));
    }
    late.join();
    EXPECT_FALSE(late.answered(0));
    EXPECT_FALSE(late.answered(1));
}

// The reply connection reconnects on its own after an outage, and batches use it again.
TEST(KibReplyBatchReconnectTest, BatchesLeaveAgainAfterAnOutage) {
    NatsServer nats;
    DeferringSatellite server(true);
    KibSatellite client;
    server.setReconnectWait(10);
    client.setReconnectWait(10);
    ASSERT_EQ(server.Connect(nats.host().c_str(), "Batching"), KIB_OK);
    ASSERT_EQ(client.Connect(nats.host().c_str(), "Client"), KIB_OK);
    nats.stop();
    std::this_thread::sleep_for(200ms);
    ASSERT_TRUE(nats.start());
    bool answered = false;
    for (int attempt = 0; attempt < 20 && !answered; ++attempt) {
        Callers callers(client, "Batching", 2, 1000);
        std::vector<Numbered> taken = server.take(2);
        {
            const KibReplyBatch batch;
            for (Numbered& numbered : taken) complete(numbered);
        }
        callers.join();
        answered = taken.size() == 2 && callers.answered(0) && callers.answered(1);
    }
    EXPECT_TRUE(answered);
}
