// SPDX-License-Identifier: MIT
// TailHub: live tails of log files as server-sent events. One inotify watch on the logs
// folder (plus a one-second poll as a safety net) tells which files grew; each client
// keeps its own descriptor and offset, so a rotation underneath (the file renamed to
// ".back", a new file started) is followed: the old file is read to its end, then the
// new one from its start, nothing lost and nothing repeated. Clients get whole lines
// only (a piece without a newline waits, up to 64 KiB). The number of clients and what
// may wait unsent per client are bounded. Lives on the main thread.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include <QObject>
#include <QPointer>
#include <QTimer>

#include "SafeFolder.h"

class HttpConnection;
class QSocketNotifier;
class QTcpSocket;

class TailHub : public QObject {
    Q_OBJECT

public:
    static constexpr std::size_t kMaxClients = 256;
    static constexpr qint64 kMaxUnsent = 4 * 1024 * 1024;  // a slower client is dropped

    enum class Start { Ok, NotFound, TooMany };

    TailHub(std::string folder, QObject* parent);
    TailHub(const TailHub&) = delete;
    TailHub& operator=(const TailHub&) = delete;
    ~TailHub() override;

    // Starts an event stream on `connection` for `file`, from `from` (the
    // end of what the page already shows) in the generation `inode` (if that file has
    // been rotated since, its ".back" is read on from `from` first). Without `from`
    // the stream starts at the end. Writes nothing when it does not return Ok.
    Start add(HttpConnection& connection, const std::string& file,
              std::optional<std::uint64_t> from, std::optional<std::uint64_t> inode);

    std::size_t clientCount() const { return clients_.size(); }

private:
    struct Client {
        QPointer<QTcpSocket> socket;
        std::string file;
        UniqueFd fd;
        std::uint64_t inode = 0;
        std::uint64_t offset = 0;
        std::string pending;  // read, not yet sent: the start of an unfinished line
    };

    void onFolderEvent();
    void pollAll();
    // Sends what was added to the client's file since the last call; follows a
    // rotation. False when the client is gone or too slow and must be dropped.
    bool pump(Client& client);
    bool readToEnd(Client& client, std::string& out);
    // At the end of the client's file: moves on to a new file under the same name,
    // after sending `text` (the old file's rest). False when the client must go.
    bool followRotation(Client& client, std::string& text);
    bool send(Client& client, const char* event, const std::string& text);
    void drop(Client* client);

    const std::string folder_;
    int inotifyFd_ = -1;
    QSocketNotifier* notifier_ = nullptr;  // child of this
    QTimer poll_;
    int keepAliveTicks_ = 0;
    std::list<std::unique_ptr<Client>> clients_;
};
