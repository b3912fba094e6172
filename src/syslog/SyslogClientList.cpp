// SPDX-License-Identifier: MIT
#include "SyslogClientList.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include <sys/stat.h>

namespace {

bool isFingerprint(const std::string& text) {
    if (text.size() != 64) return false;
    for (const char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}

}  // namespace

std::unordered_map<std::string, std::string> SyslogClientList::parse(const std::string& text) {
    std::unordered_map<std::string, std::string> entries;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string name, fingerprint, rest;
        if (!(words >> name >> fingerprint) || name[0] == '#' || (words >> rest)) continue;
        for (char& c : fingerprint) {
            if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
        }
        if (isFingerprint(fingerprint)) entries[name] = fingerprint;
    }
    return entries;
}

void SyslogClientList::reloadIfChanged() {
    struct stat info {};
    if (stat(path_.c_str(), &info) != 0) {
        if (error_.empty() || loaded_) ++generation_;
        error_ = std::string("cannot read ") + path_ + ": " + strerror(errno);
        entries_.clear();
        loaded_ = false;
        return;
    }
    if (loaded_ && info.st_dev == device_ && info.st_ino == inode_ && info.st_size == size_ &&
        info.st_mtim.tv_sec == modified_.tv_sec && info.st_mtim.tv_nsec == modified_.tv_nsec)
        return;
    ++generation_;
    entries_.clear();
    loaded_ = true;
    device_ = info.st_dev;
    inode_ = info.st_ino;
    size_ = info.st_size;
    modified_ = info.st_mtim;
    if (!S_ISREG(info.st_mode) || info.st_size > kMaxFileSize) {
        error_ = path_ + " is not a plain file of at most 1 MiB";
        return;
    }
    std::ifstream file(path_, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    if (!file) {
        error_ = std::string("cannot read ") + path_;
        return;
    }
    error_.clear();
    entries_ = parse(text.str());
}

bool SyslogClientList::allows(const std::string& name, const std::string& fingerprint,
                              std::string& reason) {
    reloadIfChanged();
    if (!error_.empty()) {
        reason = "the list of allowed clients is unusable: " + error_;
        return false;
    }
    const auto found = entries_.find(name);
    if (found == entries_.end()) {
        reason = "\"" + name + "\" is not on the list of allowed clients (" + path_ + ")";
        return false;
    }
    if (found->second != fingerprint) {
        reason = "\"" + name + "\" shows a certificate other than the one listed (revoked?)";
        return false;
    }
    return true;
}

std::uint64_t SyslogClientList::refresh(long long nowMs) {
    if (generation_ == 0 || nowMs < lastLookMs_ || nowMs - lastLookMs_ >= kRefreshMs) {
        lastLookMs_ = nowMs;
        reloadIfChanged();
    }
    return generation_;
}
