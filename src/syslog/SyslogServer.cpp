// SPDX-License-Identifier: MIT
#include "SyslogServer.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "CBBLog.h"
#include "PThread.h"
#include "SyslogStore.h"

namespace {

const char* const kThreadName = "nimb-syslog";
constexpr int kMaxEvents = 128;
constexpr int kAcceptsPerRound = 16;
// How often held-back connections are looked at again.
constexpr int kPausedPollMs = 10;
// Address buckets kept before idle ones are forgotten.
constexpr std::size_t kMaxBuckets = 4096;

const char* kindName(int kind) { return kind == 0 ? "UDP" : kind == 1 ? "TCP" : "TLS"; }

std::string addressOf(const sockaddr_storage& peer) {
    char text[INET6_ADDRSTRLEN] = "?";
    if (peer.ss_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(peer).sin_addr, text,
                  sizeof(text));
    } else if (peer.ss_family == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(peer).sin6_addr, text,
                  sizeof(text));
    }
    return text;
}

}  // namespace

SyslogServer::SyslogServer(const SyslogSettings& settings, SyslogCounters& counters,
                           std::shared_ptr<DeviceLogWriter> writer)
    : settings_(settings), counters_(counters), writer_(std::move(writer)), buffer_(kReadChunk) {}

SyslogServer::~SyslogServer() {
    stop();
    for (const auto& listener : listeners_) close(listener.first);
    if (wake_ != -1) close(wake_);
    if (epoll_ != -1) close(epoll_);
}

long long SyslogServer::steadyMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

long long SyslogServer::nowMs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

bool SyslogServer::start() {
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (epoll_ == -1 || wake_ == -1) {
        CBBLog::error("Syslog: cannot create the event loop: %s", strerror(errno));
        return false;
    }
    listeners_[wake_] = Kind::kWake;
    watch(wake_, EPOLLIN, true);
    if (settings_.tlsPort > 0 && !loadTls()) return false;
    if ((settings_.udpPort > 0 && !openListener(settings_.udpPort, Kind::kUdp)) ||
        (settings_.tcpPort > 0 && !openListener(settings_.tcpPort, Kind::kTcp)) ||
        (settings_.tlsPort > 0 && !openListener(settings_.tlsPort, Kind::kTls)))
        return false;
    store_ = std::make_unique<SyslogStore>(settings_, counters_, writer_, tls_.clients());
    thread_ = std::make_unique<PThread>(
        PThreadDelegateMember<SyslogServer>(this, &SyslogServer::run), nullptr, kThreadName);
    return true;
}

bool SyslogServer::loadTls() {
    std::string error;
    if ((settings_.requireClientCert || !settings_.clientsFile.empty()) &&
        settings_.clientCaFile.empty()) {
        error = "RequireClientCert and ClientsFile need ClientCaFile";
    } else if (tls_.load(settings_.certFile, settings_.keyFile, error) &&
               !settings_.clientCaFile.empty()) {
        tls_.verifyClients(settings_.clientCaFile, settings_.requireClientCert,
                           settings_.clientsFile, error);
    }
    if (!error.empty()) {
        CBBLog::error("Syslog: TLS listener not started: %s", error.c_str());
        return false;
    }
    return true;
}

bool SyslogServer::openListener(int port, Kind kind) {
    const bool udp = kind == Kind::kUdp;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = udp ? SOCK_DGRAM : SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    const char* what = kindName(static_cast<int>(kind));
    const int status = getaddrinfo(settings_.address.c_str(), service.c_str(), &hints, &found);
    if (status != 0) {
        CBBLog::error("Syslog: cannot listen on %s %s port %d: %s", what, settings_.address.c_str(),
                      port, gai_strerror(status));
        return false;
    }
    const int fd = socket(found->ai_family, found->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int yes = 1;
    bool ok = fd != -1 && setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes)) == 0 &&
              bind(fd, found->ai_addr, found->ai_addrlen) == 0 && (udp || listen(fd, 128) == 0);
    const int error = errno;
    freeaddrinfo(found);
    if (!ok) {
        CBBLog::error("Syslog: cannot listen on %s %s port %d: %s", what, settings_.address.c_str(),
                      port, strerror(error));
        if (fd != -1) close(fd);
        return false;
    }
    if (udp) {
        const int size = 4 * 1024 * 1024;  // room for a burst while a round runs
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    }
    listeners_[fd] = kind;
    watch(fd, EPOLLIN, true);
    CBBLog::info("Syslog: listening on %s %s port %d", what, settings_.address.c_str(), port);
    return true;
}

void SyslogServer::watch(int fd, unsigned events, bool add) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    epoll_ctl(epoll_, add ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &event);
}

void SyslogServer::stop() {
    if (!thread_) return;
    const uint64_t one = 1;
    // The eventfd counter cannot overflow with one write; a failure would leave the
    // thread running, and the join below would show it.
    if (write(wake_, &one, sizeof(one)) != sizeof(one))
        CBBLog::error("Syslog: cannot wake the listener thread: %s", strerror(errno));
    thread_->join();
    thread_.reset();
    for (auto& entry : connections_) {
        Connection& connection = *entry.second;
        connection.framer.finish([&](std::string_view message, std::size_t cut) {
            store_->add(message, cut, connection.address, nowMs(), connection.certName);
        });
        if (connection.ssl != nullptr) SSL_free(connection.ssl);
        close(connection.fd);
    }
    connections_.clear();
    perAddress_.clear();
    handshakes_.clear();
    counters_.connections.store(0, std::memory_order_relaxed);
    store_->flush();
    CBBLog::info(
        "Syslog: stopped; %llu lines written, %llu truncated, %llu dropped over the "
        "rate bound, %llu connections held back, %llu dropped past the sender cap, "
        "%llu refused files, %llu refused connections, %llu TLS handshakes timed out, "
        "%llu idle connections closed, %llu client certificates refused",
        static_cast<unsigned long long>(counters_.lines.load()),
        static_cast<unsigned long long>(counters_.truncated.load()),
        static_cast<unsigned long long>(counters_.rateDropped.load()),
        static_cast<unsigned long long>(counters_.ratePaused.load()),
        static_cast<unsigned long long>(counters_.senderCapDropped.load()),
        static_cast<unsigned long long>(counters_.refusedFiles.load()),
        static_cast<unsigned long long>(counters_.connectionsRefused.load()),
        static_cast<unsigned long long>(counters_.handshakeTimeouts.load()),
        static_cast<unsigned long long>(counters_.idleClosed.load()),
        static_cast<unsigned long long>(counters_.refusedCertificates.load()));
    store_.reset();
}

void* SyslogServer::run(void*) {
    try {
        while (!stopping_) runRound(waitMs());
    } catch (const std::exception& e) {
        CBBLog::fatal("%s: %s", kThreadName, e.what());
        abort();
    }
    return nullptr;
}

int SyslogServer::waitMs() const {
    // With lines gathered, only look for more (and hand them on when there is none).
    if (!again_.empty() || store_->hasPending()) return 0;
    int wait = paused_.empty() ? -1 : kPausedPollMs;
    if (!handshakes_.empty()) {
        const long long left = std::clamp(handshakes_.front().dueMs - steadyMs(), 0LL,
                                          static_cast<long long>(INT_MAX));
        if (wait < 0 || left < wait) wait = static_cast<int>(left);
    }
    return wait;
}

void SyslogServer::runRound(int timeoutMs) {
    epoll_event events[kMaxEvents];
    const int count = epoll_wait(epoll_, events, kMaxEvents, timeoutMs);
    roundMs_ = steadyMs();
    std::vector<int> again;
    again.swap(again_);
    for (const int fd : again) {
        const auto found = connections_.find(fd);
        if (found != connections_.end()) readConnection(*found->second);
    }
    for (int i = 0; i < count; ++i) {
        const int fd = events[i].data.fd;
        const auto listener = listeners_.find(fd);
        if (listener != listeners_.end()) {
            if (listener->second == Kind::kWake) {
                stopping_ = true;
            } else if (listener->second == Kind::kUdp) {
                readDatagrams(fd);
            } else {
                acceptConnections(fd, listener->second);
            }
            continue;
        }
        const auto found = connections_.find(fd);
        if (found != connections_.end()) readConnection(*found->second);
    }
    // Lines go to their loggers in large pieces (fewer writer wake-ups and writes): when
    // nothing more is ready to read, or kFlushDelayMs after the first line gathered.
    if (store_->hasPending()) {
        const long long now = steadyMs();
        if (flushDueMs_ == 0) flushDueMs_ = now + kFlushDelayMs;
        if (count <= 0 || now >= flushDueMs_) {
            store_->flush();
            flushDueMs_ = 0;
        }
    }
    if (!paused_.empty()) resumePaused();
    if (!handshakes_.empty()) expireHandshakes();
}

SyslogRateBucket* SyslogServer::bucketFor(const std::string& address) {
    if (settings_.maxLinesPerSecond <= 0) return nullptr;
    const double now = static_cast<double>(steadyMs()) / 1000.0;
    auto found = buckets_.find(address);
    if (found == buckets_.end()) {
        if (buckets_.size() >= kMaxBuckets) {
            // Forget addresses that are idle (full buckets): they start full again anyway.
            for (auto it = buckets_.begin(); it != buckets_.end();) {
                it->second.refill(now);
                it = it->second.isFull() ? buckets_.erase(it) : std::next(it);
            }
        }
        found = buckets_.emplace(address, SyslogRateBucket(settings_.maxLinesPerSecond, now)).first;
    }
    found->second.refill(now);
    return &found->second;
}

void SyslogServer::readDatagrams(int fd) {
    for (int i = 0; i < kDatagramsPerRound; ++i) {
        sockaddr_storage peer{};
        socklen_t peerLength = sizeof(peer);
        const ssize_t length = recvfrom(fd, buffer_.data(), buffer_.size(), MSG_TRUNC,
                                        reinterpret_cast<sockaddr*>(&peer), &peerLength);
        if (length < 0) return;  // EAGAIN: all read; other errors: try again next round
        counters_.bytes.fetch_add(static_cast<std::uint64_t>(length), std::memory_order_relaxed);
        const std::string address = addressOf(peer);
        SyslogRateBucket* bucket = bucketFor(address);
        if (bucket != nullptr) {
            if (!bucket->hasRoom()) {
                ++counters_.rateDropped;
                rateDropLog_.error("Syslog: " + address + " sends more than " +
                                   std::to_string(settings_.maxLinesPerSecond) +
                                   " lines a second; datagrams dropped");
                continue;
            }
            bucket->take();
        }
        // MSG_TRUNC gives the datagram's real length: what did not fit was cut.
        const std::size_t received = std::min(static_cast<std::size_t>(length), buffer_.size());
        store_->add(std::string_view(buffer_.data(), received),
                    static_cast<std::size_t>(length) - received, address, nowMs());
    }
}

void SyslogServer::acceptConnections(int fd, Kind kind) {
    for (int i = 0; i < kAcceptsPerRound; ++i) {
        sockaddr_storage peer{};
        socklen_t peerLength = sizeof(peer);
        const int client = accept4(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (client == -1) return;  // EAGAIN, or a connection that went away
        const std::string address = addressOf(peer);
        if (!refuseFromBusyAddress(client, address)) continue;
        if (connections_.size() >= static_cast<std::size_t>(settings_.maxConnections) &&
            !closeIdlest()) {
            ++counters_.connectionsRefused;
            connectionLog_.error("Syslog: too many connections: at most " +
                                 std::to_string(settings_.maxConnections) + "; refused one from " +
                                 address);
            close(client);
            continue;
        }
        auto connection = std::make_unique<Connection>(settings_.maxMessageSize);
        connection->fd = client;
        connection->serial = ++serials_;
        connection->address = address;
        connection->lastReadMs = roundMs_;
        if (kind == Kind::kTls) {
            connection->ssl = tls_.newSession(client, &connection->certRefusal);
            if (connection->ssl == nullptr) {
                frameLog_.error("Syslog: cannot start a TLS session for " + address);
                close(client);
                continue;
            }
            handshakes_.push_back(
                {roundMs_ + settings_.handshakeTimeoutMs, client, connection->serial});
        }
        watch(client, EPOLLIN, true);
        ++perAddress_[address];
        connections_[client] = std::move(connection);
        counters_.connections.store(connections_.size(), std::memory_order_relaxed);
    }
}

void SyslogServer::deliver(Connection& connection, std::string_view data) {
    const long long arrival = nowMs();
    SyslogRateBucket* bucket = bucketFor(connection.address);
    const bool ok = connection.framer.feed(data, [&](std::string_view message, std::size_t cut) {
        if (bucket != nullptr) bucket->take();
        store_->add(message, cut, connection.address, arrival, connection.certName);
    });
    if (!ok) {
        ++counters_.badFrames;
        closeConnection(connection, "bad frame length");
    }
}

void SyslogServer::readConnection(Connection& connection) {
    // A sender over its rate is not read until its bucket has room again: TCP holds
    // the rest, so nothing is lost, and the sender's own daemon slows down.
    SyslogRateBucket* bucket = bucketFor(connection.address);
    if (bucket != nullptr && !bucket->hasRoom()) {
        if (!connection.paused) {
            connection.paused = true;
            ++counters_.ratePaused;
            ratePauseLog_.error("Syslog: " + connection.address + " sends more than " +
                                std::to_string(settings_.maxLinesPerSecond) +
                                " lines a second; reading from it slowed down");
            // Out of the poll set altogether: a hang-up would be reported even with no
            // events asked for, and the loop would spin until the bucket refills.
            epoll_ctl(epoll_, EPOLL_CTL_DEL, connection.fd, nullptr);
            paused_.push_back(connection.fd);
        }
        return;
    }
    connection.lastReadMs = roundMs_;
    if (connection.ssl != nullptr) {
        readTls(connection);
        return;
    }
    const ssize_t length = read(connection.fd, buffer_.data(), buffer_.size());
    if (length > 0) {
        counters_.bytes.fetch_add(static_cast<std::uint64_t>(length), std::memory_order_relaxed);
        deliver(connection, std::string_view(buffer_.data(), static_cast<std::size_t>(length)));
    } else if (length == 0 || (errno != EAGAIN && errno != EINTR)) {
        closeConnection(connection, nullptr);
    }
}

bool SyslogServer::readTls(Connection& connection) {
    SSL* ssl = connection.ssl;
    if (!connection.handshakeDone) {
        const int result = SSL_do_handshake(ssl);
        if (result != 1) {
            const int error = SSL_get_error(ssl, result);
            if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
                watch(connection.fd, EPOLLIN | (error == SSL_ERROR_WANT_WRITE ? EPOLLOUT : 0u),
                      false);
                return true;
            }
            char reason[256] = "connection closed";
            const unsigned long code = ERR_get_error();
            if (code != 0) ERR_error_string_n(code, reason, sizeof(reason));
            ERR_clear_error();
            // OpenSSL says only "certificate verify failed"; the checks say why.
            const long verified = SSL_get_verify_result(ssl);
            if (!connection.certRefusal.empty() || verified != X509_V_OK) {
                ++counters_.refusedCertificates;
                certLog_.error("Syslog: refused the client certificate of " + connection.address +
                               ": " +
                               (connection.certRefusal.empty()
                                    ? std::string(X509_verify_cert_error_string(verified))
                                    : connection.certRefusal));
            } else {
                frameLog_.error("Syslog: TLS handshake with " + connection.address +
                                " failed: " + reason);
            }
            closeConnection(connection, nullptr);
            return false;
        }
        connection.handshakeDone = true;
        connection.certName = SyslogTlsContext::clientName(ssl);
        watch(connection.fd, EPOLLIN, false);
    }
    std::size_t total = 0;
    while (total < kReadChunk) {
        const int length = SSL_read(ssl, buffer_.data(), static_cast<int>(buffer_.size()));
        if (length > 0) {
            total += static_cast<std::size_t>(length);
            counters_.bytes.fetch_add(static_cast<std::uint64_t>(length),
                                      std::memory_order_relaxed);
            const int fd = connection.fd;
            deliver(connection, std::string_view(buffer_.data(), static_cast<std::size_t>(length)));
            if (connections_.find(fd) == connections_.end()) return false;  // closed
            continue;
        }
        const int error = SSL_get_error(ssl, length);
        ERR_clear_error();
        if (error == SSL_ERROR_WANT_READ) return true;
        if (error == SSL_ERROR_WANT_WRITE) {
            watch(connection.fd, EPOLLIN | EPOLLOUT, false);
            return true;
        }
        closeConnection(connection, nullptr);
        return false;
    }
    if (SSL_pending(ssl) > 0) again_.push_back(connection.fd);
    return true;
}

void SyslogServer::closeConnection(Connection& connection, const char* reason) {
    if (reason != nullptr) {
        frameLog_.error("Syslog: closed the connection from " + connection.address + ": " + reason);
    } else {
        connection.framer.finish([&](std::string_view message, std::size_t cut) {
            store_->add(message, cut, connection.address, nowMs(), connection.certName);
        });
    }
    const int fd = connection.fd;
    const auto sameAddress = perAddress_.find(connection.address);
    if (sameAddress != perAddress_.end() && --sameAddress->second <= 0)
        perAddress_.erase(sameAddress);
    epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
    if (connection.ssl != nullptr) SSL_free(connection.ssl);
    close(fd);
    connections_.erase(fd);  // destroys `connection`
    counters_.connections.store(connections_.size(), std::memory_order_relaxed);
}

int SyslogServer::perAddressCap() const {
    // Below the total, so that one address can never take every slot.
    const int total = std::max(1, settings_.maxConnections - 1);
    return std::max(1, std::min(settings_.maxConnectionsPerAddress, total));
}

bool SyslogServer::refuseFromBusyAddress(int client, const std::string& address) {
    const auto found = perAddress_.find(address);
    if (found == perAddress_.end() || found->second < perAddressCap()) return true;
    ++counters_.connectionsRefused;
    connectionLog_.error("Syslog: too many connections from " + address + ": at most " +
                         std::to_string(perAddressCap()) + " per address; refused one");
    close(client);
    return false;
}

bool SyslogServer::closeIdlest() {
    // At most maxConnections entries: this runs only for a connection past the cap.
    Connection* idlest = nullptr;
    for (const auto& entry : connections_) {
        Connection& connection = *entry.second;
        if (connection.paused) continue;  // held back with bytes waiting: not idle
        if (idlest == nullptr || connection.lastReadMs < idlest->lastReadMs) idlest = &connection;
    }
    if (idlest == nullptr || roundMs_ - idlest->lastReadMs < settings_.idleTimeoutMs) return false;
    ++counters_.idleClosed;
    idleLog_.error("Syslog: closed the connection from " + idlest->address + ": idle for " +
                   std::to_string((roundMs_ - idlest->lastReadMs) / 1000) +
                   " s while every connection slot is taken");
    closeConnection(*idlest, nullptr);
    return true;
}

void SyslogServer::expireHandshakes() {
    // Every entry is removed once; the loop stops at the first live one not yet due.
    while (!handshakes_.empty()) {
        const HandshakeDue due = handshakes_.front();
        const auto found = connections_.find(due.fd);
        const bool waiting = found != connections_.end() && found->second->serial == due.serial &&
                             !found->second->handshakeDone;
        if (waiting && due.dueMs > roundMs_) return;
        handshakes_.pop_front();
        if (!waiting) continue;
        ++counters_.handshakeTimeouts;
        handshakeLog_.error("Syslog: closed the connection from " + found->second->address +
                            ": TLS handshake not done within " +
                            std::to_string((settings_.handshakeTimeoutMs + 999) / 1000) + " s");
        closeConnection(*found->second, nullptr);
    }
}

void SyslogServer::resumePaused() {
    std::vector<int> still;
    for (const int fd : paused_) {
        const auto found = connections_.find(fd);
        if (found == connections_.end()) continue;
        Connection& connection = *found->second;
        SyslogRateBucket* bucket = bucketFor(connection.address);
        if (bucket != nullptr && !bucket->hasRoom()) {
            still.push_back(fd);
            continue;
        }
        connection.paused = false;
        watch(fd, EPOLLIN, true);
    }
    paused_.swap(still);
}
