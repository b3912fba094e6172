// SPDX-License-Identifier: MIT
// KibReplyLink: a second connection of a satellite that carries only the replies
// completed inside a KibReplyBatch, and whose socket writes the library decides. The
// NATS client writes either at once on every publish (one write per reply) or through
// its flusher thread (about 1 ms later); on this connection it only buffers, and the
// socket is written when a batch ends (one write for the whole batch) or, for the
// client's own traffic (pings, pongs, what a reconnection resends), by the link's
// thread, which also reads what the server sends. Internal to the bus library.
#pragma once

#include <memory>
#include <string>
#include <thread>

#include <nats/nats.h>

#include "KibNats.h"
#include "PMutex.h"
#include "ThreadAnnotations.h"

class KibReplyLink {
public:
    KibReplyLink(const KibReplyLink&) = delete;
    KibReplyLink& operator=(const KibReplyLink&) = delete;
    // close(), if not done yet.
    ~KibReplyLink();

    // Connects with `options` (servers, TLS, credentials and reconnection already set;
    // the link adds its own I/O handling). Null, with the client's reason in `error`,
    // when the connection cannot be made. Management thread.
    static std::unique_ptr<KibReplyLink> open(natsOptions* options, std::string& error);

    // Puts a publication of `data` on `subject` into the connection's buffer without
    // writing it; release() writes it. A buffer grown past a bound is written at once,
    // so a very long batch still leaves in large writes. Any thread; the caller
    // serialises hold, release and close.
    natsStatus hold(const char* subject, const void* data, int size);
    // Writes what the buffer holds, in one socket write unless the socket is full (the
    // link's thread then writes the rest as the socket drains). Nothing while the
    // connection is reconnecting: the client resends its buffer once reconnected.
    void release();
    // Writes what is held, closes the connection and stops the link's thread. Management
    // thread; idempotent.
    void close();

private:
    KibReplyLink();

    // The client's event-loop callbacks; `closure` is the link.
    static natsStatus onAttach(void** userData, void* loop, natsConnection* nc, natsSock socket);
    static natsStatus onRead(void* userData, bool add);
    static natsStatus onWrite(void* userData, bool add);
    static natsStatus onDetach(void* userData);

    // The link's thread: waits for the socket (reads always, writes when the client
    // asks) and hands each event to the client.
    void run();
    void wake();

    int wakeFd_ = -1;  // eventfd: a state change for run()
    std::thread thread_;
    // Set by open() once connected; used by hold, release and close.
    KibNatsConnection owned_;

    // The client's view of the socket, as its callbacks report it, for run().
    PMutex mutex_;
    natsConnection* attached_ NIMB_GUARDED_BY(mutex_) = nullptr;  // null once detached
    int socket_ NIMB_GUARDED_BY(mutex_) = -1;                     // -1 once detached
    unsigned long generation_ NIMB_GUARDED_BY(mutex_) = 0;        // attachments so far
    bool reading_ NIMB_GUARDED_BY(mutex_) = false;
    bool writing_ NIMB_GUARDED_BY(mutex_) = false;  // the client asked for a write
    bool stop_ NIMB_GUARDED_BY(mutex_) = false;
};
