// SPDX-License-Identifier: MIT
// WebServer: nimb-web's HTTP server. Serves the page from the program's resources, the
// JSON API under /api/, live tails as server-sent events and /metrics. It only reads
// the logs folder and the dump folder, each file through SafeFolder; the one thing it
// changes is the alerts (POST /api/alerts/..., JSON only, from its own pages). Every answer
// carries a Content-Security-Policy that forbids inline script. Connections are taken
// and held to their bounds by HttpListener/HttpConnection, credentials are checked by
// LoginGate on its own thread; requests are routed on the main thread, file and bus
// work runs on a small thread pool and the answer is sent back on the main thread.
// Lives on the main thread.
#pragma once

#include <functional>
#include <memory>

#include <QObject>
#include <QThreadPool>

#include "WebReply.h"
#include "WebSettings.h"

class AlertConsole;
class HttpConnection;
class HttpListener;
class LogCatalog;
class LoginGate;
class StatsClient;
class TailHub;
struct HttpRequest;

class WebServer : public QObject {
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

private:
    // A request's head is in: credentials first (from the head, before any body).
    void onHead(HttpConnection& connection, const HttpRequest& request);
    // Credentials passed: the body (if any) is read and dropped, then the request routed.
    void admit(HttpConnection& connection, const HttpRequest& request);
    void route(HttpConnection& connection, const HttpRequest& request);
    // A request that changes something (POST /api/alerts/...): checked and handed to the
    // alerts. False for any other request.
    bool routeChange(HttpConnection& connection, const HttpRequest& request);
    void refuseCredentials(HttpConnection& connection);
    // Runs `work` on the pool and sends its reply on the main thread, if the client is
    // still there.
    void defer(HttpConnection& connection, std::function<WebReply()> work);
    bool serveStatic(const QString& path, HttpConnection& connection);
    static void send(HttpConnection& connection, const WebReply& reply);

    // Immutable after construction.
    const WebSettings settings_;
    std::unique_ptr<LogCatalog> catalog_;
    std::unique_ptr<StatsClient> stats_;
    std::unique_ptr<AlertConsole> alerts_;
    LoginGate* gate_ = nullptr;         // child of this
    TailHub* tails_ = nullptr;          // child of this
    HttpListener* listener_ = nullptr;  // child of this
    QThreadPool pool_;
};
