// SPDX-License-Identifier: MIT
// The notification's texts: the web hook's JSON, header values and the mail message.
// Device text is hostile: it is made valid UTF-8, and whatever lands in a header loses its
// control characters, so a title can never end its header line and start another.
#include <algorithm>
#include <ctime>
#include <random>

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include "AlertNotifier.h"

namespace AlertFormat {

namespace {

QString fromUtf8(const std::string& text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

std::string validUtf8(const std::string& text) { return fromUtf8(text).toStdString(); }

// Characters that reorder the text around them: shown in a one-line title they can make
// it read as something else, so header values drop them.
bool isBidiControl(char32_t c) {
    return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069);
}

bool isLineBreakOrControl(char32_t c) {
    return c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x2028 || c == 0x2029;
}

bool isPrintableAscii(const std::string& text) {
    for (const char c : text) {
        if (c < 0x20 || c > 0x7E) return false;
    }
    return true;
}

const char kHex[] = "0123456789ABCDEF";

// RFC 5322 date in UTC ("Wed, 25 Nov 2026 15:03:17 +0000"), independent of the locale.
std::string mailDate(std::int64_t seconds) {
    static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%s, %02d %s %04d %02d:%02d:%02d +0000",
                  kDays[tm.tm_wday % 7], tm.tm_mday, kMonths[tm.tm_mon % 12], tm.tm_year + 1900,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buffer;
}

std::string messageId(const std::string& from, std::int64_t now) {
    std::random_device random;
    std::string id = "<";
    for (int i = 0; i < 4; ++i) {
        char part[9];
        std::snprintf(part, sizeof part, "%08x", static_cast<unsigned>(random()));
        id += part;
    }
    const std::size_t at = from.rfind('@');
    id += "." + std::to_string(now) + "@" +
          (at == std::string::npos ? std::string("nimb.localhost") : from.substr(at + 1)) + ">";
    return id;
}

// One body line in quoted-printable, soft-wrapped so no encoded line exceeds 76 octets.
void appendQuotedPrintable(std::string& out, const std::string& line) {
    std::size_t width = 0;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const auto byte = static_cast<unsigned char>(line[i]);
        const bool last = i + 1 == line.size();
        std::string token;
        if ((byte >= 33 && byte <= 126 && byte != '=') ||
            ((byte == ' ' || byte == '\t') && !last)) {
            token = static_cast<char>(byte);
        } else {
            token = {'=', kHex[byte >> 4], kHex[byte & 15]};
        }
        if (width + token.size() > 75) {
            out += "=\r\n";
            width = 0;
        }
        out += token;
        width += token.size();
    }
    out += "\r\n";
}

std::string mailBody(const AlertMessage& message) {
    std::string text = validUtf8(message.text);
    if (!text.empty() && text.back() != '\n') text += '\n';
    text += '\n';
    if (!message.rule.empty()) text += "Rule: " + oneLine(message.rule) + "\n";
    if (!message.severity.empty()) text += "Severity: " + oneLine(message.severity) + "\n";
    text += "Matching lines: " + std::to_string(message.matches);
    if (message.firstTime > 0) {
        text += " (" + isoTime(message.firstTime);
        if (message.lastTime > message.firstTime) text += " to " + isoTime(message.lastTime);
        text += ")";
    }
    text += "\n";
    if (!message.link.empty()) text += "Open in the console: " + oneLine(message.link, 2000) + "\n";
    if (message.test) text += "This is a test notification.\n";

    std::string body;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::size_t stop = end;
        if (stop > start && text[stop - 1] == '\r') --stop;  // CRLF in the text: one break
        appendQuotedPrintable(body, text.substr(start, stop - start));
        start = end + 1;
    }
    return body;
}

}  // namespace

std::string isoTime(std::int64_t seconds) {
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buffer;
}

std::string webhookJson(const AlertMessage& message) {
    QJsonArray lines;
    for (const std::string& line : message.lines) lines.append(fromUtf8(line));
    QJsonObject object;
    object["rule"] = fromUtf8(message.rule);
    object["title"] = fromUtf8(message.title);
    object["text"] = fromUtf8(message.text);
    object["link"] = fromUtf8(message.link);
    object["severity"] = fromUtf8(message.severity);
    object["matches"] = static_cast<qint64>(message.matches);
    object["firstTime"] = message.firstTime > 0
                              ? QJsonValue(QString::fromStdString(isoTime(message.firstTime)))
                              : QJsonValue(QJsonValue::Null);
    object["lastTime"] = message.lastTime > 0
                             ? QJsonValue(QString::fromStdString(isoTime(message.lastTime)))
                             : QJsonValue(QJsonValue::Null);
    object["lines"] = lines;
    object["test"] = message.test;
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

std::string oneLine(const std::string& value, std::size_t maxChars) {
    const QList<uint> chars = fromUtf8(value).toUcs4();
    std::u32string out;
    bool space = true;  // drops leading spaces
    for (const uint c : chars) {
        if (isBidiControl(c)) continue;
        if (isLineBreakOrControl(c) || c == ' ') {
            if (!space) out += U' ';
            space = true;
            continue;
        }
        if (out.size() >= maxChars) break;
        out += static_cast<char32_t>(c);
        space = false;
    }
    while (!out.empty() && out.back() == U' ') out.pop_back();
    return QString::fromUcs4(out.data(), static_cast<qsizetype>(out.size())).toStdString();
}

std::string encodeHeaderWord(const std::string& value) {
    if (isPrintableAscii(value) && value.find("=?") == std::string::npos) return value;
    // Encoded-words of at most 75 octets, each holding whole characters: 45 bytes of
    // UTF-8 make 60 of base64.
    std::string out;
    std::size_t start = 0;
    while (start < value.size()) {
        std::size_t end = std::min(value.size(), start + 45);
        while (end < value.size() && end > start + 1 &&
               (static_cast<unsigned char>(value[end]) & 0xC0) == 0x80) {
            --end;
        }
        const QByteArray chunk(value.data() + start, static_cast<qsizetype>(end - start));
        if (!out.empty()) out += ' ';
        out += "=?UTF-8?B?" + chunk.toBase64().toStdString() + "?=";
        start = end;
    }
    return out;
}

// The title a notification shows: the rule's when the message has none.
static std::string subjectOf(const AlertMessage& message) {
    std::string subject = oneLine(message.title.empty() ? message.rule : message.title);
    return subject.empty() ? std::string("Alert") : subject;
}

std::string ntfyBody(const AlertMessage& message) {
    std::string body = validUtf8(message.text);
    return body.empty() ? subjectOf(message) : body;
}

std::vector<std::string> ntfyHeaders(const AlertChannel& channel, const AlertMessage& message) {
    std::vector<std::string> headers;
    headers.push_back("Title: " + encodeHeaderWord(subjectOf(message)));
    headers.push_back("Priority: " + std::to_string(std::clamp(channel.priority, 1, 5)));
    std::string tags = oneLine(message.severity, 40);
    if (message.test) tags += tags.empty() ? "test" : ",test";
    if (!tags.empty()) headers.push_back("Tags: " + encodeHeaderWord(tags));
    // A URL in a header: one line, the bytes outside printable ASCII percent-encoded.
    std::string click;
    for (const char c : oneLine(message.link, 2000)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > 0x20 && byte < 0x7F) {
            click += c;
        } else {
            click += {'%', kHex[byte >> 4], kHex[byte & 15]};
        }
    }
    if (!click.empty()) headers.push_back("Click: " + click);
    return headers;
}

std::string mailMessage(const AlertChannel& channel, const AlertMessage& message,
                        std::int64_t now) {
    std::string subject = subjectOf(message);
    if (message.test) subject = "[test] " + subject;

    std::string to;
    for (const std::string& address : channel.to) to += (to.empty() ? "" : ", ") + address;

    // Long encoded subjects fold onto continuation lines between their encoded-words.
    std::string encodedSubject = encodeHeaderWord(subject);
    if (encodedSubject.find("=?") == 0) {
        std::string folded;
        for (const char c : encodedSubject)
            folded += c == ' ' ? std::string("\r\n ") : std::string(1, c);
        encodedSubject = folded;
    }

    std::string mail;
    mail += "Date: " + mailDate(now) + "\r\n";
    mail += "From: " + channel.from + "\r\n";
    mail += "To: " + to + "\r\n";
    mail += "Subject: " + encodedSubject + "\r\n";
    mail += "Message-ID: " + messageId(channel.from, now) + "\r\n";
    mail += "MIME-Version: 1.0\r\n";
    mail += "Content-Type: text/plain; charset=utf-8\r\n";
    mail += "Content-Transfer-Encoding: quoted-printable\r\n";
    mail += "Auto-Submitted: auto-generated\r\n";
    mail += "\r\n";
    mail += mailBody(message);
    return mail;
}

}  // namespace AlertFormat
