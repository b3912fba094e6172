// SPDX-License-Identifier: MIT
#include "KibNats.h"

#include <algorithm>
#include <cstring>

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
        case NATS_NOT_PERMITTED:
        case NATS_CONNECTION_AUTH_FAILED:
            return KIB_E_CONNECT_FAILED;
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

bool KibNats::isInboxSubject(const char* subject) {
    static const char kInboxPrefix[] = "_INBOX.";
    if (subject == nullptr || std::strncmp(subject, kInboxPrefix, sizeof kInboxPrefix - 1) != 0) {
        return false;
    }
    const char* rest = subject + sizeof kInboxPrefix - 1;
    if (*rest == '\0') return false;
    for (const char* c = rest; *c != '\0'; ++c) {
        const unsigned char u = static_cast<unsigned char>(*c);
        if (u <= 0x20 || u >= 0x7F || u == '*' || u == '>') return false;
        if (u == '.' && (c[1] == '.' || c[1] == '\0')) return false;  // an empty token
    }
    return true;
}
