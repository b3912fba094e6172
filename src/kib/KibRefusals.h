// SPDX-License-Identifier: MIT
// KibRefusals: what the bus server refused on one connection, as the client's error
// handler reports it: the subjects it refused a publication to or a subscription on
// ("Permissions Violation for Publish to ..."), so that a request waiting for a reply
// that cannot come ends at once, and its refusal of the credentials ("Authorization
// Violation"). Internal to the bus library; owned by the connection's callback closure.
// Any thread: its own lock, never held while calling out.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include <nats/nats.h>

#include "PMutex.h"
#include "ThreadAnnotations.h"

class KibRefusals {
public:
    // Records the refusal that the server's error text (with the client's `status` for
    // it) describes; other errors are ignored.
    void record(natsStatus status, const std::string& text);
    // How often `subject` was refused so far, a publication or a subscription.
    unsigned count(const std::string& subject) const;
    // The server's refusal of the credentials; "" while they are accepted.
    std::string credentials() const;
    // The credentials were accepted again (a reconnection succeeded).
    void clearCredentials();

private:
    // At most this many distinct subjects are remembered; past it the record starts anew
    // (a request then waits for its timeout, as without the record).
    static constexpr std::size_t kMaxSubjects = 256;

    mutable PMutex mutex_;
    std::map<std::string, unsigned> subjects_ NIMB_GUARDED_BY(mutex_);
    std::string credentials_ NIMB_GUARDED_BY(mutex_);
};
