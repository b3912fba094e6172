// SPDX-License-Identifier: MIT
#include "LogCatalog.h"

#include <algorithm>
#include <cstring>
#include <set>

#include "SafeFolder.h"

namespace {

constexpr std::size_t kMacDigits = 12;
constexpr std::uint64_t kMaxScan = 64ull << 20;  // what one refresh reads of a file at most
const std::string kBack = ".back";

bool isHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Whether a name was split at a MAC address (rather than at a sender's name).
bool splitAtMac(const LogCatalog::NameParts& parts) {
    return parts.mac.size() == kMacDigits && std::all_of(parts.mac.begin(), parts.mac.end(), isHex);
}

// Whether `name` is "<sender>-..." for this sender.
bool startsWithSender(std::string_view name, std::string_view sender) {
    return !sender.empty() && name.size() > sender.size() && name[sender.size()] == '-' &&
           name.compare(0, sender.size(), sender) == 0;
}

// The name of the log's current file: `name` without the ".back" its parts found.
std::string currentName(const std::string& name, const LogCatalog::NameParts& parts) {
    return parts.back ? name.substr(0, name.size() - kBack.size()) : name;
}

}  // namespace

LogCatalog::LogCatalog(std::string folder) : folder_(std::move(folder)), index_(folder_) {}

std::int64_t LogCatalog::activityEnd(std::int64_t now) {
    const std::int64_t bin = kBinMinutes * 60;
    return (now / bin + 1) * bin;
}

bool LogCatalog::splitFileName(const std::string& name, NameParts& parts,
                               const std::vector<std::string_view>& senders) {
    std::string base = name;
    parts.back = base.size() > kBack.size() &&
                 base.compare(base.size() - kBack.size(), kBack.size(), kBack) == 0;
    if (parts.back) base.resize(base.size() - kBack.size());
    std::size_t dash = std::string::npos;
    for (std::size_t at = base.find('-'); at != std::string::npos; at = base.find('-', at + 1)) {
        if (at < kMacDigits) continue;
        if (std::all_of(base.begin() + static_cast<long>(at - kMacDigits),
                        base.begin() + static_cast<long>(at), isHex)) {
            dash = at;
            break;
        }
    }
    if (dash != std::string::npos) {
        parts.mac = base.substr(dash - kMacDigits, kMacDigits);
        parts.deviceId = base.substr(0, dash - kMacDigits);
    } else {
        for (const std::string_view sender : senders) {
            if (startsWithSender(base, sender)) {
                dash = sender.size();
                break;
            }
        }
        if (dash == std::string::npos) dash = base.find('-');
        if (dash == std::string::npos || dash == 0) return false;
        parts.mac = base.substr(0, dash);
        parts.deviceId.clear();
    }
    parts.key = base.substr(0, dash);
    parts.logName = base.substr(dash + 1);
    return true;
}

void LogCatalog::shiftBins(Summary& summary, std::int64_t end) {
    if (summary.end == end) return;
    const std::int64_t moved = (end - summary.end) / (kBinMinutes * 60);
    Activity shifted{};
    if (moved > 0 && moved < kBins) {
        std::copy(summary.bins.begin() + moved, summary.bins.end(), shifted.begin());
    }
    summary.bins = shifted;
    summary.end = end;
}

void LogCatalog::scan(const std::string& text, std::int64_t end, Summary& summary) {
    LogText::StampReader stamps;
    const std::int64_t start = end - static_cast<std::int64_t>(kBins) * kBinMinutes * 60;
    const char* p = text.data();
    const char* const stop = p + text.size();
    while (p < stop) {
        const char* nl = static_cast<const char*>(std::memchr(p, '\n', stop - p));
        const char* lineEnd = nl != nullptr ? nl : stop;
        const std::string_view line(p, lineEnd - p);
        std::int64_t when = 0;
        if (!line.empty() && line[0] == '=' && LogText::parseHeader(line, summary.header)) {
            summary.hasHeader = true;
        } else if (!line.empty()) {
            if (stamps.read(line, when)) summary.lastStamp = when;
            when = summary.lastStamp;
            if (when >= start && when < end) {
                ++summary.bins[static_cast<std::size_t>((when - start) / (kBinMinutes * 60))];
            }
        }
        p = lineEnd + 1;
    }
}

void LogCatalog::refresh(const std::string& name, std::uint64_t inode, std::uint64_t size,
                         std::int64_t end, Summary& summary) {
    if (summary.inode != inode || size < summary.scanned) summary = Summary{};
    summary.inode = inode;
    if (summary.end == 0) summary.end = end;
    shiftBins(summary, end);
    if (size == summary.scanned) return;
    struct stat st {};
    const UniqueFd fd = SafeFolder::openRegular(folder_, name, &st);
    if (!fd.valid()) return;
    std::uint64_t from = summary.scanned;
    if (size - from > kMaxScan) from = size - kMaxScan;  // a huge file: its tail only
    std::string text;
    if (!SafeFolder::readAt(fd.get(), from, size - from, text)) return;
    const std::size_t complete = text.rfind('\n');
    if (complete == std::string::npos) return;
    text.resize(complete + 1);
    scan(text, end, summary);
    summary.scanned = from + text.size();
}

std::vector<LogCatalog::Named> LogCatalog::classify(std::int64_t end) {
    std::vector<SafeFolder::Entry> entries = SafeFolder::listRegular(folder_);
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.name < b.name; });
    std::vector<Named> files;
    std::set<std::string> present;
    for (SafeFolder::Entry& entry : entries) {
        NameParts parts;
        if (!splitFileName(entry.name, parts)) continue;
        present.insert(entry.name);
        Summary& summary = summaries_[entry.name];
        refresh(entry.name, entry.inode, entry.size, end, summary);
        files.push_back({std::move(entry), std::move(parts), &summary});
    }
    // Forget files that went away, so the cache stays as small as the folder.
    for (auto it = summaries_.begin(); it != summaries_.end();) {
        it = present.count(it->first) != 0 ? std::next(it) : summaries_.erase(it);
    }

    // A file without a MAC address in its name may be a syslog sender's
    // "<sender>-<application>", where both may hold "-": the sender's name is the one its
    // header lines give. A log's current file and its ".back" share the newer header
    // (after a rotation only one of them may have one); a file without any (a sender
    // whose clock stayed put writes its header once) takes the longest sender name of
    // the folder's other files that it starts with.
    std::map<std::string, std::string_view> ownSender;  // by current file name
    std::vector<std::string_view> senders;
    for (const Named& file : files) {
        const std::string& name = file.entry.name;
        const std::string& header = file.summary->header.displayName;
        if (!file.summary->hasHeader || splitAtMac(file.parts) || !startsWithSender(name, header))
            continue;
        const std::string current = currentName(name, file.parts);
        if (!file.parts.back || ownSender.count(current) == 0) ownSender[current] = header;
        senders.push_back(header);
    }
    if (senders.empty()) return files;
    std::sort(senders.begin(), senders.end(), [](std::string_view a, std::string_view b) {
        return a.size() != b.size() ? a.size() > b.size() : a < b;
    });
    senders.erase(std::unique(senders.begin(), senders.end()), senders.end());
    std::vector<std::string_view> candidates;
    for (Named& file : files) {
        const std::string& name = file.entry.name;
        const std::string current = currentName(name, file.parts);
        candidates.clear();
        const auto own = ownSender.find(current);
        if (own != ownSender.end()) candidates.push_back(own->second);
        candidates.insert(candidates.end(), senders.begin(), senders.end());
        splitFileName(name, file.parts, candidates);
    }
    return files;
}

std::vector<LogCatalog::Device> LogCatalog::devices(std::int64_t now) {
    const std::int64_t end = activityEnd(now);
    std::map<std::string, Device> byKey;
    static_assert(LogIndexView::kBins == kBins && LogIndexView::kBinMinutes == kBinMinutes);
    const bool indexed = index_.available();
    const std::map<std::string, LogIndexView::LogFacts> facts =
        indexed ? index_.facts(end) : std::map<std::string, LogIndexView::LogFacts>{};
    std::set<std::string> counted;  // logs whose index facts were taken
    PMutexLocker lock(mutex_);
    for (const Named& file : classify(end)) {
        const SafeFolder::Entry& entry = file.entry;
        const NameParts& parts = file.parts;
        const Summary& summary = *file.summary;
        Device& device = byKey[parts.key];
        device.key = parts.key;
        device.deviceId = parts.deviceId;
        device.mac = parts.mac;
        const std::string current = currentName(entry.name, parts);
        auto log = std::find_if(device.logs.begin(), device.logs.end(),
                                [&](const LogInfo& l) { return l.file == current; });
        if (log == device.logs.end()) {
            device.logs.push_back({current, parts.logName, 0, 0, false});
            log = device.logs.end() - 1;
        }
        log->size += entry.size;
        log->lastWrite = std::max(log->lastWrite, entry.mtime);
        log->hasBack = log->hasBack || parts.back;
        device.size += entry.size;
        device.lastWrite = std::max(device.lastWrite, entry.mtime);
        if (indexed) {
            // A log's facts cover its current file, ".back" and history: taken once,
            // with whichever of its files comes first (a log may have only its ".back",
            // its current file removed or not written since a rotation).
            device.indexed = true;
            const auto known = facts.find(current);
            if (known == facts.end() || !counted.insert(current).second) continue;
            const LogIndexView::LogFacts& indexFacts = known->second;
            for (int c = 0; c < LogIndexView::kClasses; ++c) {
                for (int i = 0; i < kBins; ++i) {
                    device.bySeverity[c][i] += indexFacts.activity[c][i];
                    device.activity[i] += indexFacts.activity[c][i];
                }
            }
            if (!indexFacts.source.displayName.empty() && device.sourceName.empty())
                device.sourceName = indexFacts.source.displayName;
            if (indexFacts.hasHeader &&
                (!device.hasHeader || indexFacts.header.serverTime >= device.header.serverTime)) {
                device.header = indexFacts.header;
                device.hasHeader = true;
            }
            continue;
        }
        for (int i = 0; i < kBins; ++i) device.activity[i] += summary.bins[i];
        if (summary.hasHeader &&
            (!device.hasHeader || summary.header.serverTime >= device.header.serverTime)) {
            device.header = summary.header;
            device.hasHeader = true;
        }
    }
    std::vector<Device> result;
    result.reserve(byKey.size());
    for (auto& [key, device] : byKey) result.push_back(std::move(device));
    return result;
}

std::vector<std::string> LogCatalog::deviceFiles(const std::string& key, std::int64_t now) {
    std::vector<std::string> names;
    PMutexLocker lock(mutex_);
    for (Named& file : classify(activityEnd(now))) {
        if (file.parts.key == key) names.push_back(std::move(file.entry.name));
    }
    return names;
}
