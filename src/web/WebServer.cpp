// SPDX-License-Identifier: MIT
#include "WebServer.h"

#include <cstdio>
#include <optional>

#include <QDateTime>
#include <QFile>
#include <QPointer>
#include <QUrlQuery>

#include "AlertConsole.h"
#include "HttpConnection.h"
#include "HttpListener.h"
#include "LogCatalog.h"
#include "LoginGate.h"
#include "StatsClient.h"
#include "TailHub.h"
#include "WebApi.h"

namespace {

const QByteArray kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'";

struct StaticFile {
    const char* path;
    const char* resource;
    const char* type;
};

const StaticFile kStaticFiles[] = {
    {"/", ":/web/index.html", "text/html; charset=utf-8"},
    {"/app.js", ":/web/app.js", "text/javascript; charset=utf-8"},
    {"/alerts.js", ":/web/alerts.js", "text/javascript; charset=utf-8"},
    {"/health.js", ":/web/health.js", "text/javascript; charset=utf-8"},
    {"/timeline.js", ":/web/timeline.js", "text/javascript; charset=utf-8"},
    {"/app.css", ":/web/app.css", "text/css; charset=utf-8"},
    {"/icon.svg", ":/web/icon.svg", "image/svg+xml"},
};

HttpHeaders commonHeaders() {
    return {{"Content-Security-Policy", kPolicy},
            {"X-Content-Type-Options", "nosniff"},
            {"Referrer-Policy", "no-referrer"},
            {"X-Frame-Options", "DENY"},
            {"Cache-Control", "no-store"}};
}

std::optional<std::uint64_t> optionalNumber(const QUrlQuery& query, const char* name) {
    if (!query.hasQueryItem(QString::fromLatin1(name))) return std::nullopt;
    bool ok = false;
    const qulonglong value = query.queryItemValue(QString::fromLatin1(name)).toULongLong(&ok);
    if (!ok) return std::nullopt;
    return value;
}

}  // namespace

WebServer::WebServer(const WebSettings& settings, QObject* parent)
    : QObject(parent),
      settings_(settings),
      catalog_(std::make_unique<LogCatalog>(settings.logsDir)),
      stats_(std::make_unique<StatsClient>(settings.bus)),
      gate_(new LoginGate(WebAuth(settings.tokenHash, settings.user, settings.passwordHash),
                          settings.limits, this)),
      tails_(new TailHub(settings.logsDir, this)),
      listener_(new HttpListener(
          settings.limits,
          [this](HttpConnection& connection, const HttpRequest& request) {
              onHead(connection, request);
          },
          this)) {
    pool_.setMaxThreadCount(kWorkers);
    alerts_ = std::make_unique<AlertConsole>(
        AlertConsole::Options{settings.logsDir, {}, settings.listen.toStdString(), {}, {}, 500});
}

WebServer::~WebServer() {
    // Connections first, so that no answer is sent into a half-destroyed server.
    delete listener_;
    listener_ = nullptr;
    pool_.waitForDone();
}

quint16 WebServer::start() {
    if (!listener_->listen(settings_.host, settings_.port)) return 0;
    std::string error;
    if (!alerts_->start(error)) std::fprintf(stderr, "nimb-web: alerts: %s\n", error.c_str());
    return listener_->serverPort();
}

void WebServer::send(HttpConnection& connection, const WebReply& reply) {
    if (reply.file) {
        // Streamed as the client takes it; only downloads use this.
        auto file = std::make_unique<QFile>(reply.file->fileName());
        if (!file->open(QIODevice::ReadOnly)) {
            send(connection, WebReply::error(500, QStringLiteral("cannot read the archive")));
            return;
        }
        const QByteArray disposition =
            reply.headers.empty() ? QByteArray("attachment") : reply.headers.front().second;
        connection.respondFile(reply.status,
                               {{"Content-Type", reply.contentType},
                                {"Content-Disposition", disposition},
                                {"Content-Security-Policy", kPolicy},
                                {"X-Content-Type-Options", "nosniff"},
                                {"Cache-Control", "no-store"}},
                               std::move(file));
        return;
    }
    HttpHeaders headers = commonHeaders();
    headers.insert(headers.end(), reply.headers.begin(), reply.headers.end());
    connection.respond(reply.status, headers, reply.contentType, reply.body);
}

void WebServer::defer(HttpConnection& connection, std::function<WebReply()> work) {
    // The pool's tasks end before this object does (the destructor waits for them), so a
    // task may post its reply to this object; the connection may be gone by then.
    QPointer<HttpConnection> target = &connection;
    pool_.start([this, target, work = std::move(work)] {
        WebReply reply = work();
        QMetaObject::invokeMethod(
            this,
            [target, reply = std::move(reply)] {
                if (target) send(*target, reply);
            },
            Qt::QueuedConnection);
    });
}

bool WebServer::serveStatic(const QString& path, HttpConnection& connection) {
    for (const StaticFile& file : kStaticFiles) {
        if (path != QLatin1String(file.path)) continue;
        QFile resource(QString::fromLatin1(file.resource));
        if (!resource.open(QIODevice::ReadOnly)) return false;
        send(connection, WebReply::text(resource.readAll(), file.type));
        return true;
    }
    return false;
}

void WebServer::onHead(HttpConnection& connection, const HttpRequest& request) {
    const QByteArray authorization = request.value("Authorization");
    if (gate_->knows(authorization)) {
        admit(connection, request);
        return;
    }
    if (authorization.isEmpty()) {
        refuseCredentials(connection);  // with a body unread, the connection closes after
        return;
    }
    QPointer<HttpConnection> target = &connection;
    gate_->check(request.peer, authorization, QPointer<QObject>(&connection),
                 [this, target, request](bool ok) {
                     if (!target) return;
                     if (ok) {
                         admit(*target, request);
                     } else {
                         refuseCredentials(*target);
                     }
                 });
}

void WebServer::refuseCredentials(HttpConnection& connection) {
    WebReply reply = WebReply::error(401, QStringLiteral("credentials required"));
    reply.headers.emplace_back("WWW-Authenticate",
                               settings_.passwordHash.isEmpty()
                                   ? QByteArray("Bearer realm=\"nimb-web\"")
                                   : QByteArray("Basic realm=\"nimb-web\", charset=\"UTF-8\""));
    send(connection, reply);
}

void WebServer::admit(HttpConnection& connection, const HttpRequest& request) {
    QPointer<HttpConnection> target = &connection;
    // Only the requests that change something carry a body worth keeping.
    const std::size_t keep =
        request.method == "POST" ? static_cast<std::size_t>(settings_.limits.maxBodyBytes) : 0;
    connection.readBody(
        [this, target, request] {
            if (target) route(*target, request);
        },
        keep);
}

bool WebServer::routeChange(HttpConnection& connection, const HttpRequest& request) {
    const QString path = request.url.path();
    const QString prefix = QStringLiteral("/api/alerts/");
    if (request.method != "POST" || !path.startsWith(prefix)) return false;
    // A page of another site can send a form to this one with the browser's stored
    // credentials, but neither a JSON type nor a foreign origin gets through here.
    const QByteArray type = request.value("Content-Type");
    if (!type.startsWith("application/json")) {
        send(connection, WebReply::error(415, QStringLiteral("send JSON (application/json)")));
        return true;
    }
    const QByteArray origin = request.value("Origin");
    if (!origin.isEmpty() && QUrl(QString::fromLatin1(origin)).authority() !=
                                 QString::fromLatin1(request.value("Host"))) {
        send(connection, WebReply::error(403, QStringLiteral("a request from another site")));
        return true;
    }
    const std::optional<std::string> body = connection.body();
    if (!body) {
        send(connection, WebReply::error(413, QStringLiteral("request body too large")));
        return true;
    }
    AlertConsole* alerts = alerts_.get();
    defer(connection, [alerts, what = path.mid(prefix.size()), body = *body] {
        return alerts->post(what, body);
    });
    return true;
}

void WebServer::route(HttpConnection& connection, const HttpRequest& request) {
    if (routeChange(connection, request)) return;
    if (request.method != "GET") {
        WebReply reply = WebReply::error(405, QStringLiteral("only GET is served"));
        reply.headers.emplace_back("Allow", "GET");
        send(connection, reply);
        return;
    }
    const QString path = request.url.path();
    // Form encoding, as browsers write it: "+" stands for a blank (a real "+" is %2B).
    const QUrlQuery query(
        request.url.query(QUrl::FullyEncoded).replace(QLatin1Char('+'), QLatin1String("%20")));
    const std::string& logs = settings_.logsDir;
    const std::string& dumps = settings_.dumpDir;
    if (path == QLatin1String("/api/tail")) {
        const std::string file = WebApi::param(query, "file");
        const TailHub::Start started = tails_->add(connection, file, optionalNumber(query, "from"),
                                                   optionalNumber(query, "inode"));
        if (started == TailHub::Start::NotFound) {
            send(connection, WebReply::error(404, QStringLiteral("not found")));
        } else if (started == TailHub::Start::TooMany) {
            send(connection,
                 WebReply::error(503, QStringLiteral("too many live tails, try later")));
        }
        return;
    }
    if (path == QLatin1String("/api/devices")) {
        LogCatalog* catalog = catalog_.get();
        defer(connection, [catalog, query] {
            return WebApi::devices(*catalog, query, QDateTime::currentSecsSinceEpoch());
        });
    } else if (path == QLatin1String("/api/log")) {
        LogCatalog* catalog = catalog_.get();
        defer(connection, [catalog, query] { return WebApi::log(*catalog, query); });
    } else if (path == QLatin1String("/api/search")) {
        LogCatalog* catalog = catalog_.get();
        defer(connection, [catalog, query] {
            return WebApi::search(*catalog, query, QDateTime::currentSecsSinceEpoch());
        });
    } else if (path == QLatin1String("/api/timeline")) {
        LogCatalog* catalog = catalog_.get();
        defer(connection, [catalog, query] {
            return WebApi::timeline(*catalog, query, QDateTime::currentMSecsSinceEpoch());
        });
    } else if (path == QLatin1String("/api/time")) {
        send(connection, WebApi::serverTime(QDateTime::currentMSecsSinceEpoch()));
    } else if (path == QLatin1String("/api/download")) {
        LogCatalog* catalog = catalog_.get();
        defer(connection, [logs, catalog, query] {
            return query.queryItemValue(QStringLiteral("history")) == QLatin1String("1")
                       ? WebApi::historyDownload(*catalog, query)
                       : WebApi::download(logs, query);
        });
    } else if (path == QLatin1String("/api/archive")) {
        LogCatalog* catalog = catalog_.get();
        defer(connection, [catalog, query] {
            return WebApi::archive(*catalog, query, QDateTime::currentSecsSinceEpoch());
        });
    } else if (path == QLatin1String("/api/alerts")) {
        AlertConsole* alerts = alerts_.get();
        defer(connection, [alerts] { return alerts->get(); });
    } else if (path == QLatin1String("/api/crashes")) {
        defer(connection, [dumps] { return WebApi::crashes(dumps); });
    } else if (path == QLatin1String("/api/crash")) {
        defer(connection, [dumps, query] { return WebApi::crash(dumps, query); });
    } else if (path == QLatin1String("/api/health/series")) {
        LogCatalog* catalog = catalog_.get();
        defer(connection, [catalog, query] {
            return WebApi::healthSeries(*catalog, query, QDateTime::currentSecsSinceEpoch());
        });
    } else if (path == QLatin1String("/api/health/silent")) {
        LogCatalog* catalog = catalog_.get();
        const std::int64_t silentAfter = std::int64_t{settings_.silentAfterMinutes} * 60;
        defer(connection, [catalog, silentAfter] {
            return WebApi::silentDevices(*catalog, QDateTime::currentSecsSinceEpoch(), silentAfter);
        });
    } else if (path == QLatin1String("/api/health/history")) {
        LogCatalog* catalog = catalog_.get();
        defer(connection, [catalog] {
            return WebApi::historyUse(*catalog, QDateTime::currentSecsSinceEpoch());
        });
    } else if (path == QLatin1String("/api/stats") || path == QLatin1String("/metrics")) {
        StatsClient* stats = stats_.get();
        const std::size_t tails = tails_->clientCount();
        const bool prometheus = path == QLatin1String("/metrics");
        defer(connection, [stats, tails, prometheus] {
            const StatsClient::Stats values = stats->fetch();
            return prometheus ? WebApi::metrics(values, tails) : WebApi::stats(values, tails);
        });
    } else if (!serveStatic(path, connection)) {
        send(connection, WebReply::error(404, QStringLiteral("not found")));
    }
}
