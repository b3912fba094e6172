// SPDX-License-Identifier: MIT
// Deferred replies completed together: N replies completed one by one, beside the same
// N completed inside a KibReplyBatch, in one run; and the round trip of a lone deferred
// request with and without the reply connection. Each reply benchmark is timed from
// the first completion until the requester holds every reply.
//
// The completions run on the benchmark's main thread, and the requests leave through
// the client's flusher thread, so the main thread's socket writes are the replies':
//     strace -f -o trace.txt -e trace=write,writev,sendto,sendmsg build/bench/kib/kib_reply_bench
//     pid=$(head -1 trace.txt | cut -d' ' -f1)
//     awk -v pid=$pid '$1 == pid && /(sendto|sendmsg|writev)\(/ && !/resumed/' trace.txt | wc -l
// (or run one benchmark at a time with --benchmark_filter to split the count).
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <nats/nats.h>

#include "KibCodec.h"
#include "KibDeferredReply.h"
#include "KibReplyBatch.h"
#include "KibSatellite.h"
#include "KibSubjects.h"
#include "NatsServer.h"

namespace {

// A satellite whose service defers every reply to the benchmark.
class DeferringSatellite : public KibSatellite {
public:
    explicit DeferringSatellite(bool batchReplies) {
        KibConnectOptions options;
        options.batchReplies = batchReplies;
        setConnectOptions(options);
    }

    int CreateServices() override {
        using Member = KibSatelliteDelegateMember<DeferringSatellite>;
        return AddService("Later", "", new Member(this, &DeferringSatellite::later));
    }

    int later(const char*, const tagVARIANT&, tagVARIANT*) {
        const std::lock_guard<std::mutex> lock(mutex_);
        pending_.push_back(DeferReply());
        return 0;
    }

    // Waits (up to 5 s) for `count` deferred replies and takes them; empty on a timeout.
    std::vector<KibDeferredReply> take(std::size_t count) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (std::chrono::steady_clock::now() < deadline) {
            {
                const std::lock_guard<std::mutex> lock(mutex_);
                if (pending_.size() >= count) return std::move(pending_);
            }
            std::this_thread::yield();
        }
        return {};
    }

private:
    std::mutex mutex_;
    std::vector<KibDeferredReply> pending_;
};

// A bare requester: publishes request frames with inboxes of its own and counts replies.
struct Requester {
    Requester(const std::string& host, bool sendAsap) {
        natsOptions* options = nullptr;
        natsOptions_Create(&options);
        natsOptions_SetURL(options, ("nats://" + host).c_str());
        natsOptions_SetSendAsap(options, sendAsap);
        natsConnection_Connect(&nc, options);
        natsOptions_Destroy(options);
        natsConnection_Subscribe(&sub, nc, "_INBOX.bench.>", &onReply, this);
        natsConnection_Flush(nc);
        VARIANT value{};
        value.vt = VT_I4;
        std::string error;
        KibCodec::encodeRequest("BenchClient", value, frame, error);
    }

    Requester(const Requester&) = delete;
    Requester& operator=(const Requester&) = delete;
    ~Requester() {
        natsSubscription_Destroy(sub);
        natsConnection_Destroy(nc);
    }

    static void onReply(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
        static_cast<Requester*>(closure)->received++;
        natsMsg_Destroy(msg);
    }

    void ask(const std::string& satellite, int count) {
        const std::string subject = KibSubjects::service(satellite, "Later");
        for (int i = 0; i < count; ++i) {
            const std::string inbox = "_INBOX.bench." + std::to_string(i);
            natsConnection_PublishRequest(nc, subject.c_str(), inbox.c_str(), frame.data(),
                                          static_cast<int>(frame.size()));
        }
    }

    // Waits (up to 5 s) until `count` replies arrived.
    bool await(int count) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (received.load() < count) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
        return true;
    }

    natsConnection* nc = nullptr;
    natsSubscription* sub = nullptr;
    std::string frame;
    std::atomic<int> received{0};
};

struct Bus {
    Bus() {
        batching.Connect(nats.host().c_str(), "Batching");
        plain.Connect(nats.host().c_str(), "Plain");
    }
    NatsServer nats;
    DeferringSatellite batching{true};
    DeferringSatellite plain{false};
    Requester buffered{nats.host(), false};  // the client's flusher writes the requests
    Requester asap{nats.host(), true};
};

// Made by the first benchmark, destroyed (server stopped) by main.
std::unique_ptr<Bus> g_bus;

Bus& bus() {
    if (!g_bus) g_bus = std::make_unique<Bus>();
    return *g_bus;
}

// N = range(0) replies per iteration, completed inside a batch when range(1) is 1.
void BM_DeferredReplies(benchmark::State& state) {
    Bus& b = bus();
    const int count = static_cast<int>(state.range(0));
    const bool batched = state.range(1) != 0;
    for (auto _ : state) {
        state.PauseTiming();
        b.buffered.received = 0;
        b.buffered.ask("Batching", count);
        std::vector<KibDeferredReply> replies = b.batching.take(static_cast<std::size_t>(count));
        if (replies.size() != static_cast<std::size_t>(count)) {
            state.SkipWithError("requests did not arrive");
            break;
        }
        state.ResumeTiming();
        if (batched) {
            const KibReplyBatch batch;
            for (KibDeferredReply& reply : replies) reply.succeed(0);
        } else {
            for (KibDeferredReply& reply : replies) reply.succeed(0);
        }
        if (!b.buffered.await(count)) {
            state.SkipWithError("replies did not arrive");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * count);
    state.SetLabel(batched ? "batch" : "one by one");
}

// One request, its reply completed as soon as it is deferred: range(0) 0 for the
// satellite without a reply connection (as before batches), 1 with it and no batch,
// 2 with it and a batch of one.
void BM_LoneDeferredRoundTrip(benchmark::State& state) {
    Bus& b = bus();
    const int mode = static_cast<int>(state.range(0));
    DeferringSatellite& server = mode == 0 ? b.plain : b.batching;
    const char* name = mode == 0 ? "Plain" : "Batching";
    for (auto _ : state) {
        b.asap.received = 0;
        b.asap.ask(name, 1);
        std::vector<KibDeferredReply> replies = server.take(1);
        if (replies.size() != 1) {
            state.SkipWithError("request did not arrive");
            break;
        }
        if (mode == 2) {
            const KibReplyBatch batch;
            replies[0].succeed(0);
        } else {
            replies[0].succeed(0);
        }
        if (!b.asap.await(1)) {
            state.SkipWithError("reply did not arrive");
            break;
        }
    }
    state.SetLabel(mode == 0 ? "no reply connection" : mode == 1 ? "no batch" : "batch of one");
}

}  // namespace

BENCHMARK(BM_DeferredReplies)
    ->Args({16, 0})
    ->Args({16, 1})
    ->Args({64, 0})
    ->Args({64, 1})
    ->Iterations(500)
    ->UseRealTime();
BENCHMARK(BM_LoneDeferredRoundTrip)->Arg(0)->Arg(1)->Arg(2)->Iterations(3000)->UseRealTime();

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    g_bus.reset();
    return 0;
}
