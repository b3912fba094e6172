// SPDX-License-Identifier: MIT
// SyslogClientList: the syslog senders allowed to connect with a client certificate, as
// `nimb-bus-setup` writes them: one line per sender, its name (the certificate's common
// name) and the SHA-256 fingerprint of its certificate. Read again whenever the file
// changes, so that a sender taken off the list is refused at its next connection without
// a restart. Owned by the TLS context; listener thread only.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <unordered_map>

#include <sys/types.h>

class SyslogClientList {
public:
    // Longest file read; a longer one allows nobody.
    static constexpr off_t kMaxFileSize = 1024 * 1024;
    // How often refresh() looks at the file (steady ms).
    static constexpr long long kRefreshMs = 1000;

    explicit SyslogClientList(std::string path) : path_(std::move(path)) {}
    SyslogClientList(const SyslogClientList&) = delete;
    SyslogClientList& operator=(const SyslogClientList&) = delete;

    // Whether a certificate named `name` with fingerprint `fingerprint` (lower-case hex)
    // is on the list, read again first if the file changed. False with `reason` set when
    // it is not, or when the file cannot be read (nobody is allowed then).
    bool allows(const std::string& name, const std::string& fingerprint, std::string& reason);
    // Whether `name` belongs to a listed sender: such names are filed only for a sender
    // that shows its certificate. As last read (see refresh()).
    bool isListed(const std::string& name) const { return entries_.count(name) != 0; }
    // Reads the file again when it changed and `nowMs` (steady) is kRefreshMs past the
    // last look. Returns the list's generation, which grows on every change.
    std::uint64_t refresh(long long nowMs);
    std::uint64_t generation() const { return generation_; }
    const std::string& path() const { return path_; }

    // The lines of `text` as name -> fingerprint; malformed lines are skipped.
    static std::unordered_map<std::string, std::string> parse(const std::string& text);

private:
    // Reads the file again when its identity, size or time changed.
    void reloadIfChanged();

    // Immutable after construction.
    const std::string path_;

    std::unordered_map<std::string, std::string> entries_;
    std::string error_;  // why the file could not be read; "" when it was
    bool loaded_ = false;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    off_t size_ = 0;
    timespec modified_{};
    long long lastLookMs_ = 0;
    std::uint64_t generation_ = 0;
};
