// SPDX-License-Identifier: MIT
// KibCredentials: the content of a credentials file, as KibConnectOptions describes it.
// Internal to the bus library; read once per Connect on the management thread. Error
// texts name the file and what is wrong with it, never a secret from it.
#pragma once

#include <string>

struct KibCredentials {
    enum class Kind { None, Password, CredsFile };

    Kind kind = Kind::None;
    std::string user;
    std::string password;
    std::string path;  // the file itself, for Kind::CredsFile

    // Reads `path`. Returns false with `error` set when it cannot be read or holds no
    // usable credentials; `warning` is set (and true returned) when the file is readable
    // by other users than its owner.
    static bool load(const std::string& path, KibCredentials& out, std::string& error,
                     std::string& warning);
    // The inbox prefix of the user's replies: "_INBOX_<user>", or "_INBOX" without a user.
    std::string inboxPrefix() const;
};
