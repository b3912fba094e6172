// SPDX-License-Identifier: MIT
#include "SyslogStore.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <sys/stat.h>

#include "CBBLog.h"
#include "DeviceLogHeader.h"
#include "DeviceLogNames.h"
#include "DeviceLogWriter.h"
#include "SyslogClientList.h"
#include "SyslogParser.h"

namespace {

const char* const kDefaultApp = "syslog";
// A file's gathered lines are handed on at this size even before the round ends.
constexpr std::size_t kFlushSize = 64 * 1024;

bool isPrintableAscii(const std::string& text) {
    for (const char c : text) {
        if (c <= ' ' || c >= 0x7F) return false;
    }
    return true;
}

std::string localTime(long long seconds) { return SyslogClock::formatTime(seconds, true); }

// Remote text quoted in a log entry: inert and short.
std::string quoted(const std::string& text) {
    std::string out = "\"";
    SyslogParser::appendInert(out, std::string_view(text).substr(0, 64));
    if (text.size() > 64) out += "...";
    return out + "\"";
}

}  // namespace

SyslogStore::SyslogStore(const SyslogSettings& settings, SyslogCounters& counters,
                         std::shared_ptr<DeviceLogWriter> writer, SyslogClientList* clients)
    : settings_(settings),
      logsDir_(CBBLog::getLogsDirectory()),
      counters_(counters),
      writer_(std::move(writer)),
      clients_(clients) {}

SyslogStore::~SyslogStore() { flush(); }

std::string SyslogStore::senderName(const std::string& hostname, const std::string& address,
                                    std::string& reason) {
    reason.clear();
    if (hostname.empty()) return address;
    if (DeviceLogNames::hasSeparator(hostname)) {
        reason = "holds \"/\" or \"\\\"";
    } else if (!isPrintableAscii(hostname)) {
        reason = "holds control characters, blanks or non-ASCII bytes";
    } else if (hostname[0] == '.') {
        reason = "starts with \".\"";
    } else if (fileName(hostname, kDefaultApp).size() > DeviceLogNames::kMaxFileName) {
        reason = "file name longer than 250 bytes";
    }
    return reason.empty() ? hostname : address;
}

std::string SyslogStore::fileName(const std::string& sender, const std::string& appName) {
    if (!appName.empty() && isPrintableAscii(appName)) {
        const std::string id = DeviceLogNames::logId("", appName);
        const std::string name = DeviceLogNames::fileName(sender, id);
        if (id != "-" && DeviceLogNames::isPlainFileName(name)) return name;
    }
    return DeviceLogNames::fileName(sender, DeviceLogNames::logId("", kDefaultApp));
}

void SyslogStore::add(std::string_view bytes, std::size_t cutBytes, const std::string& address,
                      long long arrivalMs, const std::string& certName) {
    SyslogMessage& message = message_;
    SyslogParser::parseInto(bytes, static_cast<std::size_t>(settings_.maxMessageSize), message);
    arrivalMs_ = arrivalMs;
    message.truncatedBytes += cutBytes;
    if (message.text.empty()) return;  // an empty line between messages
    const Route* route = findRoute(message, address, certName);
    if (route == nullptr) return;
    if (!route->refusal.empty()) {
        ++counters_.refusedNames;
        nameLog_.error("Syslog: refused host name " + quoted(message.hostname) + " from " +
                       address + ": " + route->refusal + "; filed under the address");
    }
    Sender& sender = *route->sender;
    Log& log = *route->log;
    const long long arrival = arrivalMs / 1000;
    sender.clock.addSample(message.stamp, arrivalMs);
    if (!log.logger) {
        ++counters_.refusedFiles;
        return;
    }
    const bool known = sender.clock.isKnown();
    if (!log.headerWritten ||
        (known && (!log.headerKnown || std::llabs(sender.clock.offsetSeconds() - log.headerOffset) >
                                           settings_.clockThreshold)))
        appendHeader(log, sender, *route, address, arrival);
    appendLine(log, sender, message, arrival);
}

std::string SyslogStore::uncertifiedName(const std::string& hostname, const std::string& address,
                                         std::string& reason) const {
    const std::string name = senderName(hostname, address, reason);
    if (clients_ == nullptr || name == address || !clients_->isListed(name)) return name;
    reason = "it is the name of a sender with a client certificate";
    return address;
}

const SyslogStore::Route* SyslogStore::findRoute(const SyslogMessage& message,
                                                 const std::string& address,
                                                 const std::string& certName) {
    // Routes of senders without certificate follow the list of certificate holders.
    if (clients_ != nullptr && clients_->refresh(arrivalMs_) != clientsGeneration_) {
        clientsGeneration_ = clients_->generation();
        routes_.clear();
    }
    routeKey_.assign(certName);
    routeKey_ += '\n';
    routeKey_ += address;
    routeKey_ += '\n';
    routeKey_ += message.hostname;
    routeKey_ += '\n';
    routeKey_ += message.appName;
    const auto found = routes_.find(routeKey_);
    if (found != routes_.end()) return &found->second;
    Route route;
    route.certified = !certName.empty();
    route.name =
        route.certified ? certName : uncertifiedName(message.hostname, address, route.refusal);
    route.sender = findSender(route.name, address);
    if (route.sender == nullptr) return nullptr;  // past the cap: looked at again next time
    route.log = findLog(*route.sender, route.name, message);
    // Senders choose the keys: forgotten wholesale now and then (they are rebuilt from
    // the maps above, which hold what matters).
    if (routes_.size() >= kMaxRoutes) routes_.clear();
    return &routes_.emplace(routeKey_, std::move(route)).first->second;
}

SyslogStore::Sender* SyslogStore::findSender(const std::string& name, const std::string& address) {
    const auto found = senders_.find(name);
    if (found != senders_.end()) return &found->second;
    if (senders_.size() >= static_cast<std::size_t>(settings_.maxSenders)) {
        ++counters_.senderCapDropped;
        senderCapLog_.error("Syslog: too many senders: at most " +
                            std::to_string(settings_.maxSenders) + "; dropped a line from " +
                            quoted(name) + " (" + address + ")");
        return nullptr;
    }
    Sender* sender = &senders_.try_emplace(name, settings_.clockThreshold).first->second;
    counters_.senders.store(senders_.size(), std::memory_order_relaxed);
    return sender;
}

SyslogStore::Log* SyslogStore::findLog(Sender& sender, const std::string& name,
                                       const SyslogMessage& message) {
    std::string file = fileName(name, message.appName);
    auto found = logs_.find(file);
    if (found != logs_.end()) return found->second.get();
    // Past the sender's application cap, further applications share its "syslog" file.
    if (sender.apps >= settings_.maxAppsPerSender) {
        file = fileName(name, kDefaultApp);
        found = logs_.find(file);
        if (found != logs_.end()) return found->second.get();
    }
    ++sender.apps;
    return openLog(file);
}

SyslogStore::Log* SyslogStore::openLog(const std::string& file) {
    auto log = std::make_unique<Log>();
    log->file = file;
    // Only a plain file (or none yet) is written: a link planted at the name could point
    // anywhere.
    struct stat info {};
    const std::string path = logsDir_ + "/" + file;
    if (lstat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        fileLog_.error("Syslog: refused log file " + quoted(file) +
                       ": it exists and is not a plain file; its lines are dropped");
    } else {
        log->logger.reset(
            new CBBLog(file, false, DeviceLogWriter::kRotateSize, writer_->open(file)));
    }
    Log* raw = log.get();
    logs_[file] = std::move(log);
    return raw;
}

void SyslogStore::appendHeader(Log& log, Sender& sender, const Route& route,
                               const std::string& address, long long arrivalSeconds) {
    std::string clock = " clock unknown";
    std::string senderTime = localTime(arrivalSeconds);
    if (sender.clock.isKnown()) {
        const long long offset = sender.clock.offsetSeconds();
        char text[96];
        std::snprintf(text, sizeof(text), " clock %+lld s%s", offset,
                      std::llabs(offset) > settings_.clockThreshold ? ", stamps rewritten" : "");
        clock = text;
        senderTime = sender.clock.senderTime(arrivalSeconds);
        log.headerKnown = true;
        log.headerOffset = offset;
    }
    log.headerWritten = true;
    const std::string how = route.certified ? " certified" : "";
    writeHeader(log, route, address,
                DeviceLogHeader::line(route.name, "syslog " + address + how + clock, senderTime,
                                      localTime(arrivalSeconds)),
                sender.clock.isKnown(), sender.clock.offsetSeconds());
}

void SyslogStore::appendLine(Log& log, Sender& sender, SyslogMessage& message,
                             long long arrivalSeconds) {
    if (message.stamp.present) {
        const long long offset = sender.clock.offsetSeconds();
        if (std::llabs(offset) > settings_.clockThreshold) {
            log.pending += sender.clock.rewrite(message.stamp, arrivalSeconds);
            log.pending.append(message.text, message.stampLength, std::string::npos);
        } else {
            log.pending += message.text;
        }
    } else {
        // No stamp of its own: the arrival time, as a converted stamp would read.
        log.pending += localTime(arrivalSeconds);
        log.pending += ' ';
        log.pending += message.text;
    }
    notePending(
        log, message, arrivalMs_,
        message.stamp.present && std::llabs(sender.clock.offsetSeconds()) > settings_.clockThreshold
            ? -sender.clock.offsetSeconds()
            : 0);
    if (message.truncatedBytes != 0) {
        ++counters_.truncated;
        log.pending += " [truncated: " + std::to_string(message.truncatedBytes) + " bytes cut]";
    }
    log.pending += '\n';
    ++counters_.lines;
    if (log.pending.size() >= kFlushSize) {
        flushLog(log);
    } else if (!log.inFlush) {
        log.inFlush = true;
        dirty_.push_back(&log);
    }
}

void SyslogStore::notePending(Log& log, const SyslogMessage& message, long long arrivalMs,
                              long long offset) {
    if (log.pending.empty() || log.pendingArrivalMs == 0) log.pendingArrivalMs = arrivalMs;
    log.pendingOffset = offset;
    if (message.priority < 0) {
        log.pendingAllPrioritized = false;
    } else {
        log.pendingSeverities |=
            static_cast<std::uint16_t>(1u << static_cast<unsigned>(message.priority % 8));
    }
}

void SyslogStore::writeHeader(Log& log, const Route& route, const std::string& address,
                              std::string header, bool clockKnown, long long offset) {
    flushLog(log);
    DeviceLogIndex::Identity identity;
    identity.deviceId = route.name;
    identity.displayName = route.name;
    // The name was proven by a certificate, as a bus account proves a device's.
    if (route.certified) identity.account = "tls:" + route.name;
    identity.peer = address;
    writer_->setIdentity(log.file, identity);
    LogTextInfo info;
    info.header = true;
    info.receivedMs = arrivalMs_;
    info.hasDeviceTime = clockKnown;
    info.deviceTime = arrivalMs_ / 1000 + offset;
    info.clockOffset = -offset;
    log.logger->AddRawLog(CStdStr(std::move(header)), std::shared_ptr<LogWriteListener>(), info);
}

void SyslogStore::flushLog(Log& log) {
    if (log.pending.empty()) return;
    LogTextInfo info;
    info.receivedMs = log.pendingArrivalMs;
    info.clockOffset = log.pendingOffset;
    // The priorities say each line's severity; a line without one is read from its text.
    info.severities = log.pendingAllPrioritized ? log.pendingSeverities : 0;
    // Handed over whole: the writer takes the bytes as they are.
    log.logger->AddRawLog(CStdStr(std::move(log.pending)), std::shared_ptr<LogWriteListener>(),
                          info);
    log.pending.clear();
    log.pendingArrivalMs = 0;
    log.pendingSeverities = 0;
    log.pendingAllPrioritized = true;
}

void SyslogStore::flush() {
    for (Log* log : dirty_) {
        flushLog(*log);
        log->inFlush = false;
    }
    dirty_.clear();
}
