// SPDX-License-Identifier: MIT
#include "KibRefusals.h"

namespace {

// The server's texts: Permissions Violation for Publish to "SUBJECT" (or "Subscription
// to"), optionally followed by more; the subject is the first quoted word.
const char* const kPermissions = "Permissions Violation for ";

std::string quotedSubject(const std::string& text) {
    const std::size_t open = text.find('"');
    if (open == std::string::npos) return {};
    const std::size_t close = text.find('"', open + 1);
    if (close == std::string::npos) return {};
    return text.substr(open + 1, close - open - 1);
}

}  // namespace

void KibRefusals::record(natsStatus status, const std::string& text) {
    if (status == NATS_CONNECTION_AUTH_FAILED) {
        const PMutexLocker lock(mutex_);
        credentials_ = text.empty() ? std::string("Authorization Violation") : text;
        return;
    }
    if (status != NATS_NOT_PERMITTED || text.find(kPermissions) == std::string::npos) return;
    const std::string subject = quotedSubject(text.substr(text.find(kPermissions)));
    if (subject.empty()) return;
    const PMutexLocker lock(mutex_);
    if (subjects_.size() >= kMaxSubjects && subjects_.count(subject) == 0) subjects_.clear();
    ++subjects_[subject];
}

unsigned KibRefusals::count(const std::string& subject) const {
    const PMutexLocker lock(mutex_);
    const auto found = subjects_.find(subject);
    return found == subjects_.end() ? 0 : found->second;
}

std::string KibRefusals::credentials() const {
    const PMutexLocker lock(mutex_);
    return credentials_;
}

void KibRefusals::clearCredentials() {
    const PMutexLocker lock(mutex_);
    credentials_.clear();
}
