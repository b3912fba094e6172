// SPDX-License-Identifier: MIT
// SyslogClock: one sender's clock, estimated from the stamps of its messages. A syslog
// sender announces no time of its own, so every stamp is compared with the moment the
// message arrived. Transport and queueing delays only make stamps look older, so the
// estimate is the 90th percentile of the last kWindow live differences: the least delayed
// messages decide, and a few stamps from the future or replayed lines cannot move it. A
// stamp older than the sender's usual difference (the window's median; the server's clock
// while there is none) by more than the margin (threshold + 1 s) is late: a message the
// sender queued (a restart of the collector, a relay's backlog) or a clock set back. It
// moves nothing until late stamps agreeing on one offset have arrived spread over
// kConfirmMargins margins of real time, which a queue delivered in a burst never does; then
// that offset is the estimate. Also the conversions a stamp needs: its seconds, and its
// rewriting into server time. Owned by the store; listener thread.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "SyslogMessage.h"

class SyslogClock {
public:
    static constexpr std::size_t kWindow = 64;
    // Late stamps take over the estimate once this many agree and their arrivals span
    // kConfirmMargins margins.
    static constexpr std::size_t kConfirmSamples = 4;
    static constexpr long long kConfirmMargins = 10;

    // `thresholdSeconds`: how far the sender's clock may be off before its stamps are
    // rewritten; the margin within which a stamp agrees with the estimate is a second more.
    explicit SyslogClock(int thresholdSeconds = 2);

    // Adds the stamp of a message that arrived at `arrivalMs` (ms since 1970 UTC). A stamp
    // with a zone is compared with the arrival instant, one without a zone (the sender's
    // wall clock) with the server's wall clock at arrival.
    void addSample(const SyslogStamp& stamp, long long arrivalMs);
    // Whether the clock is known: a live stamp was seen, or late ones confirmed an offset.
    bool isKnown() const { return count_ != 0; }
    // The estimated offset in whole seconds (sender minus server), 0 while unknown.
    long long offsetSeconds();
    // Whether the last stamp carried a zone.
    bool isZoned() const { return zoned_; }

    // The sender's clock at `arrivalSeconds` as "yyyy/MM/dd hh:mm:ss": UTC for a sender
    // whose stamps carry a zone, its wall clock for one whose stamps do not.
    std::string senderTime(long long arrivalSeconds);
    // `stamp` moved by -offset into server time and written as the bus path writes
    // converted stamps ("YYYY/MM/DD hh:mm:ss", server local time).
    std::string rewrite(const SyslogStamp& stamp, long long arrivalSeconds);

    // The stamp as seconds since 1970: the instant for a zoned stamp, the wall-clock
    // reading taken as UTC otherwise. A stamp without a year takes the year that puts it
    // nearest to `referenceSeconds` (a time on the same scale).
    static long long stampSeconds(const SyslogStamp& stamp, long long referenceSeconds);
    // `seconds` as "yyyy/MM/dd hh:mm:ss", in the server's local time or in UTC.
    static std::string formatTime(long long seconds, bool local);
    // The server's local offset from UTC at `seconds`, in seconds.
    static long long localOffset(long long seconds);

private:
    const long long marginMs_;
    std::array<long long, kWindow> samples_{};  // live differences in ms, a ring
    std::size_t count_ = 0;
    std::size_t next_ = 0;
    std::size_t sincePick_ = 0;  // samples added since the estimate was last taken
    long long offset_ = 0;       // the last estimate, whole seconds
    long long medianMs_ = 0;     // the window's median difference when the estimate was taken
    bool zoned_ = false;
    // Late differences since the last live one that agree with the first of them.
    std::array<long long, kWindow> late_{};
    std::size_t lateCount_ = 0;
    long long lateFirstMs_ = 0;  // the first late difference, which the others must agree with
    long long lateSinceMs_ = 0;  // its arrival
};
