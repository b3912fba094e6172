// SPDX-License-Identifier: MIT
#include "WebAuth.h"

#include <QCryptographicHash>
#include <QPasswordDigestor>
#include <QRandomGenerator>
#include <QStringList>

namespace {

constexpr int kIterations = 100000;
constexpr int kHashBytes = 32;

QByteArray derive(const QByteArray& secret, const QByteArray& salt, int iterations) {
    return QPasswordDigestor::deriveKeyPbkdf2(QCryptographicHash::Sha256, secret, salt, iterations,
                                              kHashBytes);
}

// Compares without an early exit, so timing tells nothing about where they differ.
bool sameBytes(const QByteArray& a, const QByteArray& b) {
    if (a.size() != b.size()) return false;
    unsigned char diff = 0;
    for (qsizetype i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

}  // namespace

WebAuth::WebAuth(QString tokenHash, QString user, QString passwordHash)
    : tokenHash_(std::move(tokenHash)),
      user_(std::move(user)),
      passwordHash_(std::move(passwordHash)) {}

QString WebAuth::hashSecret(const QByteArray& secret) {
    QByteArray salt(16, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32*>(salt.data()), 4);
    return QStringLiteral("pbkdf2-sha256$%1$%2$%3")
        .arg(kIterations)
        .arg(QString::fromLatin1(salt.toBase64()),
             QString::fromLatin1(derive(secret, salt, kIterations).toBase64()));
}

bool WebAuth::verify(const QByteArray& secret, const QString& hash) {
    const QStringList parts = hash.split(QLatin1Char('$'));
    if (parts.size() != 4 || parts[0] != QLatin1String("pbkdf2-sha256")) return false;
    bool ok = false;
    const int iterations = parts[1].toInt(&ok);
    if (!ok || iterations < 1 || iterations > 10000000) return false;
    const QByteArray salt = QByteArray::fromBase64(parts[2].toLatin1());
    const QByteArray expected = QByteArray::fromBase64(parts[3].toLatin1());
    if (salt.isEmpty() || expected.size() != kHashBytes) return false;
    return sameBytes(derive(secret, salt, iterations), expected);
}

bool WebAuth::allows(const QByteArray& authorization) const {
    if (!required()) return true;
    if (authorization.isEmpty()) return false;
    bool ok = false;
    if (authorization.startsWith("Bearer ") && !tokenHash_.isEmpty()) {
        ok = verify(authorization.mid(7).trimmed(), tokenHash_);
    } else if (authorization.startsWith("Basic ") && !passwordHash_.isEmpty()) {
        const QByteArray pair = QByteArray::fromBase64(authorization.mid(6).trimmed());
        const qsizetype colon = pair.indexOf(':');
        ok = colon > 0 && pair.left(colon) == user_.toUtf8() &&
             verify(pair.mid(colon + 1), passwordHash_);
    }
    return ok;
}
