// SPDX-License-Identifier: MIT
// NotifyReceivers: real receivers of alert notifications on free ports of 127.0.0.1, run
// by tests/support/notify_receivers.py (Debian's python3 with aiosmtpd) from the
// constructor until the destructor:
// - an HTTP and an HTTPS receiver answering every request with Options::httpStatus, or
//   with the status a request's query asks for ("?status=503"), after the delay it asks
//   for ("?delay=2000", milliseconds);
// - an SMTP server that requires STARTTLS and a login (Options::user/password), one that
//   does not offer STARTTLS, and one with TLS from the start (login required).
// The TLS certificate is self-signed for 127.0.0.1 (caFile()). Everything received is
// kept and read back with requests() and mails(); waits are bounded.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

#include "NimbTestSupport.h"

namespace nimbtest {

struct ReceivedRequest {
    std::string method;
    std::string path;                                          // with the query
    std::vector<std::pair<std::string, std::string>> headers;  // as they came
    std::string body;
    // The value of the first header called `name` (any case), empty when none came.
    std::string header(const std::string& name) const;
    bool hasHeader(const std::string& name) const;
};

struct ReceivedMail {
    std::string server;  // "smtp", "smtpplain" or "smtps"
    std::string from;    // envelope sender
    std::vector<std::string> to;
    std::string login;                 // the user that logged in, empty when none did
    bool tls = false;                  // the mail came over an encrypted connection
    std::string data;                  // the message as sent
    std::string subject;               // decoded by Python's mail parser
    std::string text;                  // the decoded body text
    std::vector<std::string> defects;  // what the mail parser found wrong
    // The raw value of the first header `name` (any case) in data; empty when none.
    std::string header(const std::string& name) const;
};

class NotifyReceivers {
public:
    struct Options {
        int httpStatus = 200;
        std::string user = "alerts";
        std::string password = "mail-pass-7Q";
    };
    NotifyReceivers();
    explicit NotifyReceivers(Options options);
    NotifyReceivers(const NotifyReceivers&) = delete;
    NotifyReceivers& operator=(const NotifyReceivers&) = delete;
    ~NotifyReceivers();

    // Whether every receiver came up (within 20 s of the constructor).
    bool running() const { return pid_ > 0 && httpPort_ > 0; }
    const Options& options() const { return options_; }

    std::string httpUrl(const std::string& path = "/hook") const;
    std::string httpsUrl(const std::string& path = "/hook") const;
    std::string smtpUrl() const;       // STARTTLS offered and required
    std::string smtpPlainUrl() const;  // no STARTTLS
    std::string smtpsUrl() const;      // TLS from the start
    // The receivers' certificate, to trust as a CA.
    std::string caFile() const { return dir_ / "cert.pem"; }

    std::vector<ReceivedRequest> requests() const;
    std::vector<ReceivedMail> mails() const;
    // Wait (bounded) until at least `count` requests or mails have arrived.
    bool waitForRequests(std::size_t count,
                         std::chrono::milliseconds limit = std::chrono::seconds(10)) const;
    bool waitForMails(std::size_t count,
                      std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

private:
    void start();
    void stop();

    Options options_;
    TempDir dir_;
    pid_t pid_ = -1;
    int httpPort_ = 0, httpsPort_ = 0, smtpPort_ = 0, smtpPlainPort_ = 0, smtpsPort_ = 0;
};

}  // namespace nimbtest
