// SPDX-License-Identifier: MIT
#include "RemoteLogBindings.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CBBLog.h"

namespace {

constexpr auto kLookInterval = std::chrono::seconds(1);
// A bindings file is small; anything larger is not one.
constexpr std::size_t kMaxFileBytes = 4 * 1024 * 1024;

bool readSmallFile(const std::string& path, std::string& text, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = std::strerror(errno);
        return false;
    }
    std::ostringstream content;
    content << in.rdbuf();
    text = content.str();
    if (text.size() > kMaxFileBytes) {
        error = "larger than 4 MiB";
        return false;
    }
    return true;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool decodeValue(const std::string& text, std::string& value) {
    value.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            value += text[i];
            continue;
        }
        if (i + 2 >= text.size()) return false;
        const int high = hexDigit(text[i + 1]);
        const int low = hexDigit(text[i + 2]);
        if (high < 0 || low < 0) return false;
        value += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return !value.empty();
}

std::string encodeValue(const std::string& value) {
    std::string text;
    for (const char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte >= 0x7f || c == '%') {
            char escaped[4];
            std::snprintf(escaped, sizeof escaped, "%%%02X", byte);
            text += escaped;
        } else {
            text += c;
        }
    }
    return text;
}

bool isAccountName(const std::string& name) {
    if (name.empty() || name.size() > 128) return false;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte >= 0x7f || c == '.' || c == '*' || c == '>' || c == '=')
            return false;
    }
    return true;
}

}  // namespace

RemoteLogBindings::RemoteLogBindings(std::string givenFile, std::string learnedFile)
    : givenFile_(std::move(givenFile)), learnedFile_(std::move(learnedFile)) {
    const PMutexLocker lock(mutex_);
    loadLocked();
    std::string text;
    std::string error;
    if (!learnedFile_.empty() && readSmallFile(learnedFile_, text, error)) {
        int skipped = 0;
        learned_ = parse(text, &skipped);
        if (skipped > 0) {
            CBBLog::error("Learned device bindings %s: %d malformed lines skipped",
                          learnedFile_.c_str(), skipped);
        }
    }
    if (indexLocked()) saveLearnedLocked();
}

std::string RemoteLogBindings::macKey(const std::string& mac) {
    std::string key;
    for (const char c : mac) {
        if (c != ':') key += c;
    }
    return key;
}

std::map<std::string, RemoteLogBindings::Sources> RemoteLogBindings::parse(const std::string& text,
                                                                           int* skipped) {
    std::map<std::string, Sources> bindings;
    if (skipped != nullptr) *skipped = 0;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string account;
        if (!(words >> account) || account[0] == '#') continue;
        Sources sources;
        bool good = isAccountName(account);
        for (std::string word; good && words >> word;) {
            std::string value;
            const bool mac = word.rfind("mac=", 0) == 0;
            const bool id = word.rfind("id=", 0) == 0;
            good = (mac || id) && decodeValue(word.substr(mac ? 4 : 3), value);
            if (good) (mac ? sources.macs : sources.ids).insert(value);
        }
        if (!good) {
            if (skipped != nullptr) ++*skipped;
            continue;
        }
        Sources& entry = bindings[account];
        entry.macs.insert(sources.macs.begin(), sources.macs.end());
        entry.ids.insert(sources.ids.begin(), sources.ids.end());
    }
    return bindings;
}

std::string RemoteLogBindings::format(const std::map<std::string, Sources>& bindings) {
    std::string text =
        "# Sources the collector bound to device accounts on their first announcement.\n";
    for (const auto& [account, sources] : bindings) {
        if (sources.empty()) continue;
        text += account;
        for (const std::string& mac : sources.macs) text += " mac=" + encodeValue(mac);
        for (const std::string& id : sources.ids) text += " id=" + encodeValue(id);
        text += '\n';
    }
    return text;
}

void RemoteLogBindings::loadLocked() {
    lastLook_ = std::chrono::steady_clock::now();
    if (givenFile_.empty()) return;
    struct stat info {};
    FileStamp stamp;
    if (::stat(givenFile_.c_str(), &info) == 0) {
        stamp.mtimeNs =
            static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
        stamp.size = static_cast<std::int64_t>(info.st_size);
        stamp.inode = info.st_ino;
    }
    if (givenRead_ && stamp == stamp_) return;
    stamp_ = stamp;
    std::string text;
    std::string error;
    if (!readSmallFile(givenFile_, text, error)) {
        // The bindings stay as they were: a missing file must not free every source.
        CBBLog::error("Cannot read the device bindings %s: %s", givenFile_.c_str(), error.c_str());
        return;
    }
    int skipped = 0;
    given_ = parse(text, &skipped);
    givenRead_ = true;
    if (skipped > 0) {
        CBBLog::error("Device bindings %s: %d malformed lines skipped", givenFile_.c_str(),
                      skipped);
    }
}

void RemoteLogBindings::refresh(bool force) {
    const PMutexLocker lock(mutex_);
    refreshLocked(force);
}

void RemoteLogBindings::refreshLocked(bool force) {
    if (givenFile_.empty()) return;
    if (!force && std::chrono::steady_clock::now() - lastLook_ < kLookInterval) return;
    const FileStamp before = stamp_;
    loadLocked();
    if (stamp_ == before) return;
    if (indexLocked()) saveLearnedLocked();
}

bool RemoteLogBindings::indexLocked() {
    macOwner_.clear();
    idOwner_.clear();
    for (const auto& [account, sources] : given_) {
        for (const std::string& mac : sources.macs) macOwner_.emplace(macKey(mac), account);
        for (const std::string& id : sources.ids) idOwner_.emplace(id, account);
    }
    bool dropped = false;
    for (auto entry = learned_.begin(); entry != learned_.end();) {
        const std::string& account = entry->first;
        // Accounts no longer listed lose what they learned; listed accounts that were
        // given sources since keep only those.
        const auto listed = given_.find(account);
        if ((givenRead_ && listed == given_.end()) ||
            (listed != given_.end() && !listed->second.empty())) {
            entry = learned_.erase(entry);
            dropped = true;
            continue;
        }
        Sources& sources = entry->second;
        for (auto mac = sources.macs.begin(); mac != sources.macs.end();) {
            if (macOwner_.emplace(macKey(*mac), account).second ||
                macOwner_[macKey(*mac)] == account) {
                ++mac;
            } else {
                mac = sources.macs.erase(mac);
                dropped = true;
            }
        }
        for (auto id = sources.ids.begin(); id != sources.ids.end();) {
            if (idOwner_.emplace(*id, account).second || idOwner_[*id] == account) {
                ++id;
            } else {
                id = sources.ids.erase(id);
                dropped = true;
            }
        }
        ++entry;
    }
    return dropped;
}

bool RemoteLogBindings::hasSourcesLocked(const std::string& account) const {
    const auto given = given_.find(account);
    const auto learned = learned_.find(account);
    return (given != given_.end() && !given->second.empty()) ||
           (learned != learned_.end() && !learned->second.empty());
}

RemoteLogBindings::Check RemoteLogBindings::announce(const std::string& account,
                                                     const std::string& mac,
                                                     const std::string* deviceId) {
    const PMutexLocker lock(mutex_);
    refreshLocked(false);
    const std::string key = macKey(mac);
    const auto macOwner = macOwner_.find(key);
    if (macOwner != macOwner_.end() && macOwner->second != account)
        return {Verdict::OtherAccount, mac};
    const auto idOwner = deviceId != nullptr ? idOwner_.find(*deviceId) : idOwner_.end();
    if (idOwner != idOwner_.end() && idOwner->second != account)
        return {Verdict::OtherAccount, *deviceId};
    if (!hasSourcesLocked(account)) {
        Sources& learned = learned_[account];
        learned.macs.insert(mac);
        macOwner_[key] = account;
        if (deviceId != nullptr) {
            learned.ids.insert(*deviceId);
            idOwner_[*deviceId] = account;
        }
        saveLearnedLocked();
        return {Verdict::Learned, {}};
    }
    // Bound sources of its own: a MAC address (or device id) must be one of its own,
    // unless it has none of that kind (given device ids only: any free MAC address).
    bool hasMacs = false;
    bool hasIds = false;
    for (const auto& entry : macOwner_) hasMacs = hasMacs || entry.second == account;
    for (const auto& entry : idOwner_) hasIds = hasIds || entry.second == account;
    if (hasMacs && macOwner == macOwner_.end()) return {Verdict::NotBound, mac};
    if (deviceId != nullptr && hasIds && idOwner == idOwner_.end())
        return {Verdict::NotBound, *deviceId};
    return {};
}

RemoteLogBindings::Check RemoteLogBindings::append(const std::string& account,
                                                   const std::string& mac) {
    const PMutexLocker lock(mutex_);
    refreshLocked(false);
    const auto owner = macOwner_.find(macKey(mac));
    if (owner != macOwner_.end() && owner->second != account) return {Verdict::OtherAccount, mac};
    // A free MAC address: allowed when the account could announce it (its logs are open
    // only if it did, or if the binding was dropped since).
    if (owner == macOwner_.end()) {
        for (const auto& entry : macOwner_) {
            if (entry.second == account) return {Verdict::NotBound, mac};
        }
    }
    return {};
}

bool RemoteLogBindings::hasSources(const std::string& account) {
    const PMutexLocker lock(mutex_);
    return hasSourcesLocked(account);
}

std::string RemoteLogBindings::accountOf(const std::string& mac) {
    const PMutexLocker lock(mutex_);
    const auto owner = macOwner_.find(macKey(mac));
    return owner != macOwner_.end() ? owner->second : std::string();
}

std::map<std::string, RemoteLogBindings::Sources> RemoteLogBindings::given() {
    const PMutexLocker lock(mutex_);
    return given_;
}

std::map<std::string, RemoteLogBindings::Sources> RemoteLogBindings::learned() {
    const PMutexLocker lock(mutex_);
    return learned_;
}

// Temp file, fsync, rename, fsync of the folder: the file is the old or the new list,
// never a torn one. A failure is logged; the bindings stay in memory.
void RemoteLogBindings::saveLearnedLocked() {
    if (learnedFile_.empty()) return;
    const std::string text = format(learned_);
    const std::string temp = learnedFile_ + ".tmp";
    const int fd =
        ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0640);
    bool ok = fd >= 0;
    if (ok) {
        ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
             ::fsync(fd) == 0;
        ok = ::close(fd) == 0 && ok;
    }
    ok = ok && ::rename(temp.c_str(), learnedFile_.c_str()) == 0;
    if (!ok) {
        CBBLog::error("Cannot save the learned device bindings %s: %s", learnedFile_.c_str(),
                      std::strerror(errno));
        ::unlink(temp.c_str());
        return;
    }
    const std::size_t slash = learnedFile_.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : learnedFile_.substr(0, slash);
    const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        ::fsync(dir);  // best effort: the rename is done either way
        ::close(dir);
    }
}
