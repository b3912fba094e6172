// SPDX-License-Identifier: MIT
// AlertNotifier: delivers one alert notification to one channel: a web hook (JSON over
// HTTP POST), an ntfy-style push endpoint (plain text body, headers for the title,
// priority, tags and click link) or an e-mail (SMTP with TLS and login). All transfers go
// through libcurl with bounded timeouts, no redirects and only http, https, smtp and
// smtps allowed. send() blocks and is safe to call from several threads at once; every
// failure is a one-line error that never contains the channel's secret, its login or the
// path of its URL.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

struct AlertChannel {
    enum class Kind { Webhook, Ntfy, Email };
    Kind kind = Kind::Webhook;
    // http(s)://... for Webhook and Ntfy; smtp://host:port (STARTTLS required) or
    // smtps://host:port (TLS from the start) for Email. No user or password in it.
    std::string url;
    // Webhook and Ntfy: the bearer token of the Authorization header, when not empty.
    // Email: the login password.
    std::string secret;
    std::string user;             // Email: the login name; empty sends without login
    std::string from;             // Email: the sender address
    std::vector<std::string> to;  // Email: the recipient addresses
    int priority = 3;             // Ntfy: 1 (min) to 5 (max)
    // A CA bundle trusted for this channel besides the system's (a receiver with a
    // self-signed certificate); empty: the system's only.
    std::string caFile;
};

struct AlertMessage {
    std::string rule;                          // the rule's name
    std::string title;                         // one line
    std::string text;                          // plain text body
    std::string link;                          // the lines in the console; may be empty
    std::string severity;                      // "error", "warning", ... or empty
    std::int64_t matches = 0;                  // lines this notification stands for
    std::int64_t firstTime = 0, lastTime = 0;  // unix seconds; 0: unknown
    std::vector<std::string> lines;            // the lines themselves (bounded by the caller)
    bool test = false;                         // a test sent from the console
};

struct AlertSendResult {
    bool ok = false;
    long status = 0;    // the last HTTP status or SMTP reply code, 0 when none came
    std::string error;  // one line, empty when ok
};

class AlertNotifier {
public:
    struct Options {
        std::chrono::milliseconds timeout{10000};  // the whole transfer, connection included
    };
    AlertNotifier();
    explicit AlertNotifier(Options options);

    AlertSendResult send(const AlertChannel& channel, const AlertMessage& message) const;

private:
    Options options_;
};

// The pieces of the notification that do not need the network; public for the tests.
namespace AlertFormat {

// The web hook's JSON object (UTF-8; invalid sequences replaced by U+FFFD).
std::string webhookJson(const AlertMessage& message);
// `value` as one header line's value: valid UTF-8, control characters (CR and LF
// included) turned into spaces, runs of spaces folded, trimmed, at most `maxChars`
// characters.
std::string oneLine(const std::string& value, std::size_t maxChars = 250);
// `value` for a mail or HTTP header: itself when printable ASCII, else RFC 2047
// encoded-words (UTF-8, base64, whole characters each) separated by spaces.
std::string encodeHeaderWord(const std::string& value);
// The ntfy-style body: the text as valid UTF-8, or the title when there is no text.
std::string ntfyBody(const AlertMessage& message);
// The ntfy-style header lines: Title, Priority (1-5), Tags (the severity, "test" for a
// test) and Click (the link), none of them with control characters.
std::vector<std::string> ntfyHeaders(const AlertChannel& channel, const AlertMessage& message);
// The complete mail (headers and quoted-printable body, CRLF line ends) for `now`.
std::string mailMessage(const AlertChannel& channel, const AlertMessage& message, std::int64_t now);
// Unix seconds as "2026-11-25T15:03:17Z".
std::string isoTime(std::int64_t seconds);

}  // namespace AlertFormat
