// SPDX-License-Identifier: MIT
#include "TailHub.h"

#include <algorithm>

#include <sys/inotify.h>
#include <unistd.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QSocketNotifier>
#include <QTcpSocket>

#include "HttpConnection.h"

namespace {

constexpr std::size_t kMaxPending = 64 * 1024;
constexpr std::size_t kMaxReadPerPump = 1024 * 1024;
constexpr int kPollMs = 1000;
constexpr int kKeepAliveTicks = 15;  // a comment line every 15 polls keeps proxies open

// The length of `text` without a UTF-8 sequence left unfinished at its end, so that a
// long line sent in pieces never splits a character. Bytes that are not UTF-8 stay.
std::size_t wholeCharacters(const std::string& text) {
    const std::size_t size = text.size();
    for (std::size_t back = 1; back <= 3 && back <= size; ++back) {
        const auto byte = static_cast<unsigned char>(text[size - back]);
        if ((byte & 0xC0) == 0x80) continue;  // a continuation byte: its lead is further back
        const std::size_t length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
        return length > back ? size - back : size;
    }
    return size;
}

}  // namespace

TailHub::TailHub(std::string folder, QObject* parent)
    : QObject(parent), folder_(std::move(folder)) {
    inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotifyFd_ >= 0) {
        ::inotify_add_watch(inotifyFd_, folder_.c_str(),
                            IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM);
        notifier_ = new QSocketNotifier(inotifyFd_, QSocketNotifier::Read, this);
        connect(notifier_, &QSocketNotifier::activated, this, &TailHub::onFolderEvent);
    }
    // Without inotify (or when its queue overflowed) the poll alone keeps tails moving.
    connect(&poll_, &QTimer::timeout, this, [this] {
        if (++keepAliveTicks_ >= kKeepAliveTicks) {
            keepAliveTicks_ = 0;
            for (auto& client : clients_) {
                if (client->socket) client->socket->write(": keep-alive\n\n");
            }
        }
        pollAll();
    });
    poll_.start(kPollMs);
}

TailHub::~TailHub() {
    for (auto& client : clients_) {
        if (client->socket) client->socket->disconnectFromHost();
    }
    if (inotifyFd_ >= 0) ::close(inotifyFd_);
}

TailHub::Start TailHub::add(HttpConnection& connection, const std::string& file,
                            std::optional<std::uint64_t> from, std::optional<std::uint64_t> inode) {
    if (clients_.size() >= kMaxClients) return Start::TooMany;
    auto client = std::make_unique<Client>();
    client->file = file;
    struct stat st {};
    client->fd = SafeFolder::openRegular(folder_, file, &st);
    if (!client->fd.valid()) return Start::NotFound;
    client->inode = static_cast<std::uint64_t>(st.st_ino);
    client->offset = static_cast<std::uint64_t>(st.st_size);
    if (from) {
        client->offset = std::min<std::uint64_t>(*from, client->offset);
        if (inode && *inode != client->inode) {
            // Rotated since the page read it: carry on in the old generation first.
            struct stat backSt {};
            UniqueFd back = SafeFolder::openRegular(folder_, file + ".back", &backSt);
            if (back.valid() && static_cast<std::uint64_t>(backSt.st_ino) == *inode) {
                client->fd = std::move(back);
                client->inode = *inode;
                client->offset = std::min<std::uint64_t>(*from, backSt.st_size);
            } else {
                client->offset = 0;  // that generation is gone: start the current one
            }
        }
    }
    client->socket =
        connection.startStream(200, {{"Content-Type", "text/event-stream; charset=utf-8"},
                                     {"Cache-Control", "no-store"},
                                     {"X-Content-Type-Options", "nosniff"},
                                     {"X-Accel-Buffering", "no"}});
    client->socket->write(": tail\n\n");
    Client* raw = client.get();
    connect(client->socket, &QTcpSocket::disconnected, this, [this, raw] { drop(raw); });
    clients_.push_back(std::move(client));
    if (!pump(*raw)) drop(raw);
    return Start::Ok;
}

void TailHub::onFolderEvent() {
    // Drain the events; which file changed matters less than reacting at once.
    char buffer[16 * 1024];
    while (::read(inotifyFd_, buffer, sizeof buffer) > 0) {
    }
    pollAll();
}

void TailHub::pollAll() {
    std::vector<Client*> dead;
    for (auto& client : clients_) {
        if (!pump(*client)) dead.push_back(client.get());
    }
    for (Client* client : dead) drop(client);
}

bool TailHub::readToEnd(Client& client, std::string& out) {
    std::string piece;
    while (out.size() < kMaxReadPerPump) {
        if (!SafeFolder::readAt(client.fd.get(), client.offset, 256 * 1024, piece)) return false;
        if (piece.empty()) break;
        client.offset += piece.size();
        out += piece;
    }
    return true;
}

bool TailHub::followRotation(Client& client, std::string& text) {
    struct stat st {};
    UniqueFd fd = SafeFolder::openRegular(folder_, client.file, &st);
    if (!fd.valid()) return true;  // between a rotation and the next write: wait
    if (static_cast<std::uint64_t>(st.st_ino) == client.inode) {
        // Same file, shorter than what was read: it was truncated; start over.
        if (static_cast<std::uint64_t>(st.st_size) < client.offset) client.offset = 0;
        return true;
    }
    // The name holds another file: the old one was rotated away and is complete, so
    // all of it goes out (an unfinished last line included) before the new one starts.
    if (!text.empty() && !send(client, "text", text)) return false;
    text.clear();
    client.fd = std::move(fd);
    client.inode = static_cast<std::uint64_t>(st.st_ino);
    client.offset = 0;
    return send(client, "rotated", client.file) && readToEnd(client, text);
}

bool TailHub::pump(Client& client) {
    if (!client.socket || client.socket->state() != QAbstractSocket::ConnectedState) return false;
    if (client.socket->bytesToWrite() > kMaxUnsent) return false;
    std::string text = std::move(client.pending);
    client.pending.clear();
    if (!readToEnd(client, text)) return false;
    if (text.size() < kMaxReadPerPump && !followRotation(client, text)) return false;
    std::size_t complete = text.rfind('\n');
    complete = complete == std::string::npos ? 0 : complete + 1;
    if (complete == 0 && text.size() >= kMaxPending) complete = wholeCharacters(text);
    client.pending = text.substr(complete);
    text.resize(complete);
    return text.empty() || send(client, "text", text);
}

bool TailHub::send(Client& client, const char* event, const std::string& text) {
    if (!client.socket) return false;
    QJsonObject data;
    data.insert(QStringLiteral("text"),
                QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size())));
    data.insert(QStringLiteral("end"), static_cast<qint64>(client.offset - client.pending.size()));
    data.insert(QStringLiteral("inode"), QString::number(client.inode));
    QByteArray frame = "event: ";
    frame += event;
    frame += "\ndata: ";
    frame += QJsonDocument(data).toJson(QJsonDocument::Compact);
    frame += "\n\n";
    return client.socket->write(frame) == frame.size();
}

void TailHub::drop(Client* client) {
    const auto it = std::find_if(clients_.begin(), clients_.end(),
                                 [client](const auto& c) { return c.get() == client; });
    if (it == clients_.end()) return;
    if ((*it)->socket) {
        QObject::disconnect((*it)->socket, nullptr, this, nullptr);
        (*it)->socket->disconnectFromHost();
    }
    clients_.erase(it);
}
