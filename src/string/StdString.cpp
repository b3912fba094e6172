// SPDX-License-Identifier: MIT
#include "StdString.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <QByteArray>
#include <QString>

CStdStr::CStdStr(const QString& text) : std::string(fromQString(text)) {}

CStdStr CStdStr::fromQString(const QString& text) {
    const QByteArray utf8 = text.toUtf8();
    const char* data = utf8.constData();
    const void* nul = std::memchr(data, '\0', static_cast<size_t>(utf8.size()));
    const size_t length =
        nul ? static_cast<size_t>(static_cast<const char*>(nul) - data) : size_t(utf8.size());
    return CStdStr(data, length);
}

QString CStdStr::toQString() const {
    return QString::fromUtf8(data(), static_cast<qsizetype>(size()));
}

void CStdStr::Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    FormatV(format, args);
    va_end(args);
}

void CStdStr::FormatV(const char* format, va_list args) {
    clear();
    AppendFormatV(format, args);
}

void CStdStr::AppendFormat(const char* format, ...) {
    va_list args;
    va_start(args, format);
    AppendFormatV(format, args);
    va_end(args);
}

void CStdStr::AppendFormatV(const char* format, va_list args) {
    size_t size = 128;
    char* buffer = static_cast<char*>(std::malloc(size));
    if (buffer == nullptr) return;
    for (;;) {
        va_list copy;
        va_copy(copy, args);
        const int written = std::vsnprintf(buffer, size, format, copy);
        va_end(copy);
        if (written >= 0 && static_cast<size_t>(written) < size) {
            append(buffer, static_cast<size_t>(written));
            break;
        }
        size = written < 0 ? size * 2 : static_cast<size_t>(written) + 1;
        char* grown = size == 0 ? nullptr : static_cast<char*>(std::realloc(buffer, size));
        if (grown == nullptr) break;  // nothing appended; the caller sees the old text
        buffer = grown;
    }
    std::free(buffer);
}

int CStdStr::Replace(std::string_view from, std::string_view to) {
    if (from.empty()) return 0;
    int count = 0;
    for (size_type pos = find(from); pos != npos; pos = find(from, pos + to.size())) {
        replace(pos, from.size(), to);
        ++count;
    }
    return count;
}
