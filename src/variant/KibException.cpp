// SPDX-License-Identifier: MIT
#include "KibException.h"

#include <cstring>

KibException::KibException(const char* message, std::int32_t code) noexcept : code_(code) {
    appendMessage(message);
}

KibException::~KibException() = default;

void KibException::appendMessage(const char* text) noexcept {
    if (text == nullptr) {
        return;
    }
    const std::size_t used = std::strlen(message_);
    const std::size_t room = kMaxMessageLength - used;
    const std::size_t length = strnlen(text, room);
    std::memcpy(message_ + used, text, length);
    message_[used + length] = '\0';
}

KibInvalidParameterException::KibInvalidParameterException(const char* message) noexcept {
    clearMessage();
    appendMessage(message);
    setCode(kCode);
}

KibInvalidParameterException::~KibInvalidParameterException() = default;
