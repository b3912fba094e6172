// SPDX-License-Identifier: MIT
#include "SyslogClock.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "DeviceLogConverter.h"

namespace {

// Once the window is full the estimate is taken again only every few samples: one
// sample moves it by at most one place, and the threshold is whole seconds.
constexpr std::size_t kPickEvery = 8;

tm fieldsOf(const SyslogStamp& stamp, int year) {
    tm t{};
    t.tm_year = year - 1900;
    t.tm_mon = stamp.month - 1;
    t.tm_mday = stamp.day;
    t.tm_hour = stamp.hour;
    t.tm_min = stamp.minute;
    t.tm_sec = stamp.second;
    return t;
}

}  // namespace

std::string SyslogClock::formatTime(long long seconds, bool local) {
    const time_t value = static_cast<time_t>(seconds);
    tm t{};
    if (local) {
        localtime_r(&value, &t);
    } else {
        gmtime_r(&value, &t);
    }
    char text[64];
    std::snprintf(text, sizeof(text), "%04d/%02d/%02d %02d:%02d:%02d", t.tm_year + 1900,
                  t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
    return text;
}

long long SyslogClock::localOffset(long long seconds) {
    // Asked for every stamped message, mostly for the same second: the last answer is
    // kept per thread, with the zone it was taken in (`timezone`, set by tzset()).
    thread_local long long lastSeconds = -1;
    thread_local long lastZone = 0;
    thread_local long long lastOffset = 0;
    if (seconds != lastSeconds || timezone != lastZone) {
        lastZone = timezone;
        const time_t value = static_cast<time_t>(seconds);
        tm local{};
        localtime_r(&value, &local);
        lastOffset = local.tm_gmtoff;
        lastSeconds = seconds;
    }
    return lastOffset;
}

long long SyslogClock::stampSeconds(const SyslogStamp& stamp, long long referenceSeconds) {
    if (stamp.hasYear) {
        return DeviceLogConverter::utcSeconds(fieldsOf(stamp, stamp.year)) -
               stamp.zoneMinutes * 60LL;
    }
    const time_t reference = static_cast<time_t>(referenceSeconds);
    tm now{};
    gmtime_r(&reference, &now);
    long long best = 0;
    for (int year = now.tm_year + 1900 - 1; year <= now.tm_year + 1900 + 1; ++year) {
        const long long candidate = DeviceLogConverter::utcSeconds(fieldsOf(stamp, year));
        if (year == now.tm_year + 1900 - 1 ||
            std::llabs(candidate - referenceSeconds) < std::llabs(best - referenceSeconds))
            best = candidate;
    }
    return best;
}

SyslogClock::SyslogClock(int thresholdSeconds) : marginMs_((thresholdSeconds + 1) * 1000LL) {}

void SyslogClock::addSample(const SyslogStamp& stamp, long long arrivalMs) {
    if (!stamp.present) return;
    const long long arrival = arrivalMs / 1000;
    const long long wall = stamp.hasZone ? 0 : localOffset(arrival);
    const long long estimate = offsetSeconds();
    const long long reference = arrival + wall + estimate;
    const long long stampMs = stampSeconds(stamp, reference) * 1000 + stamp.millisecond;
    const long long difference = stampMs - (arrivalMs + wall * 1000);
    zoned_ = stamp.hasZone;
    if (difference >= medianMs_ - marginMs_) {
        // Live: on time for the sender's usual difference (for an unknown clock: for the
        // server's), or ahead of it, which no delay explains. The median rather than the
        // estimate, so that a stamp from the future among a new sender's first few cannot
        // make its on-time lines look late. A live stamp also shows that the late ones
        // gathered so far were queued, not a clock set back.
        lateCount_ = 0;
        samples_[next_] = difference;
        next_ = (next_ + 1) % kWindow;
        if (count_ < kWindow) ++count_;
        ++sincePick_;
        return;
    }
    // Late. A queue delivered at once holds stamps spread over its outage that arrive
    // within moments, so their differences drift apart; a clock set back shows one
    // difference held while real time passes.
    if (lateCount_ == 0 || std::llabs(difference - lateFirstMs_) > marginMs_) {
        lateCount_ = 0;
        lateFirstMs_ = difference;
        lateSinceMs_ = arrivalMs;
    }
    late_[lateCount_ % kWindow] = difference;
    ++lateCount_;
    if (lateCount_ >= kConfirmSamples && arrivalMs - lateSinceMs_ >= kConfirmMargins * marginMs_) {
        samples_ = late_;
        count_ = std::min(lateCount_, kWindow);
        next_ = lateCount_ % kWindow;
        sincePick_ = kPickEvery;
        lateCount_ = 0;
    }
}

long long SyslogClock::offsetSeconds() {
    if (count_ == 0) return 0;
    if (sincePick_ != 0 && (count_ < kWindow || sincePick_ >= kPickEvery)) {
        // Delays only ever make a stamp look older, so the estimate leans to the least
        // delayed messages: the tenth from the top of the window, which the few highest
        // (stamps from the future, a clock that jumped back) cannot move.
        std::array<long long, kWindow> sorted = samples_;
        auto pick = sorted.begin() + static_cast<std::ptrdiff_t>(count_ - 1 - count_ / 10);
        std::nth_element(sorted.begin(), pick,
                         sorted.begin() + static_cast<std::ptrdiff_t>(count_));
        // Rounded to the nearest second, halves away from zero.
        const long long ms = *pick;
        offset_ = (ms >= 0 ? ms + 500 : ms - 500) / 1000;
        // The lower median, so that one stamp from the future among two is not it.
        auto median = sorted.begin() + static_cast<std::ptrdiff_t>((count_ - 1) / 2);
        std::nth_element(sorted.begin(), median, pick);
        medianMs_ = *median;
        sincePick_ = 0;
    }
    return offset_;
}

std::string SyslogClock::senderTime(long long arrivalSeconds) {
    const long long wall = zoned_ ? 0 : localOffset(arrivalSeconds);
    return formatTime(arrivalSeconds + wall + offsetSeconds(), false);
}

std::string SyslogClock::rewrite(const SyslogStamp& stamp, long long arrivalSeconds) {
    const long long offset = offsetSeconds();
    const long long wall = stamp.hasZone ? 0 : localOffset(arrivalSeconds);
    // The converter computes stamp - deviceTime + serverTime: with the sender's clock
    // as device time that is the stamp less the offset (and, for a wall-clock stamp,
    // less the server's zone, which the local rendering adds back).
    const long long deviceTime = arrivalSeconds + wall + offset;
    const long long seconds = stampSeconds(stamp, deviceTime);
    const time_t value = static_cast<time_t>(seconds);
    tm t{};
    gmtime_r(&value, &t);
    return DeviceLogConverter::convertDate(t, static_cast<long>(deviceTime),
                                           static_cast<long>(arrivalSeconds));
}
