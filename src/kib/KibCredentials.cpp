// SPDX-License-Identifier: MIT
#include "KibCredentials.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include <sys/stat.h>

#include "KibNats.h"

namespace {

const char* const kJwtMarker = "-----BEGIN NATS USER JWT-----";

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return {};
    const std::size_t last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

// "user=NAME" / "password=SECRET" lines. Unknown keys are errors, so that a typo does
// not silently connect without a password.
bool parsePassword(const std::string& path, const std::string& content, KibCredentials& out,
                   std::string& error) {
    std::istringstream lines(content);
    std::string line;
    int number = 0;
    bool havePassword = false;
    while (std::getline(lines, line)) {
        ++number;
        line = trimmed(line);
        if (line.empty() || line[0] == '#') continue;
        const std::size_t equals = line.find('=');
        const std::string key = trimmed(line.substr(0, equals));
        if (equals == std::string::npos || (key != "user" && key != "password")) {
            error = "credentials file " + path + ", line " + std::to_string(number) +
                    ": expected user=NAME or password=SECRET";
            return false;
        }
        const std::string value = trimmed(line.substr(equals + 1));
        if (key == "user") {
            out.user = value;
        } else {
            out.password = value;
            havePassword = true;
        }
    }
    if (!KibNats::isValidName(out.user.c_str())) {
        error = "credentials file " + path +
                ": needs a user name of printable characters without blanks, '.', '*' or '>'";
        return false;
    }
    if (!havePassword || out.password.empty()) {
        error = "credentials file " + path + ": no password";
        return false;
    }
    out.kind = KibCredentials::Kind::Password;
    return true;
}

}  // namespace

bool KibCredentials::load(const std::string& path, KibCredentials& out, std::string& error,
                          std::string& warning) {
    out = KibCredentials{};
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        error = "cannot read the credentials file " + path + ": " + std::strerror(errno);
        return false;
    }
    std::ostringstream content;
    content << file.rdbuf();
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && (info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        warning = "credentials file " + path + " is readable by other users (chmod 600 it)";
    }
    if (content.str().find(kJwtMarker) != std::string::npos) {
        out.kind = Kind::CredsFile;
        out.path = path;
        return true;
    }
    return parsePassword(path, content.str(), out, error);
}

std::string KibCredentials::inboxPrefix() const {
    return user.empty() ? std::string("_INBOX") : "_INBOX_" + user;
}
