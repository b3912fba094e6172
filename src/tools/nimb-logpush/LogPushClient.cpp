// SPDX-License-Identifier: MIT
#include "LogPushClient.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <thread>
#include <utility>

#include "KibReply.h"
#include "KibVariantHolder.h"
#include "StdString.h"
#include "VUtil.h"

namespace {

const char* const kSetLogSource = "SetLogSource";
const char* const kAppendLog = "AppendLog";
const char* const kOwnName = "nimb-logpush";
// Exception codes of the collector's answers that a retry overcomes.
constexpr int kCollectorBusy = 2;
constexpr int kLogClosed = 4;

constexpr std::chrono::milliseconds kFirstBackoff{250};
constexpr std::chrono::milliseconds kLongestBackoff{5000};
constexpr std::chrono::milliseconds kSleepStep{50};

// Set from a signal handler; read by the main loop.
volatile std::sig_atomic_t g_stopRetrying = 0;

// Failures after which the request may succeed if made again: the request did not get
// through, or its reply did not come back.
bool isTransient(int status) {
    switch (status) {
        case KIB_E_TIMEOUT:
        case KIB_E_NO_RESPONDERS:
        case KIB_E_NOT_CONNECTED:
        case KIB_E_CONNECT_FAILED:
        case KIB_E_TRANSPORT:
        case KIB_E_CONNECTION_LOST:
            return true;
        default:
            return false;
    }
}

// The collector's answers that say "not now": busy (exception code 2) and a text that
// could not be written (code 3, the disk may be full); the device keeps the text and
// sends it again, as after a timeout.
constexpr std::int32_t kBusyCode = 2;
constexpr std::int32_t kNotWrittenCode = 3;
// "AppendLog" answered with this status: the collector does not know the log (it
// restarted); announce again, then send the text again.
constexpr int kUnknownSourceStatus = 2;

bool isTransient(const KibReply& reply) {
    switch (reply.errorKind) {
        case KibErrorKind::Local:
            return isTransient(reply.status);
        case KibErrorKind::Library:
            // The collector is leaving or arriving: its services are not (yet) listed.
            return reply.status == KIB_E_NO_SUCH_SERVICE;
        case KibErrorKind::KibException:
            return reply.errorCode == kBusyCode || reply.errorCode == kNotWrittenCode;
        default:
            return false;
    }
}

// Sleeps for `duration`, or less when retrying is stopped.
void pause(std::chrono::milliseconds duration) {
    const auto until = std::chrono::steady_clock::now() + duration;
    while (g_stopRetrying == 0 && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(kSleepStep);
    }
}

std::string durationText(int ms) {
    return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
}

}  // namespace

LogPushClient::LogPushClient(Settings settings) : settings_(std::move(settings)), name_(kOwnName) {
    setRequestTimeout(settings_.timeoutMs);
}

LogPushClient::~LogPushClient() { Disconnect(); }

void LogPushClient::stopRetrying() { g_stopRetrying = 1; }

void LogPushClient::OnStatusChange(int, KIBSTATUS status) {
    linkUp_ = status == KIBSTATUS_CONNECTED;
    if (status == KIBSTATUS_CONNECTED) ++forgotten_;
}

// Gains are not counted: the first report of a running collector arrives at some moment
// after start-up and would only repeat the first announcement.
void LogPushClient::OnServiceAvailabilityChanged(const char*, const char*, int available) {
    if (available == 0) ++forgotten_;
}

bool LogPushClient::needsAnnouncement() const {
    return !announced_ || announcedAt_ != forgotten_.load();
}

LogPushClient::Result LogPushClient::announce() {
    return deliver(kSetLogSource, [this] { return announcement(); });
}

LogPushClient::Result LogPushClient::append(const std::string& logName, std::string_view content) {
    return deliver(kAppendLog, [&] { return appendRequest(logName, content); });
}

// Each attempt builds the request anew, so that it carries the device's time of sending.
LogPushClient::Result LogPushClient::deliver(const char* service, const Builder& build) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(settings_.retryMs);
    std::chrono::milliseconds backoff = kFirstBackoff;
    error_.clear();
    while (true) {
        std::string failure;
        switch (attempt(service, build, failure)) {
            case Attempt::Ok:
                return Result::Sent;
            case Attempt::Refused:
                error_ = failure;
                return Result::Refused;
            case Attempt::Invalid:
                error_ = failure;
                return Result::Invalid;
            case Attempt::NotPermitted:
                error_ = failure;
                return Result::NotPermitted;
            case Attempt::Transient:
            case Attempt::Unannounced:
                break;
        }
        // The collector may have restarted and forgotten the source: announce again before
        // the next piece of text.
        announced_ = false;
        const bool budgetLeft =
            settings_.retryMs < 0 || std::chrono::steady_clock::now() + backoff <= deadline;
        if (g_stopRetrying != 0 || !budgetLeft) {
            const std::string why = g_stopRetrying != 0
                                        ? "stopped"
                                        : "gave up after " + durationText(settings_.retryMs);
            error_ = "cannot reach " + settings_.satellite + " at " + settings_.bus.displayHost() +
                     ": " + failure + " (" + why + ")";
            return Result::Unreachable;
        }
        pause(backoff);
        backoff = std::min(backoff * 2, kLongestBackoff);
    }
}

LogPushClient::Attempt LogPushClient::attempt(const char* service, const Builder& build,
                                              std::string& failure) {
    if (!connected_) {
        const Attempt connected = connectOnce(failure);
        if (connected != Attempt::Ok) return connected;
    }
    if (!linkUp_) {
        // Revoked credentials: the client stops reconnecting after the server's refusal.
        const std::string refusal = credentialsRefusal();
        if (!refusal.empty()) {
            failure = credentialsRefused(refusal, true);
            return Attempt::NotPermitted;
        }
        failure = "connection lost, reconnecting";
        return Attempt::Transient;
    }
    const bool isAnnouncement = service == kSetLogSource;
    const int forgotten = forgotten_.load();
    if (needsAnnouncement() && !isAnnouncement) {
        const Attempt announced = call(kSetLogSource, announcement(), failure);
        if (announced != Attempt::Ok) return announced;
        announced_ = true;
        announcedAt_ = forgotten;
    }
    Attempt result = call(service, build(), failure);
    if (result == Attempt::Unannounced) {
        // Announce and send again at once; a second "unknown" is retried after a pause.
        result = call(kSetLogSource, announcement(), failure);
        if (result == Attempt::Ok) result = call(service, build(), failure);
        if (result == Attempt::Unannounced) result = Attempt::Transient;
    }
    if (result == Attempt::Ok && isAnnouncement) {
        announced_ = true;
        announcedAt_ = forgotten;
    }
    return result;
}

LogPushClient::Attempt LogPushClient::connectOnce(std::string& failure) {
    const int status = settings_.bus.connect(*this, name_.c_str());
    if (status == KIB_OK) {
        connected_ = true;
        linkUp_ = true;
        // Without the listener a clean restart of an idle collector goes unnoticed until a
        // request fails; everything else works the same, so a failure here is let pass.
        AddServiceAvailabilityListener(settings_.satellite.c_str());
        return Attempt::Ok;
    }
    failure = lastConnectError();
    if (failure.empty()) failure = KibStatusText(status);
    if (status == KIB_E_NOT_PERMITTED) {
        failure = credentialsRefused(failure, false);
        return Attempt::NotPermitted;
    }
    return isTransient(status) ? Attempt::Transient : Attempt::Invalid;
}

std::string LogPushClient::credentialsRefused(const std::string& refusal, bool revoked) const {
    const std::string& file = settings_.bus.connection.credentialsFile;
    const std::string server = "the bus server at " + settings_.bus.displayHost();
    if (file.empty()) {
        return server + " requires this device's credentials (" + refusal +
               "): pass its credentials file with --creds FILE, or name it in the setting " +
               "kibDirectory.credsFile (nimb-bus-setup add-device NAME issues one)";
    }
    if (revoked) {
        return server + " no longer accepts the credentials in " + file + " (" + refusal +
               "): they were revoked or replaced (nimb-bus-setup add-device issues new ones)";
    }
    return server + " refused the credentials in " + file + " (" + refusal +
           "): unknown, revoked or for another bus";
}

LogPushClient::Attempt LogPushClient::call(const char* service, const KibVariantHolder& request,
                                           std::string& failure) {
    KibReply reply;
    Call(settings_.satellite.c_str(), service, request.get(), &reply, settings_.timeoutMs);
    if (!reply.failed()) {
        if (reply.status == 0) return Attempt::Ok;
        failure = std::string(service) + ": returned status " + std::to_string(reply.status);
        if (reply.status == kUnknownSourceStatus && service == std::string(kAppendLog)) {
            if (reply.value.vt() == VT_BSTR && reply.value.get().bstrVal != nullptr)
                failure = reply.value.get().bstrVal;
            return Attempt::Unannounced;
        }
        return Attempt::Refused;
    }
    failure = reply.errorText;
    if (reply.errorKind == KibErrorKind::Local && reply.status == KIB_E_NOT_PERMITTED) {
        failure = std::string(service) + ": " + failure;
        return Attempt::NotPermitted;
    }
    if (isTransient(reply)) {
        if (reply.errorKind != KibErrorKind::Local && reply.errorKind != KibErrorKind::KibException)
            failure = std::string(service) + ": " + failure;
        return Attempt::Transient;
    }
    // The collector is busy with this device's earlier text, or closed the log to make
    // room for others: both pass; the retry announces the log again first.
    if (reply.errorKind == KibErrorKind::KibException &&
        (reply.errorCode == kCollectorBusy || reply.errorCode == kLogClosed)) {
        return Attempt::Transient;
    }
    // Handler exceptions carry the collector's own text ("SetLogSource: invalid addr: ...");
    // other failures get the service's name in front.
    if (reply.errorKind == KibErrorKind::Local || reply.errorKind == KibErrorKind::Library) {
        failure = std::string(service) + ": " + failure;
    }
    return Attempt::Refused;
}

// [MAC address, device id, display name, device time, [log names]]
KibVariantHolder LogPushClient::announcement() const {
    KibVariantHolder names;
    VUtil::CreateArray(names.edit(), VT_BSTR, settings_.logNames.size());
    for (std::size_t i = 0; i < settings_.logNames.size(); ++i) {
        VUtil::PutElement(names.edit(), static_cast<int>(i), CStdStr(settings_.logNames[i]));
    }
    KibVariantHolder request;
    VUtil::CreateArray(request.edit(), VT_VARIANT, 5);
    VUtil::PutElement(request.edit(), 0, CStdStr(settings_.macAddress));
    VUtil::PutElement(request.edit(), 1, CStdStr(settings_.deviceId));
    VUtil::PutElement(request.edit(), 2, CStdStr(settings_.displayName));
    VUtil::PutDateElement(request.edit(), 3, static_cast<long>(std::time(nullptr)));
    VUtil::PutElement(request.edit(), 4, names.get());
    return request;
}

// [MAC address, log name, content] and, unless turned off, the device time.
KibVariantHolder LogPushClient::appendRequest(const std::string& logName,
                                              std::string_view content) const {
    KibVariantHolder request;
    VUtil::CreateArray(request.edit(), VT_VARIANT, settings_.sendTime ? 4 : 3);
    VUtil::PutElement(request.edit(), 0, CStdStr(settings_.macAddress));
    VUtil::PutElement(request.edit(), 1, CStdStr(logName));
    VUtil::PutElement(request.edit(), 2, CStdStr(content.data(), content.size()));
    if (settings_.sendTime) {
        VUtil::PutDateElement(request.edit(), 3, static_cast<long>(std::time(nullptr)));
    }
    return request;
}
