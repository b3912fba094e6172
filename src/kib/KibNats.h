// SPDX-License-Identifier: MIT
// KibNats: small owners for the NATS client's handles and the helpers that turn a
// directory host into a server URL and a client status into a bus status. Internal
// to the bus library; stateless.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <nats/nats.h>

struct KibNatsDeleter {
    void operator()(natsOptions* options) const { natsOptions_Destroy(options); }
    void operator()(natsConnection* connection) const { natsConnection_Destroy(connection); }
    void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
    void operator()(natsSubscription* sub) const { natsSubscription_Destroy(sub); }
};
using KibNatsOptions = std::unique_ptr<natsOptions, KibNatsDeleter>;
using KibNatsConnection = std::unique_ptr<natsConnection, KibNatsDeleter>;
using KibNatsMsg = std::unique_ptr<natsMsg, KibNatsDeleter>;
using KibNatsSubscription = std::unique_ptr<natsSubscription, KibNatsDeleter>;

class KibNats {
public:
    static constexpr unsigned short kDefaultPort = 4222;

    // "nats://host:port" from "host", "host:port", "[v6]" or "[v6]:port"; a non-zero
    // `port` replaces the host's port. Empty when `host` is null or empty.
    static std::string url(const char* host, unsigned short port);
    // One URL per entry of a comma-separated `hosts` list (blanks around entries
    // ignored), each as url() makes it. Empty when any entry is empty or malformed.
    static std::vector<std::string> urls(const char* hosts, unsigned short port);
    // `url` without the user name and password it may carry ("nats://***@host:4222"),
    // for messages and logs.
    static std::string redacted(const std::string& url);
    // redacted() of every URL, joined with ", ".
    static std::string redacted(const std::vector<std::string>& urls);
    // The KIB_ status for a client status of a request or connect.
    static int toStatus(natsStatus status);
    // A satellite or service name usable as one subject token: 1 to 128 printable
    // ASCII characters other than blank, '.', '*' and '>'.
    static bool isValidName(const char* name);
    // A subject a reply may go to: the requester's own inbox, "_INBOX." (or, for a
    // user with inboxes of its own, "_INBOX_<user>.") followed by tokens without
    // wildcards. Replies anywhere else (a service subject,
    // "kib.discover") would let a requester make this satellite talk for it.
    static bool isInboxSubject(const char* subject);
};
