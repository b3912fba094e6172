// SPDX-License-Identifier: MIT
#include "SyslogTlsContext.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "SyslogStore.h"

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

SSL* SyslogTlsContext::newSession(int fd, std::string* refusal) const {
    if (context_ == nullptr) return nullptr;
    SSL* session = SSL_new(context_);
    if (session == nullptr) return nullptr;
    if (SSL_set_fd(session, fd) != 1) {
        SSL_free(session);
        return nullptr;
    }
    SSL_set_app_data(session, refusal);
    SSL_set_accept_state(session);
    return session;
}

bool SyslogTlsContext::verifyClients(const std::string& caFile, bool required,
                                     const std::string& clientsFile, std::string& error) {
    if (context_ == nullptr) {
        error = "no server certificate loaded";
        return false;
    }
    STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(caFile.c_str());
    if (names == nullptr || SSL_CTX_load_verify_locations(context_, caFile.c_str(), nullptr) != 1) {
        if (names != nullptr) sk_X509_NAME_pop_free(names, X509_NAME_free);
        error = "cannot use client CA " + caFile + ": " + lastError();
        return false;
    }
    // The CA's name goes into the certificate request, so that a sender with several
    // certificates shows the right one.
    SSL_CTX_set_client_CA_list(context_, names);
    SSL_CTX_set_purpose(context_, X509_PURPOSE_SSL_CLIENT);
    // A resumed session skips the certificate check: without resumption a sender taken
    // off the list is refused at its very next connection.
    SSL_CTX_set_session_cache_mode(context_, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(context_, SSL_OP_NO_TICKET);
    SSL_CTX_set_num_tickets(context_, 0);
    SSL_CTX_set_app_data(context_, this);
    SSL_CTX_set_verify(context_, SSL_VERIFY_PEER | (required ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0),
                       &SyslogTlsContext::verifyCertificate);
    clients_.reset(clientsFile.empty() ? nullptr : new SyslogClientList(clientsFile));
    return true;
}

namespace {

// The one common name of `certificate`; false when it has none or several.
bool commonName(X509* certificate, std::string& name) {
    X509_NAME* subject = X509_get_subject_name(certificate);
    const int at = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (at < 0 || X509_NAME_get_index_by_NID(subject, NID_commonName, at) >= 0) return false;
    unsigned char* text = nullptr;
    const int length =
        ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at)));
    if (length < 0) return false;
    name.assign(reinterpret_cast<const char*>(text), static_cast<std::size_t>(length));
    OPENSSL_free(text);
    return !name.empty();
}

std::string fingerprintOf(X509* certificate) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (X509_digest(certificate, EVP_sha256(), digest, &length) != 1) return {};
    static const char kHex[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text += kHex[digest[i] >> 4];
        text += kHex[digest[i] & 15];
    }
    return text;
}

}  // namespace

std::string SyslogTlsContext::refusalOf(X509* certificate) const {
    std::string name, reason;
    if (!commonName(certificate, name)) return "it has no common name, or several";
    SyslogStore::senderName(name, "", reason);
    if (!reason.empty()) return "its common name " + reason;
    if (clients_ && !clients_->allows(name, fingerprintOf(certificate), reason)) return reason;
    return {};
}

// Runs in OpenSSL's handshake on the listener thread, once per certificate of the chain;
// only the sender's own certificate (depth 0) gets the checks of its name and the list.
int SyslogTlsContext::verifyCertificate(int preverified, X509_STORE_CTX* store) {
    if (preverified != 1 || X509_STORE_CTX_get_error_depth(store) != 0) return preverified;
    SSL* session =
        static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    const auto* self =
        static_cast<const SyslogTlsContext*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(session)));
    auto* refusal = static_cast<std::string*>(SSL_get_app_data(session));
    X509* certificate = X509_STORE_CTX_get_current_cert(store);
    const std::string reason = self->refusalOf(certificate);
    if (reason.empty()) return 1;
    if (refusal != nullptr) *refusal = reason;
    X509_STORE_CTX_set_error(store, X509_V_ERR_CERT_REJECTED);
    return 0;
}

std::string SyslogTlsContext::clientName(SSL* session) {
    X509* certificate = SSL_get0_peer_certificate(session);
    std::string name;
    if (certificate != nullptr) commonName(certificate, name);
    return name;
}
