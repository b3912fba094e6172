// SPDX-License-Identifier: MIT
// HttpListener: accepts nimb-web's connections and holds them to the connection caps:
// at most HttpLimits::maxConnectionsPerAddress from one address (addressKey) and
// effectiveMaxConnections() in all, so that one address cannot take the descriptors
// everyone needs. A connection past a cap gets a short 503 and is closed at once. Each
// accepted one becomes an HttpConnection (its child) calling the head handler. Lives on
// the main thread.
#pragma once

#include <map>

#include <QString>
#include <QTcpServer>

#include "HttpConnection.h"
#include "HttpLimits.h"

class HttpListener : public QTcpServer {
    Q_OBJECT

public:
    HttpListener(const HttpLimits& limits, HttpConnection::HeadHandler handler,
                 QObject* parent = nullptr);
    HttpListener(const HttpListener&) = delete;
    HttpListener& operator=(const HttpListener&) = delete;
    ~HttpListener() override;

    int connectionCount() const { return total_; }
    // The cap in all, after the descriptor limit.
    int maxConnections() const { return maxConnections_; }

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void onClosed(const QString& key);

    // Immutable after construction.
    const HttpLimits limits_;
    const HttpConnection::HeadHandler handler_;
    const int maxConnections_ = 0;

    // Main thread only.
    int total_ = 0;
    std::map<QString, int> perAddress_;
};
