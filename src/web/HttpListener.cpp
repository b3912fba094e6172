// SPDX-License-Identifier: MIT
#include "HttpListener.h"

#include <sys/socket.h>
#include <unistd.h>

#include <QTcpSocket>

namespace {

const char kBusy[] =
    "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\n"
    "Content-Length: 34\r\nConnection: close\r\n\r\n{\"error\":\"too many connections\"}\n";

// Refuses a connection without a socket object: one try at a short answer (the socket
// is fresh, so it fits its buffer), then the descriptor is closed.
void refuse(qintptr descriptor) {
    [[maybe_unused]] const ssize_t sent =
        ::send(static_cast<int>(descriptor), kBusy, sizeof kBusy - 1, MSG_DONTWAIT | MSG_NOSIGNAL);
    ::close(static_cast<int>(descriptor));
}

}  // namespace

HttpListener::HttpListener(const HttpLimits& limits, HttpConnection::HeadHandler handler,
                           QObject* parent)
    : QTcpServer(parent),
      limits_(limits),
      handler_(std::move(handler)),
      maxConnections_(limits.effectiveMaxConnections()) {}

HttpListener::~HttpListener() = default;

void HttpListener::incomingConnection(qintptr descriptor) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    QHostAddress peer;
    if (::getpeername(static_cast<int>(descriptor), reinterpret_cast<sockaddr*>(&storage),
                      &length) == 0) {
        peer.setAddress(reinterpret_cast<const sockaddr*>(&storage));
    }
    const QString key = addressKey(peer);
    const auto it = perAddress_.find(key);
    if (total_ >= maxConnections_ ||
        (it != perAddress_.end() && it->second >= limits_.maxConnectionsPerAddress)) {
        refuse(descriptor);
        return;
    }
    auto socket = std::make_unique<QTcpSocket>();
    if (!socket->setSocketDescriptor(descriptor)) {
        ::close(static_cast<int>(descriptor));
        return;
    }
    ++perAddress_[key];
    ++total_;
    auto* connection = new HttpConnection(socket.release(), limits_, handler_, this);
    connect(connection, &HttpConnection::closed, this, [this, key] { onClosed(key); });
}

void HttpListener::onClosed(const QString& key) {
    --total_;
    const auto it = perAddress_.find(key);
    if (it != perAddress_.end() && --it->second <= 0) perAddress_.erase(it);
}
