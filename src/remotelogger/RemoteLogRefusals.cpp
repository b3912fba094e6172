// SPDX-License-Identifier: MIT
#include "RemoteLogRefusals.h"

#include <QDateTime>

#include "CBBLog.h"
#include "Utf8Text.h"

namespace {

// `text` cut to the kept length, its control characters as "\xHH", for the log line.
std::string shown(const std::string& text) {
    return Utf8Text::escapeControls(std::string_view(text).substr(0, RemoteLogRefusals::kMaxText));
}

}  // namespace

void RemoteLogRefusals::record(Kind kind, Refusal refusal) {
    refusal.timeMs = QDateTime::currentMSecsSinceEpoch();
    for (std::string* text : {&refusal.account, &refusal.source, &refusal.request})
        text->resize(std::min(text->size(), kMaxText));
    const auto now = std::chrono::steady_clock::now();
    std::uint64_t heldBack = 0;
    bool log = false;
    {
        const PMutexLocker lock(mutex_);
        ++(kind == Kind::Identity ? identity_ : inbox_);
        recent_.push_back(refusal);
        if (recent_.size() > kKept) recent_.pop_front();
        if (!logged_ || now - lastLog_ >= kLogInterval) {
            logged_ = true;
            lastLog_ = now;
            heldBack = heldBack_;
            heldBack_ = 0;
            log = true;
        } else {
            ++heldBack_;
        }
    }
    if (!log) return;
    std::string line =
        "Refused " + shown(refusal.request) + " of account \"" + shown(refusal.account) + "\"";
    if (!refusal.source.empty()) line += " for source \"" + shown(refusal.source) + "\"";
    line += ": " + refusal.reason;
    if (heldBack > 0) line += " (" + std::to_string(heldBack) + " more like it held back)";
    CBBLog::error("%s", line.c_str());
}

std::uint64_t RemoteLogRefusals::count(Kind kind) const {
    const PMutexLocker lock(mutex_);
    return kind == Kind::Identity ? identity_ : inbox_;
}

std::vector<RemoteLogRefusals::Refusal> RemoteLogRefusals::recent() const {
    const PMutexLocker lock(mutex_);
    return {recent_.begin(), recent_.end()};
}
