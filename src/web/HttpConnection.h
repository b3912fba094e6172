// SPDX-License-Identifier: MIT
// HttpConnection: one client's HTTP/1.1 connection to nimb-web. Reads one request at a
// time (heads parsed by Boost.Beast, bodies counted and dropped, never kept), hands its
// head to the server, and reads nothing more until that request is answered, so that
// pipelined requests are answered in order and one connection never has more than one
// request in work. Holds the client to HttpLimits: a head must be complete within the
// header timeout, a body within the body timeout and under the body limit (413 from the
// declared length, before any of it is read). "Connection: close" (and HTTP/1.0 without
// keep-alive) closes the connection after its answer. Owns its socket; deletes itself
// (deleteLater) once the socket is closed. Lives on the main thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include "HttpLimits.h"

class QFile;
class QTcpSocket;

// A request's head as the server sees it.
struct HttpRequest {
    QByteArray method;  // as sent, e.g. "GET"
    QUrl url;           // path and query of the target
    std::vector<std::pair<QByteArray, QByteArray>> headers;
    QHostAddress peer;
    bool hasBody = false;  // a body follows the head (declared length > 0 or chunked)
    bool keepAlive = true;

    // The first header field named `name` (case-insensitive); empty when absent.
    QByteArray value(const QByteArray& name) const;
};

using HttpHeaders = std::vector<std::pair<QByteArray, QByteArray>>;

class HttpConnection : public QObject {
    Q_OBJECT

public:
    // Called once per request when its head is complete, before its body is read. The
    // handler answers (now or later) with respond(), respondFile() or startStream(),
    // after readBody() if it wants the request to go on.
    using HeadHandler = std::function<void(HttpConnection&, const HttpRequest&)>;

    // Takes `socket` (connected). `limits` is copied.
    HttpConnection(QTcpSocket* socket, const HttpLimits& limits, HeadHandler handler,
                   QObject* parent = nullptr);
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;
    ~HttpConnection() override;

    QHostAddress peer() const { return peer_; }

    // Reads the current request's body (counted; its first `keep` bytes kept, the rest
    // dropped; the body timeout and limit apply), then calls `then`. Calls it at once when
    // there is no body. On a body that is too long or too slow the connection answers
    // 413/408 and closes instead.
    void readBody(std::function<void()> then, std::size_t keep = 0);
    // The body read for the current request: "" when there was none, nothing when it was
    // longer than what readBody() kept.
    std::optional<std::string> body() const;

    // Answers the current request with `body` (Content-Length added). The connection
    // closes after it when the request asked to, or when its body was not read.
    void respond(int status, const HttpHeaders& headers, const QByteArray& contentType,
                 const QByteArray& body);
    // Answers with the contents of `file` (taken, open for reading), sent as the client
    // takes it.
    void respondFile(int status, const HttpHeaders& headers, std::unique_ptr<QFile> file);
    // Answers with a head and no length: the body is whatever is written to the returned
    // socket (owned by this connection) until it closes. No further requests are read.
    QTcpSocket* startStream(int status, const HttpHeaders& headers);

signals:
    // The socket closed; this object is deleted later.
    void closed();

private:
    enum class State { ReadingHead, AwaitingAnswer, ReadingBody, SendingFile, Streaming, Closing };
    struct Parser;

    void pump();
    void schedulePump();
    // Each consumes from inbox_; false when more input is needed.
    bool parseHead();
    bool parseBody();
    void onHeadComplete();
    // Reads from the socket into inbox_ up to `limit` bytes held.
    void fill(qsizetype limit);
    void onBytesWritten();
    void onDeadline();
    void startHeadClock();
    void writeHead(int status, const HttpHeaders& headers, const QByteArray& contentType,
                   qint64 length, bool close);
    void sendMoreFile();
    // After an answer: the next request, or closing when `close`.
    void finishAnswer(bool close);
    // Answers an error of the client's (400, 408, 413, 431) and closes.
    void refuse(int status, const char* message);
    void closeAfterWrite();
    // Ends our side once everything is out, and drops what still arrives for a moment.
    void halfClose();
    void abort();
    void onDisconnected();

    // Immutable after construction.
    QTcpSocket* socket_ = nullptr;  // child of this
    const HttpLimits limits_;
    const HeadHandler handler_;
    QHostAddress peer_;

    // Main thread only.
    State state_ = State::ReadingHead;
    std::unique_ptr<Parser> parser_;
    QByteArray inbox_;     // received, not yet parsed
    qint64 headUsed_ = 0;  // of the current head, taken by the parser
    QTimer deadline_;
    bool headClockRunning_ = false;
    bool pumpScheduled_ = false;
    bool bodyRead_ = true;  // the current request's body is read (or there is none)
    bool keepAlive_ = true;
    std::function<void()> afterBody_;
    std::unique_ptr<QFile> file_;
    qint64 fileLeft_ = 0;  // of file_, still to send
    bool fileClose_ = false;
    bool halfClosed_ = false;
    bool gone_ = false;  // closed() was emitted
};
