// SPDX-License-Identifier: MIT
// WebServer: nimb-web's HTTP server (QtHttpServer). Serves the page from the program's
// resources, the JSON API under /api/, live tails as server-sent events and /metrics.
// It only reads: the logs folder and the dump folder, each file through SafeFolder.
// Every answer carries a Content-Security-Policy that forbids inline script. Requests
// run on the main thread; file and bus work runs on a small thread pool and the answer
// is sent back on the main thread. Lives on the main thread.
#pragma once

#include <memory>

#include <QAbstractHttpServer>
#include <QThreadPool>

#include "WebAuth.h"
#include "WebReply.h"
#include "WebSettings.h"

class LogCatalog;
class QHttpServerResponder;
class StatsClient;
class TailHub;

class WebServer : public QAbstractHttpServer {
    Q_OBJECT

public:
    static constexpr int kWorkers = 2;

    explicit WebServer(const WebSettings& settings, QObject* parent = nullptr);
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;
    // Waits for running work; answers still pending are dropped.
    ~WebServer() override;

    // Listens on the configured address; the port (0 on failure).
    quint16 start();

protected:
    bool handleRequest(const QHttpServerRequest& request, QTcpSocket* socket) override;
    void missingHandler(const QHttpServerRequest& request, QTcpSocket* socket) override;

private:
    // Runs `work` on the pool and sends its reply on the main thread, if the client is
    // still there.
    void defer(QHttpServerResponder&& responder, std::function<WebReply()> work);
    bool serveStatic(const QString& path, QHttpServerResponder& responder);
    static void send(QHttpServerResponder& responder, const WebReply& reply);

    // Immutable after construction.
    const WebSettings settings_;
    WebAuth auth_;
    std::unique_ptr<LogCatalog> catalog_;
    std::unique_ptr<StatsClient> stats_;
    TailHub* tails_ = nullptr;  // child of this
    QThreadPool pool_;
};
