// SPDX-License-Identifier: MIT
#include "KibNats.h"

#include <algorithm>
#include <cstring>
#include <mutex>

#include "KibConnectOptions.h"
#include "KibStatus.h"

std::string KibNats::url(const char* host, unsigned short port) {
    if (host == nullptr || *host == '\0') return {};
    std::string address(host);
    if (address.find("://") != std::string::npos) return address;
    std::string name = address;
    std::string portText;
    if (address.front() == '[') {
        // Bracketed IPv6 address, optionally followed by ":port".
        const std::size_t close = address.find(']');
        if (close == std::string::npos) return {};
        name = address.substr(0, close + 1);
        if (close + 1 < address.size() && address[close + 1] == ':') {
            portText = address.substr(close + 2);
        }
    } else if (std::count(address.begin(), address.end(), ':') == 1) {
        const std::size_t colon = address.find(':');
        name = address.substr(0, colon);
        portText = address.substr(colon + 1);
    } else if (address.find(':') != std::string::npos) {
        name = "[" + address + "]";  // a bare IPv6 address
    }
    if (port != 0) portText = std::to_string(port);
    if (portText.empty()) portText = std::to_string(kDefaultPort);
    return "nats://" + name + ":" + portText;
}

std::vector<std::string> KibNats::urls(const char* hosts, unsigned short port) {
    std::vector<std::string> result;
    if (hosts == nullptr) return result;
    const std::string list(hosts);
    std::size_t start = 0;
    while (start <= list.size()) {
        const std::size_t comma = std::min(list.find(',', start), list.size());
        std::string entry = list.substr(start, comma - start);
        const std::size_t first = entry.find_first_not_of(" \t");
        entry = first == std::string::npos
                    ? std::string()
                    : entry.substr(first, entry.find_last_not_of(" \t") - first + 1);
        const std::string address = url(entry.c_str(), port);
        if (address.empty()) return {};
        result.push_back(address);
        start = comma + 1;
    }
    return result;
}

std::string KibNats::redacted(const std::string& url) {
    const std::size_t scheme = url.find("://");
    const std::size_t authority = scheme == std::string::npos ? 0 : scheme + 3;
    const std::size_t at = url.rfind('@');
    if (at == std::string::npos || at < authority) return url;
    return url.substr(0, authority) + "***" + url.substr(at);
}

std::string KibNats::redacted(const std::vector<std::string>& urls) {
    std::string joined;
    for (const std::string& address : urls) {
        if (!joined.empty()) joined += ", ";
        joined += redacted(address);
    }
    return joined;
}

int KibNats::toStatus(natsStatus status) {
    switch (status) {
        case NATS_OK:
            return KIB_OK;
        case NATS_TIMEOUT:
            return KIB_E_TIMEOUT;
        case NATS_NO_RESPONDERS:
            return KIB_E_NO_RESPONDERS;
        case NATS_MAX_PAYLOAD:
            return KIB_E_TOO_LARGE;
        case NATS_NO_SERVER:
            return KIB_E_CONNECT_FAILED;
        case NATS_NOT_PERMITTED:
        case NATS_CONNECTION_AUTH_FAILED:
            return KIB_E_NOT_PERMITTED;
        case NATS_CONNECTION_CLOSED:
        case NATS_CONNECTION_DISCONNECTED:
            return KIB_E_NOT_CONNECTED;
        case NATS_INVALID_ARG:
        case NATS_INVALID_SUBJECT:
            return KIB_E_INVALID_ARGUMENT;
        default:
            return KIB_E_TRANSPORT;
    }
}

bool KibNats::isValidName(const char* name) {
    if (name == nullptr) return false;
    const std::size_t length = std::strlen(name);
    if (length == 0 || length > 128) return false;
    for (std::size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(name[i]);
        if (c <= 0x20 || c >= 0x7F || c == '.' || c == '*' || c == '>') return false;
    }
    return true;
}

natsStatus KibNats::createOptions(natsOptions** options) {
    // Tries of a busy lock before the thread sleeps on it (the client's default: 2000).
    constexpr int64_t kLockSpinCount = 0;
    static std::once_flag opened;
    std::call_once(opened, [] { nats_Open(kLockSpinCount); });
    return natsOptions_Create(options);
}

std::string KibDisplayHost(const std::string& hosts) {
    std::string shown;
    std::size_t start = 0;
    while (start <= hosts.size()) {
        const std::size_t comma = std::min(hosts.find(',', start), hosts.size());
        if (start > 0) shown += ",";
        shown += KibNats::redacted(hosts.substr(start, comma - start));
        start = comma + 1;
    }
    return shown;
}

bool KibNats::isInboxSubject(const char* subject) {
    // "_INBOX.<token>..." or, for a user with an inbox of its own, "_INBOX_<user>.<token>...".
    static const char kInboxPrefix[] = "_INBOX";
    if (subject == nullptr || std::strncmp(subject, kInboxPrefix, sizeof kInboxPrefix - 1) != 0) {
        return false;
    }
    const char* rest = subject + sizeof kInboxPrefix - 1;
    if (*rest == '_') {
        const char* user = rest + 1;
        while (*rest != '\0' && *rest != '.') ++rest;
        if (rest == user || *rest != '.') return false;
        for (const char* c = user; c < rest; ++c) {
            const unsigned char u = static_cast<unsigned char>(*c);
            if (u <= 0x20 || u >= 0x7F || u == '*' || u == '>') return false;
        }
    } else if (*rest != '.') {
        return false;
    }
    ++rest;
    if (*rest == '\0') return false;
    for (const char* c = rest; *c != '\0'; ++c) {
        const unsigned char u = static_cast<unsigned char>(*c);
        if (u <= 0x20 || u >= 0x7F || u == '*' || u == '>') return false;
        if (u == '.' && (c[1] == '.' || c[1] == '\0')) return false;  // an empty token
    }
    return true;
}
