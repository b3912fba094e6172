// SPDX-License-Identifier: MIT
// RemoteLogRefusals: the requests the collector refused for the caller's identity (a
// source bound to another device account, a reply inbox not the caller's own), counted,
// logged at most once every 10 s (the next line says how many were held back), and the
// last kKept of them kept for GetStats and the console's health page. The texts are the
// device's: kept as sent (cut to kMaxText bytes), escaped by whoever shows them. Any
// thread; internally locked.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "PMutex.h"
#include "ThreadAnnotations.h"

class RemoteLogRefusals {
public:
    static constexpr std::size_t kKept = 32;
    static constexpr std::size_t kMaxText = 128;
    static constexpr auto kLogInterval = std::chrono::seconds(10);

    enum class Kind { Identity, Inbox };

    struct Refusal {
        std::int64_t timeMs = 0;  // when, milliseconds since 1970
        std::string account;      // the caller's account ("" when the request named none)
        std::string source;       // the MAC address, device id or log refused ("" for none)
        std::string request;      // "SetLogSource", "AppendLog", ...
        std::string reason;
    };

    RemoteLogRefusals() = default;
    RemoteLogRefusals(const RemoteLogRefusals&) = delete;
    RemoteLogRefusals& operator=(const RemoteLogRefusals&) = delete;

    // Counts, logs (rate-bounded) and keeps one refusal.
    void record(Kind kind, Refusal refusal);
    std::uint64_t count(Kind kind) const;
    // The kept refusals, oldest first.
    std::vector<Refusal> recent() const;

private:
    mutable PMutex mutex_;
    std::uint64_t identity_ NIMB_GUARDED_BY(mutex_) = 0;
    std::uint64_t inbox_ NIMB_GUARDED_BY(mutex_) = 0;
    std::deque<Refusal> recent_ NIMB_GUARDED_BY(mutex_);
    std::chrono::steady_clock::time_point lastLog_ NIMB_GUARDED_BY(mutex_);
    bool logged_ NIMB_GUARDED_BY(mutex_) = false;
    std::uint64_t heldBack_ NIMB_GUARDED_BY(mutex_) = 0;
};
