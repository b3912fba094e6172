// SPDX-License-Identifier: MIT
#include "KibReplyLink.h"

#include <cerrno>
#include <cstdint>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

// A batch's buffer is written once it holds this much, without waiting for the end.
constexpr int kHoldLimit = 64 * 1024;
// How long the link's thread sleeps without news; every state change wakes it earlier.
constexpr int kPollMs = 1000;

// The link whose publication this thread is buffering: the client's request to write
// it is then left to release().
thread_local const KibReplyLink* t_holding = nullptr;

}  // namespace

KibReplyLink::KibReplyLink() : wakeFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

KibReplyLink::~KibReplyLink() { close(); }

std::unique_ptr<KibReplyLink> KibReplyLink::open(natsOptions* options, std::string& error) {
    std::unique_ptr<KibReplyLink> link(new KibReplyLink());
    if (link->wakeFd_ < 0) {
        error = "no event descriptor";
        return nullptr;
    }
    // Every publication asks for a write at once, so hold() sees the request it defers.
    natsOptions_SetSendAsap(options, true);
    natsOptions_SetEventLoop(options, link.get(), &onAttach, &onRead, &onWrite, &onDetach);
    link->thread_ = std::thread(&KibReplyLink::run, link.get());
    natsConnection* nc = nullptr;
    const natsStatus status = natsConnection_Connect(&nc, options);
    if (status != NATS_OK) {
        const char* detail = nats_GetLastError(nullptr);
        error = detail != nullptr && *detail != '\0' ? detail : natsStatus_GetText(status);
        natsConnection_Destroy(nc);
        link->close();
        return nullptr;
    }
    link->owned_.reset(nc);
    return link;
}

natsStatus KibReplyLink::hold(const char* subject, const void* data, int size) {
    natsConnection* nc = owned_.get();
    if (nc == nullptr) return NATS_CONNECTION_CLOSED;
    t_holding = this;
    const natsStatus status = natsConnection_Publish(nc, subject, data, size);
    t_holding = nullptr;
    if (natsConnection_Buffered(nc) >= kHoldLimit) release();
    return status;
}

void KibReplyLink::release() {
    natsConnection* nc = owned_.get();
    // While reconnecting the client keeps publications aside and resends them itself.
    if (nc == nullptr || natsConnection_Status(nc) != NATS_CONN_STATUS_CONNECTED) return;
    if (natsConnection_Buffered(nc) <= 0) return;
    natsConnection_ProcessWriteEvent(nc);
    if (natsConnection_Buffered(nc) <= 0) return;
    {
        // A full socket took part of it: the link's thread writes the rest.
        const PMutexLocker lock(mutex_);
        writing_ = true;
    }
    wake();
}

void KibReplyLink::close() {
    if (owned_) {
        release();
        // Detaches the connection from this link before it returns.
        natsConnection_Close(owned_.get());
    }
    {
        const PMutexLocker lock(mutex_);
        stop_ = true;
    }
    wake();
    if (thread_.joinable()) thread_.join();
    owned_.reset();
    if (wakeFd_ >= 0) {
        ::close(wakeFd_);
        wakeFd_ = -1;
    }
}

void KibReplyLink::wake() {
    const std::uint64_t one = 1;
    if (wakeFd_ >= 0) (void)!::write(wakeFd_, &one, sizeof one);
}

natsStatus KibReplyLink::onAttach(void** userData, void* loop, natsConnection* nc,
                                  natsSock socket) {
    auto* link = static_cast<KibReplyLink*>(loop);
    {
        const PMutexLocker lock(link->mutex_);
        link->attached_ = nc;
        link->socket_ = socket;
        link->generation_++;
        link->reading_ = true;
    }
    link->wake();
    *userData = link;
    return NATS_OK;
}

natsStatus KibReplyLink::onRead(void* userData, bool add) {
    auto* link = static_cast<KibReplyLink*>(userData);
    {
        const PMutexLocker lock(link->mutex_);
        link->reading_ = add;
    }
    link->wake();
    return NATS_OK;
}

natsStatus KibReplyLink::onWrite(void* userData, bool add) {
    auto* link = static_cast<KibReplyLink*>(userData);
    if (add && t_holding == link) return NATS_OK;  // release() writes it
    {
        const PMutexLocker lock(link->mutex_);
        link->writing_ = add;
    }
    if (add) link->wake();
    return NATS_OK;
}

natsStatus KibReplyLink::onDetach(void* userData) {
    auto* link = static_cast<KibReplyLink*>(userData);
    {
        const PMutexLocker lock(link->mutex_);
        link->attached_ = nullptr;
        link->socket_ = -1;
        link->reading_ = false;
        link->writing_ = false;
    }
    link->wake();
    return NATS_OK;
}

void KibReplyLink::run() {
    // A socket that reported an error (or was closed under the poll) is left alone until
    // the client attaches the next one.
    unsigned long broken = 0;
    for (;;) {
        natsConnection* nc = nullptr;
        int socket = -1;
        short events = 0;
        unsigned long generation = 0;
        {
            const PMutexLocker lock(mutex_);
            if (stop_) return;
            nc = attached_;
            socket = socket_;
            generation = generation_;
            if (reading_) events |= POLLIN;
            if (writing_) events |= POLLOUT;
        }
        const bool watch = socket >= 0 && events != 0 && generation != broken;
        pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {socket, events, 0}};
        if (poll(fds, watch ? 2 : 1, kPollMs) < 0 && errno != EINTR) return;
        if ((fds[0].revents & POLLIN) != 0) {
            std::uint64_t count = 0;
            (void)!::read(wakeFd_, &count, sizeof count);
        }
        if (!watch) continue;
        const short got = fds[1].revents;
        if ((got & POLLNVAL) != 0) {
            broken = generation;
            continue;
        }
        // An error or hang-up is read too: that is how the client learns of it.
        if ((got & (POLLIN | POLLERR | POLLHUP)) != 0) natsConnection_ProcessReadEvent(nc);
        if ((got & (POLLERR | POLLHUP)) != 0) broken = generation;
        if ((got & POLLOUT) != 0) natsConnection_ProcessWriteEvent(nc);
    }
}
