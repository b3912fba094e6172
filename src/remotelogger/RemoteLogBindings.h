// SPDX-License-Identifier: MIT
// RemoteLogBindings: which device account may write which sources on a bus with
// accounts. A source is a MAC address (compared without its ':', as log ids write it)
// and a device id; each is bound to at most one account, either given in the bindings
// file that nimb-bus-setup writes, or learned from the first announcement of an account
// that was given none. The learned bindings are kept in a file of the collector's own;
// those of accounts the bindings file no longer lists are dropped (that frees the sources
// of a revoked device). Any thread; internally locked. Files are read at construction
// and again, at most once a second, when the bindings file changed.
//
// File grammar (both files), one account per line, blank lines and "#" comments ignored:
//   line   = account *( 1*WSP source )
//   source = "mac=" value / "id=" value
//   value  = 1*( %x21-24 / %x26-7E / "%" 2HEXDIG )     ; bytes outside written as %XX
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "PMutex.h"
#include "ThreadAnnotations.h"

class RemoteLogBindings {
public:
    enum class Verdict {
        Allowed,       // the account may write the source
        Learned,       // allowed, and the source is now bound to the account
        OtherAccount,  // bound to another account
        NotBound,      // the account has sources, and this is not one of them
    };
    struct Check {
        Verdict verdict = Verdict::Allowed;
        std::string source;  // the MAC address or device id that decided a refusal
        bool allowed() const { return verdict == Verdict::Allowed || verdict == Verdict::Learned; }
    };
    // One account's sources, for listing.
    struct Sources {
        std::set<std::string> macs;  // as given or announced (with ':')
        std::set<std::string> ids;
        bool empty() const { return macs.empty() && ids.empty(); }
    };

    // `givenFile` is the bindings file ("" for none: every account learns), `learnedFile`
    // where learned bindings are kept ("" keeps them in memory only). Reads both; a
    // file that cannot be read is logged and taken as empty.
    RemoteLogBindings(std::string givenFile, std::string learnedFile);
    RemoteLogBindings(const RemoteLogBindings&) = delete;
    RemoteLogBindings& operator=(const RemoteLogBindings&) = delete;

    // May `account` announce MAC `mac` with device id `deviceId` (null: the request named
    // none, so no device id is checked or learned)? An account with nothing bound yet
    // learns the source (written to the learned file before this returns).
    Check announce(const std::string& account, const std::string& mac, const std::string* deviceId);
    // May `account` append to a log of MAC `mac`? Only to a MAC bound to it.
    Check append(const std::string& account, const std::string& mac);
    // Whether `account` has any source bound (given or learned).
    bool hasSources(const std::string& account);
    // The account `mac` is bound to, "" for none.
    std::string accountOf(const std::string& mac);
    // Reads the files again when the bindings file changed (`force`: now, whatever the
    // time since the last look).
    void refresh(bool force = false);
    // Every account's sources, given and learned.
    std::map<std::string, Sources> given();
    std::map<std::string, Sources> learned();

    // The key of a MAC address: without ':'.
    static std::string macKey(const std::string& mac);
    // Parses one file's text; lines that do not follow the grammar are skipped, and
    // `*skipped` set to their number.
    static std::map<std::string, Sources> parse(const std::string& text, int* skipped = nullptr);
    static std::string format(const std::map<std::string, Sources>& bindings);

private:
    struct FileStamp {
        std::int64_t mtimeNs = -1;
        std::int64_t size = -1;
        std::uint64_t inode = 0;
        bool operator==(const FileStamp& o) const {
            return mtimeNs == o.mtimeNs && size == o.size && inode == o.inode;
        }
    };
    void loadLocked() NIMB_REQUIRES(mutex_);
    void refreshLocked(bool force) NIMB_REQUIRES(mutex_);
    // Rebuilds the owner maps from given_ and learned_; learned sources that collide
    // with a given one (or with an earlier learned one) are dropped. True if any was.
    bool indexLocked() NIMB_REQUIRES(mutex_);
    bool hasSourcesLocked(const std::string& account) const NIMB_REQUIRES(mutex_);
    void saveLearnedLocked() NIMB_REQUIRES(mutex_);

    // Immutable after construction.
    const std::string givenFile_;
    const std::string learnedFile_;

    PMutex mutex_;
    bool givenRead_ NIMB_GUARDED_BY(mutex_) = false;  // the bindings file could be read
    FileStamp stamp_ NIMB_GUARDED_BY(mutex_);
    std::chrono::steady_clock::time_point lastLook_ NIMB_GUARDED_BY(mutex_);
    std::map<std::string, Sources> given_ NIMB_GUARDED_BY(mutex_);
    std::map<std::string, Sources> learned_ NIMB_GUARDED_BY(mutex_);
    // Owner of each MAC key and device id.
    std::map<std::string, std::string> macOwner_ NIMB_GUARDED_BY(mutex_);
    std::map<std::string, std::string> idOwner_ NIMB_GUARDED_BY(mutex_);
};
