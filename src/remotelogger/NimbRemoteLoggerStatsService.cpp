// SPDX-License-Identifier: MIT
// The collector's "GetStats" service and the counting around every request: which
// requests were served, which failed and why, whether the bus connection is up, and what
// the syslog listeners counted.
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "CollectorStats.h"
#include "DeviceLogHistory.h"
#include "DeviceLogIndex.h"
#include "KibException.h"
#include "KibVariantHolder.h"
#include "NimbRemoteLoggerSatellite.h"
#include "VUtil.h"

namespace {

void putCounter(tagVARIANT& list, int index, const char* name, std::uint64_t value) {
    KibVariantHolder number;
    number.edit().vt = VT_I8;
    number.edit().llVal = static_cast<std::int64_t>(value);
    VUtil::PutPair(list, index, name, number.get());
}

CollectorStats::ErrorKind kindOf(const KibException& e) {
    if (dynamic_cast<const KibInvalidParameterException*>(&e) != nullptr) {
        return CollectorStats::ErrorKind::Invalid;
    }
    if (e.code() == NimbRemoteLoggerSatellite::kBusyCode) return CollectorStats::ErrorKind::Busy;
    return CollectorStats::ErrorKind::Other;
}

// ["refusals", [[time ms, account, source, request, reason], ...]]: the identity and
// inbox refusals kept, oldest first.
void putRefusals(tagVARIANT& list, int index,
                 const std::vector<RemoteLogRefusals::Refusal>& refusals) {
    KibVariantHolder all;
    VUtil::CreateArray(all.edit(), VT_VARIANT, refusals.size());
    for (std::size_t i = 0; i < refusals.size(); ++i) {
        const RemoteLogRefusals::Refusal& r = refusals[i];
        KibVariantHolder entry;
        VUtil::CreateArray(entry.edit(), VT_VARIANT, 5);
        KibVariantHolder time;
        time.edit().vt = VT_I8;
        time.edit().llVal = r.timeMs;
        VUtil::PutElement(entry.edit(), 0, time.get());
        const std::string* texts[] = {&r.account, &r.source, &r.request, &r.reason};
        for (int t = 0; t < 4; ++t) VUtil::PutElement(entry.edit(), t + 1, CStdStr(*texts[t]));
        VUtil::PutElement(all.edit(), static_cast<int>(i), entry.get());
    }
    VUtil::PutPair(list, index, "refusals", all.get());
}

}  // namespace

std::vector<std::pair<std::string, std::uint64_t>> NimbRemoteLoggerSatellite::counters() const {
    const CollectorStats& stats = CollectorStats::global();
    const SyslogCounters& syslog = stats.syslog();
    using Kind = CollectorStats::ErrorKind;
    std::vector<std::pair<std::string, std::uint64_t>> counters = {
        {"requests", stats.requests()},
        {"linesWritten", stats.linesWritten()},
        {"bytesWritten", stats.bytesWritten()}};
    for (const Kind kind : {Kind::Invalid, Kind::Busy, Kind::Write, Kind::Unknown, Kind::Other})
        counters.emplace_back(std::string("errors.") + CollectorStats::kindName(kind),
                              stats.errors(kind));
    counters.insert(counters.end(), {{"queueDepth", backlog->queuedCalls()},
                                     {"queueBytes", backlog->queuedBytes()},
                                     {"connected", stats.connected() ? 1 : 0}});
    for (const auto& [name, counter] : SyslogCounters::kNamed)
        counters.emplace_back(name, (syslog.*counter).load(std::memory_order_relaxed));
    const DeviceLogHistory::Stats history =
        stores.history ? stores.history->stats() : DeviceLogHistory::Stats();
    counters.insert(counters.end(),
                    {{"history.bytes", history.bytes},
                     {"history.files", history.files},
                     {"history.removedFiles", history.removedFiles},
                     {"history.removedBytes", history.removedBytes},
                     {"index.bytes", stores.index ? stores.index->sizeBytes() : 0},
                     {"refused.identity", refusals.count(RemoteLogRefusals::Kind::Identity)},
                     {"refused.inbox", refusals.count(RemoteLogRefusals::Kind::Inbox)}});
    return counters;
}

int NimbRemoteLoggerSatellite::KibServiceGetStats(const char*, const tagVARIANT&, tagVARIANT* out) {
    const std::vector<std::pair<std::string, std::uint64_t>> counters = this->counters();
    VUtil::CreateArray(*out, VT_VARIANT, counters.size() + 1);
    for (std::size_t i = 0; i < counters.size(); ++i)
        putCounter(*out, static_cast<int>(i), counters[i].first.c_str(), counters[i].second);
    putRefusals(*out, static_cast<int>(counters.size()), refusals.recent());
    return 0;
}

int NimbRemoteLoggerSatellite::OnServiceRequested(int requestId, const char* caller,
                                                  const char* service, tagVARIANT in,
                                                  tagVARIANT* out, int* result) {
    // A request that passes the checks is answered later (RemoteLogReply counts how);
    // here only the requests refused at once by an exception are counted.
    CollectorStats& stats = CollectorStats::global();
    const bool counted = std::string(service != nullptr ? service : "") != "GetStats";
    try {
        return KibSatellite::OnServiceRequested(requestId, caller, service, in, out, result);
    } catch (const KibException& e) {
        // Identity refusals are counted apart (refused.identity).
        const bool identity = e.code() == kSourceRefusedCode || e.code() == kAppendRefusedCode;
        if (counted && !identity) stats.countError(kindOf(e));
        throw;
    } catch (...) {
        if (counted) stats.countError(CollectorStats::ErrorKind::Other);
        throw;
    }
}

void NimbRemoteLoggerSatellite::OnRequestRefused(const char* service, const char* user,
                                                 const char* reason) {
    refusals.record(RemoteLogRefusals::Kind::Inbox,
                    {0, user != nullptr ? user : "", "", service != nullptr ? service : "",
                     std::string("reply subject ") + (reason != nullptr ? reason : "")});
}

void NimbRemoteLoggerSatellite::OnStatusChange(int reason, KIBSTATUS status) {
    CollectorStats::global().setConnected(status == KIBSTATUS_CONNECTED);
    KibSatellite::OnStatusChange(reason, status);
}
