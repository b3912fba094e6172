// SPDX-License-Identifier: MIT
// WebReply: one HTTP answer built on any thread and sent on the main thread: status,
// content type, body (or a file streamed from disk) and extra headers.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

class QFile;

struct WebReply {
    int status = 200;
    QByteArray contentType = "application/json";
    QByteArray body;
    std::vector<std::pair<QByteArray, QByteArray>> headers;
    // When set, the body is streamed from this file (opened for reading) instead.
    std::shared_ptr<QFile> file;

    static WebReply json(const QJsonObject& object, int status = 200) {
        WebReply reply;
        reply.status = status;
        reply.body = QJsonDocument(object).toJson(QJsonDocument::Compact);
        return reply;
    }
    // {"error": message} with the given status.
    static WebReply error(int status, const QString& message) {
        QJsonObject object;
        object.insert(QStringLiteral("error"), message);
        return json(object, status);
    }
    static WebReply text(const QByteArray& body, const QByteArray& type) {
        WebReply reply;
        reply.contentType = type;
        reply.body = body;
        return reply;
    }
};
