// SPDX-License-Identifier: MIT
// AlertSecrets: the named secrets of the alert channels (tokens, mail passwords), kept in
// one JSON file the caller names, apart from the settings. The file is private to its
// owner: every write makes a new file with mode 0600 (temporary file, fsync, rename), and
// a file that group or others may read or write, or that another user owns, is refused
// rather than used. No error text ever holds a secret. Thread-safe; concurrent writers
// in other processes are not coordinated (the last rename wins).
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "PMutex.h"

class AlertSecrets {
public:
    explicit AlertSecrets(std::string path);

    // The secret stored under `name`. nullopt with an empty `error` when there is none
    // (a missing file is an empty store); with `error` set when the file cannot be used.
    std::optional<std::string> get(const std::string& name, std::string& error) const;
    // The names that have a secret, sorted.
    std::vector<std::string> names(std::string& error) const;
    // Stores `value` (UTF-8 text) under `name` (one line of text, at most 200 bytes).
    bool set(const std::string& name, const std::string& value, std::string& error);
    // Removes `name`; removing a name that has no secret is not an error.
    bool remove(const std::string& name, std::string& error);

    const std::string& path() const { return path_; }

private:
    using Entries = std::map<std::string, std::string>;
    bool load(Entries& entries, std::string& error) const NIMB_REQUIRES(mutex_);
    bool save(const Entries& entries, std::string& error) NIMB_REQUIRES(mutex_);

    const std::string path_;
    mutable PMutex mutex_;  // one reader or writer of the file at a time
};
