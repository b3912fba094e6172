// SPDX-License-Identifier: MIT
// WebAuth: who may read the console. Without credentials everyone who can reach the
// port may (the default listens on loopback only). With a token, a request must carry
// "Authorization: Bearer <token>"; with a user and password, HTTP basic authentication
// (the browser asks). Secrets are kept only as salted PBKDF2-SHA256 hashes
// ("pbkdf2-sha256$<iterations>$<salt base64>$<hash base64>"). Immutable after
// construction, so any thread may check with it; a check runs PBKDF2 and takes tens of
// milliseconds, which is why nimb-web runs checks through LoginGate.
#pragma once

#include <QByteArray>
#include <QString>

class WebAuth {
public:
    WebAuth() = default;
    WebAuth(QString tokenHash, QString user, QString passwordHash);

    // Whether any credential is configured.
    bool required() const { return !tokenHash_.isEmpty() || !passwordHash_.isEmpty(); }
    // Whether the request's Authorization header value is accepted. Any thread; blocks
    // for the PBKDF2 rounds when a credential is configured.
    bool allows(const QByteArray& authorization) const;

    // The stored form of `secret`, with a fresh random salt.
    static QString hashSecret(const QByteArray& secret);
    // Whether `secret` matches the stored form `hash` (false for a malformed hash).
    static bool verify(const QByteArray& secret, const QString& hash);

private:
    QString tokenHash_;
    QString user_;
    QString passwordHash_;
};
