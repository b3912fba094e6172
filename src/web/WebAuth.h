// SPDX-License-Identifier: MIT
// WebAuth: who may read the console. Without credentials everyone who can reach the
// port may (the default listens on loopback only). With a token, a request must carry
// "Authorization: Bearer <token>"; with a user and password, HTTP basic authentication
// (the browser asks). Secrets are kept only as salted PBKDF2-SHA256 hashes
// ("pbkdf2-sha256$<iterations>$<salt base64>$<hash base64>"). Immutable after
// construction apart from a small cache of accepted headers; main thread.
#pragma once

#include <QByteArray>
#include <QSet>
#include <QString>

class WebAuth {
public:
    WebAuth() = default;
    WebAuth(QString tokenHash, QString user, QString passwordHash);

    // Whether any credential is configured.
    bool required() const { return !tokenHash_.isEmpty() || !passwordHash_.isEmpty(); }
    // Whether the request's Authorization header value is accepted.
    bool allows(const QByteArray& authorization);

    // The stored form of `secret`, with a fresh random salt.
    static QString hashSecret(const QByteArray& secret);
    // Whether `secret` matches the stored form `hash` (false for a malformed hash).
    static bool verify(const QByteArray& secret, const QString& hash);

private:
    QString tokenHash_;
    QString user_;
    QString passwordHash_;
    // Headers already verified, so that PBKDF2 runs once per credential, not per request.
    QSet<QByteArray> accepted_;
};
