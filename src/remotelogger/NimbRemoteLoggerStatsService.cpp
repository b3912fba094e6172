// SPDX-License-Identifier: MIT
// The collector's "GetStats" service and the counting around every request: which
// requests were served, which failed and why, and whether the bus connection is up.
#include <exception>

#include "CollectorStats.h"
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

}  // namespace

int NimbRemoteLoggerSatellite::KibServiceGetStats(const char*, const tagVARIANT&, tagVARIANT* out) {
    const CollectorStats& stats = CollectorStats::global();
    using Kind = CollectorStats::ErrorKind;
    VUtil::CreateArray(*out, VT_VARIANT, 11);
    int i = 0;
    putCounter(*out, i++, "requests", stats.requests());
    putCounter(*out, i++, "linesWritten", stats.linesWritten());
    putCounter(*out, i++, "bytesWritten", stats.bytesWritten());
    for (const Kind kind : {Kind::Invalid, Kind::Busy, Kind::Write, Kind::Unknown, Kind::Other}) {
        putCounter(*out, i++, (std::string("errors.") + CollectorStats::kindName(kind)).c_str(),
                   stats.errors(kind));
    }
    putCounter(*out, i++, "queueDepth", backlog->queuedCalls());
    putCounter(*out, i++, "queueBytes", backlog->queuedBytes());
    putCounter(*out, i++, "connected", stats.connected() ? 1 : 0);
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
        if (counted) stats.countError(kindOf(e));
        throw;
    } catch (...) {
        if (counted) stats.countError(CollectorStats::ErrorKind::Other);
        throw;
    }
}

void NimbRemoteLoggerSatellite::OnStatusChange(int reason, KIBSTATUS status) {
    CollectorStats::global().setConnected(status == KIBSTATUS_CONNECTED);
    KibSatellite::OnStatusChange(reason, status);
}
