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

// Reads the "refusals" pair: arrays of [time, account, source, request, reason].
void readRefusals(const tagVARIANT& list, std::vector<StatsClient::Stats::Refusal>& refusals) {
    if (list.vt != (VT_ARRAY | VT_VARIANT)) return;
    for (int i = 0; i < VUtil::GetArrayLength(list); ++i) {
        KibVariantHolder pair, name, value;
        VUtil::GetElement(list, i, pair.edit());
        if (pair.get().vt != (VT_ARRAY | VT_VARIANT) || VUtil::GetArrayLength(pair.get()) != 2)
            continue;
        VUtil::GetElement(pair.get(), 0, name.edit());
        VUtil::GetElement(pair.get(), 1, value.edit());
        if (name.get().vt != VT_BSTR || name.get().bstrVal == nullptr ||
            std::string(name.get().bstrVal) != "refusals" ||
            value.get().vt != (VT_ARRAY | VT_VARIANT))
            continue;
        for (int r = 0; r < VUtil::GetArrayLength(value.get()); ++r) {
            KibVariantHolder entry;
            VUtil::GetElement(value.get(), r, entry.edit());
            if (entry.get().vt != (VT_ARRAY | VT_VARIANT) ||
                VUtil::GetArrayLength(entry.get()) != 5)
                continue;
            KibVariantHolder time;
            VUtil::GetElement(entry.get(), 0, time.edit());
            StatsClient::Stats::Refusal refusal;
            refusal.timeMs = time.get().vt == VT_I8 ? time.get().llVal : 0;
            std::string* texts[] = {&refusal.account, &refusal.source, &refusal.request,
                                    &refusal.reason};
            bool good = true;
            for (int t = 0; t < 4 && good; ++t) {
                KibVariantHolder part;
                VUtil::GetElement(entry.get(), t + 1, part.edit());
                good = part.get().vt == VT_BSTR;
                if (good && part.get().bstrVal != nullptr)
                    texts[t]->assign(part.get().bstrVal, SysStringLen(part.get().bstrVal));
            }
            if (good) refusals.push_back(std::move(refusal));
        }
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
    PMutexLocker lock(mutex_);
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
        readRefusals(reply.value.get(), stats.refusals);
    } catch (const std::exception& e) {
        // A malformed reply: report what was read so far, with the reason.
        stats.error = QStringLiteral("unreadable counters: %1").arg(QString::fromUtf8(e.what()));
    }
    return stats;
}
