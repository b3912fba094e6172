// SPDX-License-Identifier: MIT
#include "WebServer.h"

#include <QDateTime>
#include <QFile>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QPointer>
#include <QTcpSocket>
#include <QUrlQuery>

#include "LogCatalog.h"
#include "StatsClient.h"
#include "TailHub.h"
#include "WebApi.h"

namespace {

using Status = QHttpServerResponder::StatusCode;

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
    {"/app.css", ":/web/app.css", "text/css; charset=utf-8"},
    {"/icon.svg", ":/web/icon.svg", "image/svg+xml"},
};

void writeCommonHeaders(QHttpServerResponder& responder) {
    responder.writeHeader("Content-Security-Policy", kPolicy);
    responder.writeHeader("X-Content-Type-Options", "nosniff");
    responder.writeHeader("Referrer-Policy", "no-referrer");
    responder.writeHeader("X-Frame-Options", "DENY");
    responder.writeHeader("Cache-Control", "no-store");
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
    : QAbstractHttpServer(parent),
      settings_(settings),
      auth_(settings.tokenHash, settings.user, settings.passwordHash),
      catalog_(std::make_unique<LogCatalog>(settings.logsDir)),
      stats_(std::make_unique<StatsClient>(settings.bus)),
      tails_(new TailHub(settings.logsDir, this)) {
    pool_.setMaxThreadCount(kWorkers);
}

WebServer::~WebServer() { pool_.waitForDone(); }

quint16 WebServer::start() { return listen(settings_.host, settings_.port); }

void WebServer::send(QHttpServerResponder& responder, const WebReply& reply) {
    const auto status = static_cast<Status>(reply.status);
    if (reply.file) {
        // Streamed by the responder, which adds the length; only downloads use this.
        auto* file = new QFile(reply.file->fileName());
        if (!file->open(QIODevice::ReadOnly)) {
            delete file;
            send(responder, WebReply::error(500, QStringLiteral("cannot read the archive")));
            return;
        }
        const QByteArray disposition =
            reply.headers.empty() ? QByteArray("attachment") : reply.headers.front().second;
        responder.write(file,
                        {{"Content-Type", reply.contentType},
                         {"Content-Disposition", disposition},
                         {"Content-Security-Policy", kPolicy},
                         {"X-Content-Type-Options", "nosniff"},
                         {"Cache-Control", "no-store"}},
                        status);
        return;
    }
    responder.writeStatusLine(status);
    writeCommonHeaders(responder);
    responder.writeHeader("Content-Type", reply.contentType);
    responder.writeHeader("Content-Length", QByteArray::number(reply.body.size()));
    for (const auto& [name, value] : reply.headers) responder.writeHeader(name, value);
    responder.writeBody(reply.body);
}

void WebServer::defer(QHttpServerResponder&& responder, std::function<WebReply()> work) {
    auto shared = std::make_shared<QHttpServerResponder>(std::move(responder));
    QPointer<QTcpSocket> socket = shared->socket();
    QPointer<WebServer> self = this;
    pool_.start([self, shared, socket, work = std::move(work)] {
        WebReply reply = work();
        if (!self) return;
        QMetaObject::invokeMethod(
            self.data(),
            [shared, socket, reply = std::move(reply)] {
                if (socket && socket->state() == QAbstractSocket::ConnectedState)
                    send(*shared, reply);
            },
            Qt::QueuedConnection);
    });
}

bool WebServer::serveStatic(const QString& path, QHttpServerResponder& responder) {
    for (const StaticFile& file : kStaticFiles) {
        if (path != QLatin1String(file.path)) continue;
        QFile resource(QString::fromLatin1(file.resource));
        if (!resource.open(QIODevice::ReadOnly)) return false;
        send(responder, WebReply::text(resource.readAll(), file.type));
        return true;
    }
    return false;
}

bool WebServer::handleRequest(const QHttpServerRequest& request, QTcpSocket* socket) {
    QHttpServerResponder responder = makeResponder(request, socket);
    if (!auth_.allows(request.value("Authorization"))) {
        WebReply reply = WebReply::error(401, QStringLiteral("credentials required"));
        reply.headers.emplace_back("WWW-Authenticate",
                                   settings_.passwordHash.isEmpty()
                                       ? QByteArray("Bearer realm=\"nimb-web\"")
                                       : QByteArray("Basic realm=\"nimb-web\", charset=\"UTF-8\""));
        send(responder, reply);
        return true;
    }
    if (request.method() != QHttpServerRequest::Method::Get) {
        WebReply reply = WebReply::error(405, QStringLiteral("only GET is served"));
        reply.headers.emplace_back("Allow", "GET");
        send(responder, reply);
        return true;
    }
    const QString path = request.url().path();
    // Form encoding, as browsers write it: "+" stands for a blank (a real "+" is %2B).
    const QUrlQuery query(
        request.url().query(QUrl::FullyEncoded).replace(QLatin1Char('+'), QLatin1String("%20")));
    const std::string& logs = settings_.logsDir;
    const std::string& dumps = settings_.dumpDir;
    if (path == QLatin1String("/api/tail")) {
        const std::string file = WebApi::param(query, "file");
        const TailHub::Start started = tails_->add(responder, file, optionalNumber(query, "from"),
                                                   optionalNumber(query, "inode"));
        if (started == TailHub::Start::NotFound) {
            send(responder, WebReply::error(404, QStringLiteral("not found")));
        } else if (started == TailHub::Start::TooMany) {
            send(responder, WebReply::error(503, QStringLiteral("too many live tails, try later")));
        }
        return true;
    }
    if (path == QLatin1String("/api/devices")) {
        LogCatalog* catalog = catalog_.get();
        defer(std::move(responder), [catalog, query] {
            return WebApi::devices(*catalog, query, QDateTime::currentSecsSinceEpoch());
        });
    } else if (path == QLatin1String("/api/log")) {
        LogCatalog* catalog = catalog_.get();
        defer(std::move(responder), [catalog, query] { return WebApi::log(*catalog, query); });
    } else if (path == QLatin1String("/api/search")) {
        LogCatalog* catalog = catalog_.get();
        defer(std::move(responder), [catalog, query] {
            return WebApi::search(*catalog, query, QDateTime::currentSecsSinceEpoch());
        });
    } else if (path == QLatin1String("/api/download")) {
        defer(std::move(responder), [logs, query] { return WebApi::download(logs, query); });
    } else if (path == QLatin1String("/api/archive")) {
        LogCatalog* catalog = catalog_.get();
        defer(std::move(responder), [catalog, query] {
            return WebApi::archive(*catalog, query, QDateTime::currentSecsSinceEpoch());
        });
    } else if (path == QLatin1String("/api/crashes")) {
        defer(std::move(responder), [dumps] { return WebApi::crashes(dumps); });
    } else if (path == QLatin1String("/api/crash")) {
        defer(std::move(responder), [dumps, query] { return WebApi::crash(dumps, query); });
    } else if (path == QLatin1String("/api/stats") || path == QLatin1String("/metrics")) {
        StatsClient* stats = stats_.get();
        const std::size_t tails = tails_->clientCount();
        const bool prometheus = path == QLatin1String("/metrics");
        defer(std::move(responder), [stats, tails, prometheus] {
            const StatsClient::Stats values = stats->fetch();
            return prometheus ? WebApi::metrics(values, tails) : WebApi::stats(values, tails);
        });
    } else if (!serveStatic(path, responder)) {
        send(responder, WebReply::error(404, QStringLiteral("not found")));
    }
    return true;
}

void WebServer::missingHandler(const QHttpServerRequest& request, QTcpSocket* socket) {
    QHttpServerResponder responder = makeResponder(request, socket);
    send(responder, WebReply::error(404, QStringLiteral("not found")));
}
