// SPDX-License-Identifier: MIT
// CStdStr: the suite's 8-bit byte string. A std::string with printf-style formatting,
// substring replacement and conversions to and from QString (UTF-8). Plain value type:
// no shared state, safe to use from any thread as long as one object is not shared.
#pragma once

#include <cstdarg>
#include <string>
#include <string_view>

class QString;

class CStdStr : public std::string {
public:
    CStdStr() = default;
    CStdStr(const char* text) : std::string(text ? text : "") {}
    CStdStr(const char* text, size_type length) : std::string(text, length) {}
    CStdStr(const std::string& text) : std::string(text) {}
    CStdStr(std::string&& text) noexcept : std::string(std::move(text)) {}
    CStdStr(std::string_view text) : std::string(text) {}
    CStdStr(size_type count, char c) : std::string(count, c) {}
    // Text from Qt: its UTF-8 bytes up to (not including) the first NUL.
    explicit CStdStr(const QString& text);

    CStdStr(const CStdStr&) = default;
    CStdStr(CStdStr&&) noexcept = default;
    CStdStr& operator=(const CStdStr&) = default;
    CStdStr& operator=(CStdStr&&) noexcept = default;
    CStdStr& operator=(const char* text) {
        assign(text ? text : "");
        return *this;
    }
    ~CStdStr() = default;

    // Replaces the contents with the printf-style formatted text. On a formatting
    // failure the string is left empty.
    void Format(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void FormatV(const char* format, va_list args);

    // Appends printf-style formatted text. Formats into a 128-byte buffer first and
    // grows it (to the size vsnprintf asks for, or twice the size when it reports an
    // error) until the text fits; when the size wraps or memory runs out nothing is
    // appended. Never throws for a formatting failure.
    void AppendFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void AppendFormatV(const char* format, va_list args);

    // Replaces every occurrence of `from` by `to`, scanning left to right and
    // resuming after each inserted text. Returns the number of replacements; an empty
    // `from` replaces nothing.
    int Replace(std::string_view from, std::string_view to);

    // Conversions to Qt (UTF-8).
    QString toQString() const;
    static CStdStr fromQString(const QString& text);
};
