// SPDX-License-Identifier: MIT
#include "LoginGate.h"

#include <algorithm>

#include <QTimer>

namespace {

// Addresses past LoginGate::kMaxAddresses share this line, and so its slowdown.
const QString kOverflowKey = QStringLiteral("*");

}  // namespace

LoginGate::LoginGate(WebAuth auth, const HttpLimits& limits, QObject* parent)
    : QObject(parent), auth_(std::move(auth)), limits_(limits) {
    clock_.start();
    worker_.setMaxThreadCount(1);
    worker_.setObjectName(QStringLiteral("nimb-web-login"));
}

LoginGate::~LoginGate() {
    worker_.clear();
    worker_.waitForDone();
}

bool LoginGate::knows(const QByteArray& authorization) const {
    return !auth_.required() || accepted_.contains(authorization);
}

void LoginGate::check(const QHostAddress& peer, const QByteArray& authorization,
                      QPointer<QObject> owner, std::function<void(bool)> done) {
    const QString key = keyFor(peer);
    Address& address = addresses_[key];
    address.line.push_back({std::move(owner), authorization, std::move(done)});
    if (!address.checking) startNext(key);
}

QString LoginGate::keyFor(const QHostAddress& peer) {
    const QString key = addressKey(peer);
    if (addresses_.count(key) != 0 || addresses_.size() < kMaxAddresses) return key;
    const qint64 now = clock_.elapsed();
    for (auto it = addresses_.begin(); it != addresses_.end();) {
        const bool idle = !it->second.checking && it->second.line.empty();
        const bool forgotten = it->second.failures == 0 || now - it->second.lastFailure > kForgetMs;
        it = idle && forgotten ? addresses_.erase(it) : std::next(it);
    }
    return addresses_.size() < kMaxAddresses ? key : kOverflowKey;
}

qint64 LoginGate::delayAfter(int failures) const {
    qint64 delay = limits_.loginDelayMs;
    for (int i = 1; i < failures && delay < limits_.loginDelayMaxMs; ++i) delay *= 2;
    return std::min<qint64>(delay, limits_.loginDelayMaxMs);
}

void LoginGate::startNext(const QString& key) {
    const auto it = addresses_.find(key);
    if (it == addresses_.end()) return;
    Address& address = it->second;
    address.checking = false;
    while (!address.line.empty() && !address.line.front().owner) address.line.pop_front();
    if (address.line.empty()) {
        // Nothing waits: an address without failures is not worth remembering.
        if (address.failures == 0) addresses_.erase(it);
        return;
    }
    const qint64 now = clock_.elapsed();
    if (address.failures > 0 && now - address.lastFailure > kForgetMs) {
        address.failures = 0;
        address.readyAt = 0;
    }
    address.checking = true;
    address.current = std::move(address.line.front());
    address.line.pop_front();
    const qint64 wait = std::max<qint64>(0, address.readyAt - now);
    QTimer::singleShot(std::chrono::milliseconds(wait), this, [this, key] { run(key); });
}

void LoginGate::run(const QString& key) {
    const Address& address = addresses_[key];
    if (!address.current.owner) {
        startNext(key);  // the client left while it waited
        return;
    }
    if (accepted_.contains(address.current.authorization)) {
        finish(key, true);  // passed meanwhile on another connection
        return;
    }
    // auth_ is immutable and this object outlives the worker's tasks (the destructor
    // waits for them), so the task may read it and post its verdict back here. The
    // task gets copies of plain values only; the waiting client stays on this thread.
    const QByteArray authorization = address.current.authorization;
    worker_.start([this, key, authorization] {
        const bool ok = auth_.allows(authorization);
        QMetaObject::invokeMethod(
            this, [this, key, ok] { finish(key, ok); }, Qt::QueuedConnection);
    });
}

void LoginGate::finish(const QString& key, bool ok) {
    Address& address = addresses_[key];
    Pending pending = std::move(address.current);
    address.current = Pending();
    if (ok) {
        if (accepted_.size() >= kMaxAccepted) accepted_.clear();
        accepted_.insert(pending.authorization);
        address.failures = 0;
        address.readyAt = 0;
    } else {
        const qint64 now = clock_.elapsed();
        address.failures = std::min(address.failures + 1, 62);
        address.lastFailure = now;
        address.readyAt = now + delayAfter(address.failures);
    }
    if (pending.owner) pending.done(ok);
    startNext(key);
}
