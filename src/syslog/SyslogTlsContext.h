// SPDX-License-Identifier: MIT
// SyslogTlsContext: the TLS listener's server context: its certificate and key, loaded
// once at start-up. Owned by the server; new sessions are made on the listener thread.
#pragma once

#include <string>

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
    // A server session on the accepted socket `fd` (not taken); null on failure.
    SSL* newSession(int fd) const;

private:
    SSL_CTX* context_ = nullptr;
};
