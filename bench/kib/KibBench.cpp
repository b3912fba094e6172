// SPDX-License-Identifier: MIT
// Bus speed: synchronous and pipelined (8 callers) round trips through KibSatellite,
// beside the same exchange over bare NATS request/reply in the same run, for a
// 200-byte and a 4 KiB string value; and the codec's encode and decode speed.
#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#include <nats/nats.h>

#include "KibCodec.h"
#include "KibSatellite.h"
#include "NatsServer.h"

namespace {

int echo(const char*, const tagVARIANT& in, tagVARIANT* out) {
    VariantCopy(out, &in);
    return 0;
}

class EchoSatellite : public KibSatellite {
public:
    int CreateServices() override { return AddService("Echo", "", &echo); }
};

void bareEcho(natsConnection* nc, natsSubscription*, natsMsg* msg, void*) {
    natsConnection_Publish(nc, natsMsg_GetReply(msg), natsMsg_GetData(msg),
                           natsMsg_GetDataLength(msg));
    natsMsg_Destroy(msg);
}

natsConnection* bareConnect(const std::string& host) {
    natsOptions* options = nullptr;
    natsOptions_Create(&options);
    natsOptions_SetURL(options, ("nats://" + host).c_str());
    natsOptions_SetSendAsap(options, true);
    natsConnection* nc = nullptr;
    natsConnection_Connect(&nc, options);
    natsOptions_Destroy(options);
    return nc;
}

// One server, one serving and one calling satellite, and a bare echo, for all runs.
struct Bus {
    Bus() {
        server.Connect(nats.host().c_str(), "BenchServer");
        client.Connect(nats.host().c_str(), "BenchClient");
        bareServer = bareConnect(nats.host());
        bareClient = bareConnect(nats.host());
        natsConnection_Subscribe(&bareSub, bareServer, "bench.echo", &bareEcho, nullptr);
        natsConnection_Flush(bareServer);
    }
    NatsServer nats;
    EchoSatellite server;
    EchoSatellite client;
    natsConnection* bareServer = nullptr;
    natsConnection* bareClient = nullptr;
    natsSubscription* bareSub = nullptr;
};

Bus& bus() {
    static Bus* instance = new Bus();  // lives until exit: benchmark threads share it
    return *instance;
}

KibVariantHolder text(std::size_t size) {
    const std::string bytes(size, 'x');
    VARIANT v{};
    VariantInit(&v);
    v.vt = VT_BSTR;
    v.bstrVal = SysAllocStringLen(bytes.data(), static_cast<unsigned int>(bytes.size()));
    return KibVariantHolder::adopt(v);
}

void BM_KibRequest(benchmark::State& state) {
    Bus& b = bus();
    const KibVariantHolder value = text(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        KibReply reply;
        if (b.client.Call("BenchServer", "Echo", value.get(), &reply, 5000) != 0) {
            state.SkipWithError(reply.errorText.c_str());
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_BareNatsRequest(benchmark::State& state) {
    Bus& b = bus();
    const std::string payload(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        natsMsg* reply = nullptr;
        if (natsConnection_Request(&reply, b.bareClient, "bench.echo", payload.data(),
                                   static_cast<int>(payload.size()), 5000) != NATS_OK) {
            state.SkipWithError("bare request failed");
            break;
        }
        natsMsg_Destroy(reply);
    }
    state.SetItemsProcessed(state.iterations());
}

const KibVariantHolder& codecSample(std::size_t size) {
    static KibVariantHolder small = text(200);
    static KibVariantHolder large = text(4096);
    return size <= 200 ? small : large;
}

// Encodes `value` as a request frame, over and over.
void encodeLoop(benchmark::State& state, const KibVariantHolder& value) {
    std::string frame;
    std::string error;
    for (auto _ : state) {
        KibCodec::encodeRequest("BenchClient", value.get(), frame, error);
        benchmark::DoNotOptimize(frame.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * frame.size()));
}

// Decodes the request frame of `value`, over and over.
void decodeLoop(benchmark::State& state, const KibVariantHolder& value) {
    std::string frame;
    std::string error;
    KibCodec::encodeRequest("BenchClient", value.get(), frame, error);
    for (auto _ : state) {
        KibRequestFrame request;
        KibCodec::decodeRequest(frame.data(), frame.size(), request, error);
        benchmark::DoNotOptimize(request.value.get().vt);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * frame.size()));
}

void BM_CodecEncode(benchmark::State& state) {
    encodeLoop(state, codecSample(static_cast<std::size_t>(state.range(0))));
}

void BM_CodecDecode(benchmark::State& state) {
    decodeLoop(state, codecSample(static_cast<std::size_t>(state.range(0))));
}

// A mixed value: an array of 64 VARIANTs (MAC-address strings, integers, dates).
KibVariantHolder mixedValue() {
    SAFEARRAY* a = SafeArrayCreateVector(VT_VARIANT, 0, 64);
    for (int i = 0; i < 64; ++i) {
        VARIANT& e = static_cast<VARIANT*>(a->pvData)[i];
        if (i % 3 == 0) {
            e.vt = VT_BSTR;
            e.bstrVal = SysAllocString("00:11:22:33:44:55");
        } else if (i % 3 == 1) {
            e.vt = VT_I4;
            e.lVal = i * 1000;
        } else {
            e.vt = VT_DATE;
            e.date = 46348.5 + i;
        }
    }
    VARIANT v{};
    VariantInit(&v);
    v.vt = VT_ARRAY | VT_VARIANT;
    v.parray = a;
    return KibVariantHolder::adopt(v);
}

void BM_CodecEncodeMixed(benchmark::State& state) { encodeLoop(state, mixedValue()); }

void BM_CodecDecodeMixed(benchmark::State& state) { decodeLoop(state, mixedValue()); }

}  // namespace

BENCHMARK(BM_BareNatsRequest)->Arg(200)->Arg(4096)->UseRealTime();
BENCHMARK(BM_KibRequest)->Arg(200)->Arg(4096)->UseRealTime();
BENCHMARK(BM_BareNatsRequest)->Arg(200)->Arg(4096)->Threads(8)->UseRealTime();
BENCHMARK(BM_KibRequest)->Arg(200)->Arg(4096)->Threads(8)->UseRealTime();
BENCHMARK(BM_CodecEncode)->Arg(200)->Arg(4096);
BENCHMARK(BM_CodecDecode)->Arg(200)->Arg(4096);
BENCHMARK(BM_CodecEncodeMixed);
BENCHMARK(BM_CodecDecodeMixed);

BENCHMARK_MAIN();
