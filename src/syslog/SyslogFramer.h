// SPDX-License-Identifier: MIT
// SyslogFramer: cuts the byte stream of one TCP or TLS connection into messages. The
// framing is chosen on the connection's first frame: "<length> <message>" (octet
// counting) when it starts with a length and a blank, otherwise one message per line
// (LF, an optional CR before it is dropped by the parser). A message longer than the
// maximum keeps its first bytes and counts the rest. One per connection; listener thread.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

class SyslogFramer {
public:
    // Receives one message and the number of its bytes that were cut.
    using Deliver = std::function<void(std::string_view message, std::size_t cutBytes)>;

    explicit SyslogFramer(std::size_t maxSize) : maxSize_(maxSize) {}

    // Feeds received bytes; delivers every message they complete. False when the stream
    // cannot be a syslog stream any more (a frame length of more than 9 digits, or text
    // where a length must be): the connection should be closed.
    bool feed(std::string_view data, const Deliver& deliver);
    // The connection ended: delivers a last line that had no newline.
    void finish(const Deliver& deliver);
    bool isOctetCounting() const { return mode_ == Mode::kCounted; }

private:
    enum class Mode { kUnknown, kCounted, kLines };

    std::size_t feedLines(std::string_view data, const Deliver& deliver);
    // Returns the bytes used, or npos on a framing error.
    std::size_t feedCounted(std::string_view data, const Deliver& deliver);
    void keep(std::string_view data);
    void deliverBuffer(const Deliver& deliver);

    std::size_t maxSize_ = 0;
    Mode mode_ = Mode::kUnknown;
    std::string buffer_;         // the message so far (at most maxSize_ bytes)
    std::size_t cut_ = 0;        // bytes of the message beyond maxSize_
    std::string length_;         // octet counting: the digits of the length so far
    std::size_t remaining_ = 0;  // octet counting: bytes of the message still to come
    bool inFrame_ = false;       // octet counting: the length has been read
};
