// SPDX-License-Identifier: MIT
#include "SyslogFramer.h"

namespace {

constexpr std::size_t kMaxLengthDigits = 9;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

bool SyslogFramer::feed(std::string_view data, const Deliver& deliver) {
    while (!data.empty()) {
        if (mode_ == Mode::kUnknown) {
            // A length is digits and a blank; anything else before the blank means lines.
            const std::size_t end = data.find_first_not_of("0123456789");
            if (end == std::string_view::npos && length_.size() + data.size() <= kMaxLengthDigits) {
                length_.append(data);
                return true;  // only digits so far: wait for more
            }
            const bool counted = end != std::string_view::npos && length_.size() + end > 0 &&
                                 length_.size() + end <= kMaxLengthDigits && data[end] == ' ';
            mode_ = counted ? Mode::kCounted : Mode::kLines;
            // The digits held back belong to the first frame either way.
            const std::string held = std::move(length_);
            length_.clear();
            if (!held.empty() && !feed(held, deliver)) return false;
        }
        const std::size_t used =
            mode_ == Mode::kLines ? feedLines(data, deliver) : feedCounted(data, deliver);
        if (used == std::string_view::npos) return false;
        data.remove_prefix(used);
    }
    return true;
}

std::size_t SyslogFramer::feedLines(std::string_view data, const Deliver& deliver) {
    const std::size_t newline = data.find('\n');
    if (newline == std::string_view::npos) {
        keep(data);
        return data.size();
    }
    if (buffer_.empty() && cut_ == 0 && newline <= maxSize_) {
        if (newline != 0) deliver(data.substr(0, newline), 0);  // the common case: no copy
    } else {
        keep(data.substr(0, newline));
        deliverBuffer(deliver);
    }
    return newline + 1;
}

std::size_t SyslogFramer::feedCounted(std::string_view data, const Deliver& deliver) {
    if (!inFrame_) {
        std::size_t pos = 0;
        // Some senders end every frame with a newline as well.
        if (length_.empty()) {
            while (pos < data.size() && (data[pos] == '\n' || data[pos] == '\r')) ++pos;
        }
        while (pos < data.size() && isDigit(data[pos])) {
            length_ += data[pos++];
            if (length_.size() > kMaxLengthDigits) return std::string_view::npos;
        }
        if (pos == data.size()) return pos;
        if (data[pos] != ' ' || length_.empty()) return std::string_view::npos;
        remaining_ = std::stoul(length_);
        length_.clear();
        inFrame_ = true;
        if (remaining_ == 0) {
            inFrame_ = false;  // an empty frame: nothing to write
        }
        return pos + 1;
    }
    const std::size_t take = std::min(remaining_, data.size());
    if (take == remaining_ && buffer_.empty() && cut_ == 0 && take <= maxSize_) {
        deliver(data.substr(0, take), 0);
    } else {
        keep(data.substr(0, take));
        if (take == remaining_) deliverBuffer(deliver);
    }
    remaining_ -= take;
    if (remaining_ == 0) inFrame_ = false;
    return take;
}

void SyslogFramer::keep(std::string_view data) {
    const std::size_t room = maxSize_ > buffer_.size() ? maxSize_ - buffer_.size() : 0;
    if (data.size() > room) {
        cut_ += data.size() - room;
        data = data.substr(0, room);
    }
    buffer_.append(data);
}

void SyslogFramer::deliverBuffer(const Deliver& deliver) {
    if (!buffer_.empty() || cut_ != 0) deliver(buffer_, cut_);
    buffer_.clear();
    cut_ = 0;
}

void SyslogFramer::finish(const Deliver& deliver) {
    if (mode_ == Mode::kUnknown && !length_.empty()) buffer_ = std::move(length_);
    if (mode_ != Mode::kCounted || inFrame_) deliverBuffer(deliver);
    length_.clear();
}
