// SPDX-License-Identifier: MIT
#include "StatsClient.h"

#include <exception>

#include <unistd.h>

#include "KibSatellite.h"
#include "KibVariantHolder.h"
#include "VUtil.h"

namespace {

constexpr int kCallTimeoutMs = 1000;
constexpr auto kRetryDelay = std::chrono::seconds(3);

// Reads the name/value pairs of a GetStats reply.
void readPairs(const tagVARIANT& list, std::map<std::string, std::int64_t>& values) {
    if (list.vt != (VT_ARRAY | VT_VARIANT)) return;
    const int count = VUtil::GetArrayLength(list);
    for (int i = 0; i < count; ++i) {
        KibVariantHolder pair;
        VUtil::GetElement(list, i, pair.edit());
        if (pair.get().vt != (VT_ARRAY | VT_VARIANT) || VUtil::GetArrayLength(pair.get()) != 2)
            continue;
        KibVariantHolder name, value;
        VUtil::GetElement(pair.get(), 0, name.edit());
        VUtil::GetElement(pair.get(), 1, value.edit());
        if (name.get().vt != VT_BSTR || name.get().bstrVal == nullptr) continue;
        std::int64_t number = 0;
        switch (value.get().vt) {
            case VT_I8:
                number = value.get().llVal;
                break;
            case VT_I4:
                number = value.get().lVal;
                break;
            case VT_BOOL:
                number = value.get().boolVal != 0 ? 1 : 0;
                break;
            default:
                continue;
        }
        values[name.get().bstrVal] = number;
    }
}

}  // namespace

StatsClient::StatsClient(NimbBusSettings bus) : bus_(std::move(bus)) {}

StatsClient::~StatsClient() = default;

bool StatsClient::connectLocked() {
    if (satellite_) return true;
    const auto now = std::chrono::steady_clock::now();
    if (now < nextAttempt_) return false;
    nextAttempt_ = now + kRetryDelay;
    auto satellite = std::make_unique<KibSatellite>();
    const std::string name = "nimb-web-" + std::to_string(::getpid());
    if (bus_.connect(*satellite, name.c_str()) != KIB_OK) return false;
    satellite_ = std::move(satellite);
    return true;
}

StatsClient::Stats StatsClient::fetch() {
    Stats stats;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!connectLocked()) {
        stats.error = QStringLiteral("cannot connect to the bus at %1")
                          .arg(QString::fromStdString(bus_.displayHost()));
        return stats;
    }
    KibVariantHolder empty;
    KibReply reply;
    satellite_->Call("RemoteLogger", "GetStats", empty.get(), &reply, kCallTimeoutMs);
    if (reply.failed() || reply.status != 0) {
        stats.error = QStringLiteral("the collector did not answer: %1")
                          .arg(QString::fromStdString(reply.errorText));
        return stats;
    }
    stats.reachable = true;
    try {
        readPairs(reply.value.get(), stats.values);
    } catch (const std::exception& e) {
        // A malformed reply: report what was read so far, with the reason.
        stats.error = QStringLiteral("unreadable counters: %1").arg(QString::fromUtf8(e.what()));
    }
    return stats;
}
