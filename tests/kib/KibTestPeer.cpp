// SPDX-License-Identifier: MIT
// A satellite "Peer" in its own process for the cross-process tests: it offers "Echo"
// (returns its argument) and "Caller" (returns the caller's name), prints "ready" on
// standard output once registered, and exits on SIGTERM or after 60 s.
#include <cstdio>

#include <signal.h>
#include <unistd.h>

#include "KibSatellite.h"

namespace {

int echo(const char*, const tagVARIANT& in, tagVARIANT* out) {
    VariantCopy(out, &in);
    return 0;
}

int caller(const char* name, const tagVARIANT&, tagVARIANT* out) {
    out->vt = VT_BSTR;
    out->bstrVal = SysAllocString(name);
    return 0;
}

class PeerSatellite : public KibSatellite {
public:
    ~PeerSatellite() override { Disconnect(); }

    int CreateServices() override {
        AddService("Echo", "returns its argument", &echo);
        return AddService("Caller", "returns the caller's name", &caller);
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 64;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    PeerSatellite peer;
    const int status = peer.Connect(argv[1], argc > 2 ? argv[2] : "Peer");
    if (status != KIB_OK) {
        std::fprintf(stderr, "connect failed: %s\n", KibStatusText(status));
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    const timespec limit{60, 0};
    sigtimedwait(&set, nullptr, &limit);
    return 0;
}
