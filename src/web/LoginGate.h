// SPDX-License-Identifier: MIT
// LoginGate: checks credentials without holding up anyone else. PBKDF2 runs on one
// worker thread of its own, never on the main thread; each address (addressKey) has at
// most one check in work or queued there, the others wait in that address's line; and
// after the n-th failure in a row from an address its next check waits
// min(loginDelayMs * 2^(n-1), loginDelayMaxMs). So wrong passwords from one address
// slow that address only: another address's check waits at most for one check per
// address being checked at that moment. Credentials that passed once are remembered
// (64 at most) and pass at once, from any address. Lives on the main thread.
#pragma once

#include <deque>
#include <functional>
#include <map>

#include <QElapsedTimer>
#include <QHostAddress>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QThreadPool>

#include "HttpLimits.h"
#include "WebAuth.h"

class LoginGate : public QObject {
    Q_OBJECT

public:
    // Addresses remembered with their failures; past this, new ones share one line.
    static constexpr std::size_t kMaxAddresses = 4096;
    // Failures are forgotten after this long without one.
    static constexpr qint64 kForgetMs = 15 * 60 * 1000;
    static constexpr int kMaxAccepted = 64;

    LoginGate(WebAuth auth, const HttpLimits& limits, QObject* parent = nullptr);
    LoginGate(const LoginGate&) = delete;
    LoginGate& operator=(const LoginGate&) = delete;
    // Waits for the check in work; verdicts not yet delivered are dropped.
    ~LoginGate() override;

    // Whether `authorization` passes without a check: no credentials are configured, or
    // it passed before. Main thread; does not block.
    bool knows(const QByteArray& authorization) const;

    // Checks `authorization` from `peer` after that address's wait, on the worker thread,
    // and calls `done` with the verdict on the main thread, always later than this call.
    // Neither the check nor `done` happens when `owner` is gone by then. Main thread.
    void check(const QHostAddress& peer, const QByteArray& authorization, QPointer<QObject> owner,
               std::function<void(bool)> done);

private:
    struct Pending {
        QPointer<QObject> owner;
        QByteArray authorization;
        std::function<void(bool)> done;
    };
    struct Address {
        int failures = 0;
        qint64 readyAt = 0;      // clock_ ms: the next check starts no sooner
        qint64 lastFailure = 0;  // clock_ ms
        bool checking = false;   // `current` is waiting for readyAt or in work
        Pending current;
        std::deque<Pending> line;
    };

    QString keyFor(const QHostAddress& peer);
    void startNext(const QString& key);
    void run(const QString& key);
    void finish(const QString& key, bool ok);
    qint64 delayAfter(int failures) const;

    // Immutable after construction (read by the worker).
    const WebAuth auth_;
    const HttpLimits limits_;

    // Main thread only.
    QElapsedTimer clock_;
    std::map<QString, Address> addresses_;
    QSet<QByteArray> accepted_;
    QThreadPool worker_;
};
