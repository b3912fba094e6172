// SPDX-License-Identifier: MIT
// Generated log text for the history's tests and benchmarks: reproducible from a seed,
// bounded by a byte count, shaped like what the collector keeps.
#pragma once

#include <cstddef>
#include <cstdio>
#include <ctime>
#include <random>
#include <string>

namespace nimbtest {

// Syslog-like text: RFC 3164 lines of a few hosts and daemons, counters, addresses of a
// small network and ports of the ephemeral range.
inline std::string syslogCorpus(std::size_t bytes, unsigned seed) {
    std::mt19937 rng(seed);
    const char* hosts[] = {"nas-01", "media-box", "router", "cam-garden", "tv-living"};
    struct Template {
        const char* app;
        int pri;
        const char* text;
    };
    const Template templates[] = {
        {"sshd", 38, "Accepted publickey for admin from 192.168.1.%u port %u ssh2"},
        {"sshd", 86, "pam_unix(sshd:session): session opened for user admin(uid=1000) by (uid=0)"},
        {"CRON", 78, "(root) CMD (   /usr/lib/sa/sa1 1 1)"},
        {"dhcpd", 30, "DHCPREQUEST for 192.168.1.%u from 00:11:22:33:44:%02x via eth0"},
        {"dhcpd", 30, "DHCPACK on 192.168.1.%u to 00:11:22:33:44:%02x via eth0"},
        {"systemd", 30, "Started Session %u of user media."},
        {"kernel", 6, "[%u.%06u] eth0: link up, 1000 Mbps, full duplex, lpa 0xC1E1"},
        {"nginx", 190, "192.168.1.%u - - \"GET /api/v1/items?page=%u&size=50 HTTP/1.1\" 200 5120"},
        {"smbd", 28, "connection from 192.168.1.%u:%u closed"},
        {"ntpd", 29, "adjusting local clock by 0.%06us"},
        {"smbd", 28, "smbd_audit: media|192.168.1.%u|open|ok|/media/movies/title_%u/part1.mkv"},
        {"systemd", 30, "transcoder@%u.service: Succeeded."},
    };
    std::string out;
    unsigned second = 0, session = 1200, counter = 0;
    for (std::size_t line = 0; line < bytes && out.size() < bytes; ++line) {
        second += rng() % 3;
        const unsigned which = rng() % 12;
        unsigned a = 2 + rng() % 40, b = 32768 + rng() % 28232;
        if (which == 3 || which == 4) b %= 256;
        if (which == 5 || which == 11) a = ++session;
        if (which == 6) a = second, b = ++counter * 1237 % 1000000;
        if (which == 7) b = 1 + rng() % 20;
        char text[300];
        snprintf(text, sizeof(text), templates[which].text, a, b);
        char full[512];
        snprintf(full, sizeof(full), "<%d>May %2u %02u:%02u:%02u %s %s[%u]: %s\n",
                 templates[which].pri, 1 + second / 86400, second / 3600 % 24, second / 60 % 60,
                 second % 60, hosts[rng() % 5], templates[which].app, 400 + templates[which].pri,
                 text);
        out += full;
    }
    return out;
}

// Device-like lines: a media player's own log, "date time.ms [LEVEL] - module - text",
// stamped from a clock that starts at `startMs` (ms since 1970 UTC) and moves on by up
// to `stepMs` before each line.
class DeviceLines {
public:
    DeviceLines(unsigned seed, long long startMs, unsigned stepMs = 400)
        : rng_(seed), ms_(startMs), stepMs_(stepMs) {}

    long long now() const { return ms_; }

    // Appends one line.
    void append(std::string& out) {
        static const char* const modules[] = {"Player",  "Network", "Scanner",
                                              "Decoder", "UI",      "Upnp"};
        static const char* const levels[] = {"INFO", "DEBUG", "WARN", "ERROR"};
        static const char* const templates[] = {
            "buffering stream %u: %u ms queued of 4000 ms",
            "frame dropped at pts %u (decoder late by %u ms)",
            "GET http://192.168.1.10:8470/stream/%u?offset=%u -> 206 Partial Content",
            "scanning /media/music/album_%u/track_%02u.flac",
            "key pressed: code %u repeat %u",
            "ssdp notify from 192.168.1.%u:1900 alive, max-age %u",
            "bitrate changed to %u kbps",
            "cache hit ratio %u%% over %u requests",
        };
        ms_ += rng_() % stepMs_;
        const unsigned which = rng_() % 8;
        const unsigned level = rng_() % 10 < 8 ? rng_() % 2 : 2 + rng_() % 2;
        unsigned a = rng_() % 100, b = rng_() % 100;
        if (which == 0) a = stream_, b = (rng_() % 40) * 100;
        if (which == 1) a = (pts_ += 3003), b = 1 + rng_() % 60;
        if (which == 2) a = stream_, b = (offset_ += 65536);
        if (which == 4) a = 100 + rng_() % 12, b = rng_() % 3;
        if (which == 5) b = 1800;
        if (which == 6) a = 1000 * (1 + rng_() % 8);
        if (rng_() % 200 == 0) ++stream_;
        char text[300];
        snprintf(text, sizeof(text), templates[which], a, b);
        const time_t seconds = static_cast<time_t>(ms_ / 1000);
        struct tm utc {};
        gmtime_r(&seconds, &utc);
        char full[512];
        snprintf(full, sizeof(full), "%04d/%02d/%02d %02d:%02d:%02d.%03u [%s] - %s - %s\n",
                 utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min,
                 utc.tm_sec, static_cast<unsigned>(ms_ % 1000), levels[level], modules[rng_() % 6],
                 text);
        out += full;
    }

private:
    std::mt19937 rng_;
    long long ms_;
    unsigned stepMs_;
    unsigned pts_ = 0, offset_ = 0, stream_ = 17;
};

// Device-like text of about `bytes` bytes from 2024/05/01 on.
inline std::string deviceCorpus(std::size_t bytes, unsigned seed) {
    DeviceLines lines(seed, 1714521600000LL);
    std::string out;
    while (out.size() < bytes) lines.append(out);
    return out;
}

}  // namespace nimbtest
