// SPDX-License-Identifier: MIT
// The bus's exception family. A KibException carries a numeric code and a message in
// a fixed 256-byte buffer (longer text is cut at 255 characters without notice). It
// keeps std::exception's what(): readers take the text from message(). Plain value
// type, thrown by value and caught by reference; one object is not shared by threads.
#pragma once

#include <cstdint>
#include <exception>

class KibException : public std::exception {
public:
    // An empty message and code 0.
    KibException() noexcept = default;
    // `message` (null reads as "") cut to 255 characters, and `code`.
    KibException(const char* message, std::int32_t code) noexcept;

    KibException(const KibException&) noexcept = default;
    KibException& operator=(const KibException&) noexcept = default;
    ~KibException() override;

    // The message buffer: NUL-terminated, at most kMaxMessageLength characters.
    const char* message() const noexcept { return message_; }
    std::int32_t code() const noexcept { return code_; }

    static constexpr int kMaxMessageLength = 255;

protected:
    // Empties the buffer.
    void clearMessage() noexcept { message_[0] = '\0'; }
    // Appends `text` as far as the buffer allows, cutting the rest silently.
    void appendMessage(const char* text) noexcept;
    void setCode(std::int32_t code) noexcept { code_ = code; }

private:
    char message_[kMaxMessageLength + 1] = {};
    std::int32_t code_ = 0;
};

// A bus parameter failed a check: code 1 and a message saying which check.
class KibInvalidParameterException : public KibException {
public:
    explicit KibInvalidParameterException(const char* message) noexcept;

    KibInvalidParameterException(const KibInvalidParameterException&) noexcept = default;
    KibInvalidParameterException& operator=(const KibInvalidParameterException&) noexcept = default;
    ~KibInvalidParameterException() override;

    static constexpr std::int32_t kCode = 1;
};
