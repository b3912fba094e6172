// SPDX-License-Identifier: MIT
#include "HttpConnection.h"

#include <algorithm>
#include <limits>

#include <sys/socket.h>

#include <QFile>
#include <QTcpSocket>

#include <boost/beast/core/buffers_range.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/parser.hpp>

namespace {

namespace http = boost::beast::http;
using boost::beast::error_code;

// What one connection may hold unread in the socket's buffer: the kernel keeps the rest.
constexpr qint64 kReadBuffer = 64 * 1024;
// Body bytes taken from the socket at a time (they are counted and dropped).
constexpr qsizetype kBodyPiece = 64 * 1024;
// The next request is not read while more than this of the answers waits unsent, so a
// client that pipelines without reading cannot make answers pile up.
constexpr qint64 kMaxUnsent = 1024 * 1024;
// A file is read on as the client takes it, this much at a time.
constexpr qint64 kFilePiece = 64 * 1024;
constexpr qint64 kFileWindow = 256 * 1024;
// After the last answer of a closing connection, what the client still sends is read
// and dropped this long, so that it sees the answer instead of a reset.
constexpr int kLingerMs = 2000;

// A request body that is counted, and kept only up to the bound the handler asked for
// (0 for the requests that use no body): what is past it is dropped.
struct BoundedBody {
    struct value_type {
        std::uint64_t size = 0;
        std::size_t keep = 0;
        std::string kept;
    };
    class reader {
    public:
        template <bool isRequest, class Fields>
        reader(http::header<isRequest, Fields>&, value_type& body) : body_(body) {}
        void init(const boost::optional<std::uint64_t>&, error_code& ec) { ec = {}; }
        template <class Buffers>
        std::size_t put(const Buffers& buffers, error_code& ec) {
            ec = {};
            const std::size_t size = boost::beast::buffer_bytes(buffers);
            for (auto it = boost::asio::buffer_sequence_begin(buffers);
                 it != boost::asio::buffer_sequence_end(buffers) && body_.kept.size() < body_.keep;
                 ++it) {
                const boost::asio::const_buffer piece(*it);
                const std::size_t take = std::min(piece.size(), body_.keep - body_.kept.size());
                body_.kept.append(static_cast<const char*>(piece.data()), take);
            }
            body_.size += size;
            return size;
        }
        void finish(error_code& ec) { ec = {}; }

    private:
        value_type& body_;
    };
};

const char* reasonPhrase(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 400:
            return "Bad Request";
        case 401:
            return "Unauthorized";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 408:
            return "Request Timeout";
        case 413:
            return "Content Too Large";
        case 431:
            return "Request Header Fields Too Large";
        case 500:
            return "Internal Server Error";
        case 503:
            return "Service Unavailable";
        default:
            return "Status";
    }
}

// Header text from the server's own values; a line break would end the head early.
QByteArray oneLine(QByteArray text) {
    text.replace('\r', ' ');
    text.replace('\n', ' ');
    return text;
}

QByteArray toBytes(boost::beast::string_view text) {
    return QByteArray(text.data(), static_cast<qsizetype>(text.size()));
}

// The path and query of a request target, as QtHttpServer took them (tolerant decoding
// of the path; the query stays encoded for the API's own parsing).
QUrl targetUrl(const QByteArray& target) {
    if (!target.startsWith('/')) return QUrl::fromEncoded(target, QUrl::TolerantMode);
    QUrl url;
    const qsizetype hash = target.indexOf('#');
    const QByteArray whole = hash < 0 ? target : target.left(hash);
    const qsizetype question = whole.indexOf('?');
    url.setPath(QString::fromLatin1(question < 0 ? whole : whole.left(question)),
                QUrl::TolerantMode);
    if (question >= 0)
        url.setQuery(QString::fromLatin1(whole.mid(question + 1)), QUrl::TolerantMode);
    return url;
}

}  // namespace

struct HttpConnection::Parser {
    http::request_parser<BoundedBody> parser;
    Parser() {
        parser.header_limit(HttpLimits::kMaxHeadBytes);
        parser.body_limit(std::numeric_limits<std::uint64_t>::max());  // checked here
        parser.eager(false);  // stop after the head: the server decides on the body
    }
};

QByteArray HttpRequest::value(const QByteArray& name) const {
    for (const auto& [field, text] : headers) {
        if (field.compare(name, Qt::CaseInsensitive) == 0) return text;
    }
    return {};
}

HttpConnection::HttpConnection(QTcpSocket* socket, const HttpLimits& limits, HeadHandler handler,
                               QObject* parent)
    : QObject(parent),
      socket_(socket),
      limits_(limits),
      handler_(std::move(handler)),
      peer_(socket->peerAddress()) {
    socket_->setParent(this);
    socket_->setReadBufferSize(kReadBuffer);
    deadline_.setSingleShot(true);
    connect(&deadline_, &QTimer::timeout, this, &HttpConnection::onDeadline);
    connect(socket_, &QTcpSocket::readyRead, this, &HttpConnection::pump);
    connect(socket_, &QTcpSocket::bytesWritten, this, &HttpConnection::onBytesWritten);
    connect(socket_, &QTcpSocket::disconnected, this, &HttpConnection::onDisconnected);
    startHeadClock();
    schedulePump();
}

HttpConnection::~HttpConnection() {
    // The socket (a child) goes after this object's own part: nothing of it may call back.
    QObject::disconnect(socket_, nullptr, this, nullptr);
}

void HttpConnection::schedulePump() {
    if (pumpScheduled_) return;
    pumpScheduled_ = true;
    QMetaObject::invokeMethod(this, &HttpConnection::pump, Qt::QueuedConnection);
}

void HttpConnection::pump() {
    pumpScheduled_ = false;
    for (;;) {
        switch (state_) {
            case State::ReadingHead:
                // Until the client has taken most of the earlier answers, the next waits.
                if (socket_->bytesToWrite() > kMaxUnsent) return;
                fill(HttpLimits::kMaxHeadBytes);
                if (!parseHead()) return;
                break;
            case State::ReadingBody:
                fill(kBodyPiece);
                if (!parseBody()) return;
                break;
            case State::Streaming:
            case State::Closing:
                // Nothing more is answered: what arrives is dropped.
                inbox_.clear();
                socket_->skip(socket_->bytesAvailable());
                return;
            case State::AwaitingAnswer:
            case State::SendingFile:
                return;  // read on after the answer
        }
    }
}

void HttpConnection::fill(qsizetype limit) {
    const qint64 room = limit - inbox_.size();
    if (room <= 0 || socket_->bytesAvailable() <= 0) return;
    inbox_ += socket_->read(room);
}

bool HttpConnection::parseHead() {
    if (!parser_) {
        parser_ = std::make_unique<Parser>();
        headUsed_ = 0;
    }
    if (inbox_.isEmpty()) return false;
    error_code ec;
    const std::size_t used = parser_->parser.put(
        boost::asio::const_buffer(inbox_.constData(), static_cast<std::size_t>(inbox_.size())), ec);
    inbox_.remove(0, static_cast<qsizetype>(used));
    headUsed_ += static_cast<qint64>(used);
    // The parser keeps what it took (the request line) apart from what it still needs;
    // the limit is on both together.
    if (ec == http::error::need_more && headUsed_ + inbox_.size() >= HttpLimits::kMaxHeadBytes)
        ec = http::error::header_limit;
    if (ec == http::error::need_more) return false;
    if (ec == http::error::header_limit) {
        refuse(431, "request head too long");
        return false;
    }
    if (ec || !parser_->parser.is_header_done()) {
        refuse(400, "malformed request");
        return false;
    }
    onHeadComplete();
    return true;
}

void HttpConnection::onHeadComplete() {
    auto& parser = parser_->parser;
    const auto& message = parser.get();
    HttpRequest request;
    request.method = toBytes(message.method_string());
    request.url = targetUrl(toBytes(message.target()));
    for (const auto& field : message) {
        request.headers.emplace_back(toBytes(field.name_string()), toBytes(field.value()));
    }
    request.peer = peer_;
    request.keepAlive = parser.keep_alive();
    request.hasBody = !parser.is_done();
    const boost::optional<std::uint64_t> length = parser.content_length();
    if (length && *length > static_cast<std::uint64_t>(limits_.maxBodyBytes)) {
        refuse(413, "request body too large");  // from the head: the body is never read
        return;
    }
    state_ = State::AwaitingAnswer;
    deadline_.stop();
    bodyRead_ = !request.hasBody;
    keepAlive_ = request.keepAlive;
    handler_(*this, request);
}

void HttpConnection::readBody(std::function<void()> then, std::size_t keep) {
    if (state_ != State::AwaitingAnswer) return;
    if (bodyRead_) {
        then();
        return;
    }
    parser_->parser.get().body().keep = keep;
    afterBody_ = std::move(then);
    parser_->parser.eager(true);
    state_ = State::ReadingBody;
    deadline_.start(limits_.bodyTimeoutMs);
    pump();
}

bool HttpConnection::parseBody() {
    if (inbox_.isEmpty()) return false;
    error_code ec;
    const std::size_t used = parser_->parser.put(
        boost::asio::const_buffer(inbox_.constData(), static_cast<std::size_t>(inbox_.size())), ec);
    inbox_.remove(0, static_cast<qsizetype>(used));
    if (parser_->parser.get().body().size > static_cast<std::uint64_t>(limits_.maxBodyBytes)) {
        refuse(413, "request body too large");  // a chunked body past the limit
        return false;
    }
    if (ec == http::error::need_more) {
        // Only a chunk's head can be incomplete; one that fills the buffer is no head.
        if (inbox_.size() >= kBodyPiece) refuse(400, "malformed request body");
        return false;
    }
    if (ec) {
        refuse(400, "malformed request body");
        return false;
    }
    if (!parser_->parser.is_done()) return false;
    bodyRead_ = true;
    state_ = State::AwaitingAnswer;
    deadline_.stop();
    std::function<void()> then = std::move(afterBody_);
    afterBody_ = nullptr;
    then();
    return true;
}

std::optional<std::string> HttpConnection::body() const {
    if (!parser_) return std::string();
    if (!parser_->parser.is_done()) return std::nullopt;
    const BoundedBody::value_type& body = parser_->parser.get().body();
    if (body.size > body.kept.size()) return std::nullopt;
    return body.kept;
}

void HttpConnection::writeHead(int status, const HttpHeaders& headers,
                               const QByteArray& contentType, qint64 length, bool close) {
    QByteArray head =
        "HTTP/1.1 " + QByteArray::number(status) + ' ' + reasonPhrase(status) + "\r\n";
    for (const auto& [name, value] : headers)
        head += oneLine(name) + ": " + oneLine(value) + "\r\n";
    if (!contentType.isEmpty()) head += "Content-Type: " + oneLine(contentType) + "\r\n";
    if (length >= 0) head += "Content-Length: " + QByteArray::number(length) + "\r\n";
    if (close) head += "Connection: close\r\n";
    head += "\r\n";
    socket_->write(head);
}

void HttpConnection::respond(int status, const HttpHeaders& headers, const QByteArray& contentType,
                             const QByteArray& body) {
    if (state_ != State::AwaitingAnswer) return;
    const bool close = !keepAlive_ || !bodyRead_;
    writeHead(status, headers, contentType, body.size(), close);
    socket_->write(body);
    finishAnswer(close);
}

void HttpConnection::respondFile(int status, const HttpHeaders& headers,
                                 std::unique_ptr<QFile> file) {
    if (state_ != State::AwaitingAnswer) return;
    fileLeft_ = file->size();
    fileClose_ = !keepAlive_ || !bodyRead_;
    writeHead(status, headers, {}, fileLeft_, fileClose_);
    file_ = std::move(file);
    state_ = State::SendingFile;
    sendMoreFile();
}

void HttpConnection::sendMoreFile() {
    while (socket_->bytesToWrite() < kFileWindow) {
        const QByteArray piece = file_->read(std::min(kFilePiece, fileLeft_));
        if (piece.isEmpty()) {
            file_.reset();
            if (fileLeft_ != 0) {
                abort();  // shorter than announced: the client must see a cut answer
                return;
            }
            finishAnswer(fileClose_);
            return;
        }
        fileLeft_ -= piece.size();
        socket_->write(piece);
    }
    deadline_.start(HttpLimits::kSendStallMs);
}

QTcpSocket* HttpConnection::startStream(int status, const HttpHeaders& headers) {
    writeHead(status, headers, {}, -1, true);
    state_ = State::Streaming;
    deadline_.stop();
    parser_.reset();
    inbox_.clear();
    return socket_;
}

void HttpConnection::finishAnswer(bool close) {
    parser_.reset();
    afterBody_ = nullptr;
    if (close) {
        closeAfterWrite();
        return;
    }
    state_ = State::ReadingHead;
    bodyRead_ = true;
    keepAlive_ = true;
    startHeadClock();
    schedulePump();
}

void HttpConnection::startHeadClock() {
    // While an answer is still going out, the client is given time to take it; the
    // head's clock starts once all of it is out.
    headClockRunning_ = socket_->bytesToWrite() == 0;
    deadline_.start(headClockRunning_ ? limits_.headerTimeoutMs : HttpLimits::kSendStallMs);
}

void HttpConnection::onBytesWritten() {
    switch (state_) {
        case State::SendingFile:
            sendMoreFile();
            break;
        case State::ReadingHead:
            if (!headClockRunning_) startHeadClock();
            schedulePump();  // the next request may have waited for the answers to go out
            break;
        case State::Closing:
            if (socket_->bytesToWrite() == 0)
                halfClose();
            else
                deadline_.start(HttpLimits::kSendStallMs);
            break;
        case State::AwaitingAnswer:
        case State::ReadingBody:
        case State::Streaming:
            break;
    }
}

void HttpConnection::onDeadline() {
    switch (state_) {
        case State::ReadingHead:
            if (!headClockRunning_) {
                abort();  // the client takes nothing of its answer
            } else if (!inbox_.isEmpty() || (parser_ && parser_->parser.got_some())) {
                refuse(408, "request head not complete in time");
            } else {
                closeAfterWrite();  // an idle connection between requests
            }
            break;
        case State::ReadingBody:
            refuse(408, "request body not complete in time");
            break;
        case State::SendingFile:
        case State::Closing:
            abort();
            break;
        case State::AwaitingAnswer:
        case State::Streaming:
            break;
    }
}

void HttpConnection::refuse(int status, const char* message) {
    // The request is not read on, so the connection cannot carry another one.
    keepAlive_ = false;
    state_ = State::AwaitingAnswer;
    respond(status, {{"X-Content-Type-Options", "nosniff"}, {"Cache-Control", "no-store"}},
            "application/json", QByteArray("{\"error\":\"") + message + "\"}");
}

void HttpConnection::closeAfterWrite() {
    state_ = State::Closing;
    parser_.reset();
    inbox_.clear();
    file_.reset();
    if (socket_->bytesToWrite() == 0) {
        halfClose();
    } else {
        deadline_.start(HttpLimits::kSendStallMs);
    }
}

void HttpConnection::halfClose() {
    if (halfClosed_) return;
    halfClosed_ = true;
    // Our side ends; what the client still sends is read and dropped for a moment, as
    // closing with unread input would reset the connection and could lose the answer.
    ::shutdown(static_cast<int>(socket_->socketDescriptor()), SHUT_WR);
    deadline_.start(kLingerMs);
    schedulePump();
}

void HttpConnection::abort() {
    state_ = State::Closing;
    deadline_.stop();
    socket_->abort();
    onDisconnected();
}

void HttpConnection::onDisconnected() {
    if (gone_) return;
    gone_ = true;
    state_ = State::Closing;
    deadline_.stop();
    emit closed();
    deleteLater();
}
