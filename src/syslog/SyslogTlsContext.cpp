// SPDX-License-Identifier: MIT
#include "SyslogTlsContext.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

namespace {

std::string lastError() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) return "unknown reason";
    char text[256];
    ERR_error_string_n(code, text, sizeof(text));
    return text;
}

}  // namespace

SyslogTlsContext::~SyslogTlsContext() {
    if (context_ != nullptr) SSL_CTX_free(context_);
}

bool SyslogTlsContext::load(const std::string& certFile, const std::string& keyFile,
                            std::string& error) {
    if (certFile.empty() || keyFile.empty()) {
        error = "CertFile and KeyFile must both be set";
        return false;
    }
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    if (context == nullptr) {
        error = "cannot create a TLS context: " + lastError();
        return false;
    }
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    if (SSL_CTX_use_certificate_chain_file(context, certFile.c_str()) != 1) {
        error = "cannot use certificate " + certFile + ": " + lastError();
    } else if (SSL_CTX_use_PrivateKey_file(context, keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        error = "cannot use key " + keyFile + ": " + lastError();
    } else if (SSL_CTX_check_private_key(context) != 1) {
        error = "key " + keyFile + " does not match certificate " + certFile;
    }
    if (!error.empty()) {
        SSL_CTX_free(context);
        return false;
    }
    if (context_ != nullptr) SSL_CTX_free(context_);
    context_ = context;
    return true;
}

SSL* SyslogTlsContext::newSession(int fd) const {
    if (context_ == nullptr) return nullptr;
    SSL* session = SSL_new(context_);
    if (session == nullptr) return nullptr;
    if (SSL_set_fd(session, fd) != 1) {
        SSL_free(session);
        return nullptr;
    }
    SSL_set_accept_state(session);
    return session;
}
