// SPDX-License-Identifier: MIT
// SyslogTlsContext: the TLS listener's server context: its certificate and key, and
// optionally the CA that senders' client certificates must come from and the list of
// senders allowed, loaded once at start-up. Owned by the server; new sessions are made,
// and client certificates checked, on the listener thread.
#pragma once

#include <memory>
#include <string>

#include "SyslogClientList.h"

typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_st SSL;

class SyslogTlsContext {
public:
    SyslogTlsContext() = default;
    SyslogTlsContext(const SyslogTlsContext&) = delete;
    SyslogTlsContext& operator=(const SyslogTlsContext&) = delete;
    ~SyslogTlsContext();

    // Loads the PEM certificate chain and private key. False with `error` set (naming
    // the file and OpenSSL's reason) when either cannot be used.
    bool load(const std::string& certFile, const std::string& keyFile, std::string& error);
    // Asks every sender for a client certificate and verifies one it shows against the
    // PEM certificate(s) in `caFile`: a certificate that does not verify, or whose common
    // name is not a plain sender name, fails the handshake. With `required`, a sender
    // that shows none fails it too. With a non-empty `clientsFile` the certificate must
    // also be on that list (SyslogClientList). Sessions are never resumed, so that every
    // connection is checked against the list as it is then. Call after load(); false with
    // `error` set when the CA cannot be used.
    bool verifyClients(const std::string& caFile, bool required, const std::string& clientsFile,
                       std::string& error);
    // A server session on the accepted socket `fd` (not taken); null on failure. When
    // clients are verified, why a certificate was refused is written to `*refusal`
    // (borrowed; must outlive the session).
    SSL* newSession(int fd, std::string* refusal) const;
    // The list of allowed senders; null when there is none.
    SyslogClientList* clients() const { return clients_.get(); }

    // The common name of the certificate the peer of `session` showed and the handshake
    // verified; "" when it showed none.
    static std::string clientName(SSL* session);

private:
    // Why the verified certificate `certificate` is refused; "" when it is taken.
    std::string refusalOf(struct x509_st* certificate) const;
    static int verifyCertificate(int preverified, struct x509_store_ctx_st* store);

    SSL_CTX* context_ = nullptr;
    std::unique_ptr<SyslogClientList> clients_;
};
