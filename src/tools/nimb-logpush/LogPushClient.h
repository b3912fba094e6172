// SPDX-License-Identifier: MIT
// LogPushClient: the device's side of the log collector on the bus. It announces the
// device and its logs ("SetLogSource") and delivers pieces of log text ("AppendLog") to
// the collector satellite, retrying what fails on the way (no connection, no reply in
// time, nobody serving while the collector restarts, the collector busy or unable to
// write) with a bounded back-off. A piece the collector does not know the log of is
// sent again at once after a new announcement. A piece
// counts as delivered only once its reply has arrived, and is sent again only when no
// reply arrived. The collector keeps announcements in memory only, so the announcement is
// repeated before the next piece of text whenever the collector may have restarted: after
// any retried failure, after this satellite's connection came back, and when the
// collector's services were seen leaving the bus. Owned by the program's main loop, which
// is the only thread that calls it; the On... notifications run on the library's threads.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "KibSatellite.h"
#include "NimbBusSettings.h"

class KibVariantHolder;

class LogPushClient : public KibSatellite {
public:
    struct Settings {
        NimbBusSettings bus;     // servers, TLS and credentials
        std::string satellite;   // the collector's satellite name
        std::string macAddress;  // who the device is
        std::string deviceId;
        std::string displayName;
        std::vector<std::string> logNames;  // announced together
        int timeoutMs = 5000;               // reply timeout of one request
        int retryMs = 60000;                // how long one request is retried; < 0: no end
        bool sendTime = true;               // AppendLog carries the device's time
    };

    enum class Result {
        Sent,          // the collector replied with success
        Refused,       // the collector (or the bus) refused the request; error() says why
        Unreachable,   // no success within the retry budget; error() says why
        Invalid,       // the host or a name cannot be used; error() says why
        NotPermitted,  // the bus server refused the credentials (at once or revoked later)
                       // or this account's use of the service; never retried; error() says
                       // why and what to pass
    };

    explicit LogPushClient(Settings settings);
    LogPushClient(const LogPushClient&) = delete;
    LogPushClient& operator=(const LogPushClient&) = delete;
    ~LogPushClient() override;

    // Announces the device and every log name. Blocks until the reply or the end of the
    // retry budget.
    Result announce();
    // Delivers `content` (borrowed) for the log `logName`. Blocks like announce().
    Result append(const std::string& logName, std::string_view content);

    // Why the last call did not return Sent.
    const std::string& error() const { return error_; }

    // Ends retrying early: the request in progress gives up at its next failure. Safe to
    // call from a signal handler.
    static void stopRetrying();

    // Library thread: remembers whether the connection is up, so that nothing is sent
    // while the library reconnects (the client would hold such a request back and send it
    // after reconnecting, possibly after it was already given up and sent again).
    // A reconnection also calls for a new announcement.
    void OnStatusChange(int reason, KIBSTATUS status) override;
    // Library thread: the collector's services leaving the bus (it stopped, or restarted)
    // call for a new announcement.
    void OnServiceAvailabilityChanged(const char* satelliteName, const char* serviceName,
                                      int available) override;

private:
    enum class Attempt { Ok, Refused, Transient, Invalid, Unannounced, NotPermitted };
    using Builder = std::function<KibVariantHolder()>;

    Result deliver(const char* service, const Builder& build);
    Attempt attempt(const char* service, const Builder& build, std::string& failure);
    Attempt connectOnce(std::string& failure);
    // The message for credentials the server refused (`refusal`: its words); `revoked`
    // when they were accepted before.
    std::string credentialsRefused(const std::string& refusal, bool revoked) const;
    bool needsAnnouncement() const;
    Attempt call(const char* service, const KibVariantHolder& request, std::string& failure);
    KibVariantHolder announcement() const;
    KibVariantHolder appendRequest(const std::string& logName, std::string_view content) const;

    // Immutable after construction
    const Settings settings_;
    const std::string name_;  // this satellite's own name

    // Main loop only
    bool connected_ = false;
    bool announced_ = false;  // the last announcement succeeded ...
    int announcedAt_ = 0;     // ... when forgotten_ had this value
    std::string error_;

    // Written by the notifications (library threads), read by the main loop
    std::atomic<bool> linkUp_{true};
    std::atomic<int> forgotten_{0};  // counts events after which the collector may forget
};
