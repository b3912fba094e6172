// SPDX-License-Identifier: MIT
#include "NotifyReceivers.h"

#include <algorithm>
#include <cctype>
#include <csignal>

#include <sys/wait.h>

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace nimbtest {

namespace {

bool sameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

QJsonObject readObject(const fs::path& file) {
    const std::string bytes = readFile(file);
    return QJsonDocument::fromJson(QByteArray(bytes.data(), static_cast<qsizetype>(bytes.size())))
        .object();
}

std::string text(const QJsonObject& object, const char* key) {
    return object[key].toString().toStdString();
}

std::string base64(const QJsonObject& object, const char* key) {
    return QByteArray::fromBase64(object[key].toString().toLatin1()).toStdString();
}

// The finished records of one folder, oldest first (a record being written has a
// ".tmp" name until it is whole).
std::vector<QJsonObject> records(const fs::path& folder) {
    std::vector<fs::path> files;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(folder, ec)) {
        if (entry.path().extension() == ".json") files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    std::vector<QJsonObject> out;
    for (const fs::path& file : files) out.push_back(readObject(file));
    return out;
}

}  // namespace

std::string ReceivedRequest::header(const std::string& name) const {
    for (const auto& [key, value] : headers) {
        if (sameName(key, name)) return value;
    }
    return {};
}

bool ReceivedRequest::hasHeader(const std::string& name) const {
    return std::any_of(headers.begin(), headers.end(),
                       [&](const auto& entry) { return sameName(entry.first, name); });
}

std::string ReceivedMail::header(const std::string& name) const {
    const std::size_t end = data.find("\r\n\r\n");
    const std::string head = data.substr(0, end == std::string::npos ? data.size() : end + 2);
    std::size_t start = 0;
    while (start < head.size()) {
        std::size_t stop = head.find("\r\n", start);
        if (stop == std::string::npos) stop = head.size();
        // The header with its continuation lines, unfolded as they were sent.
        while (stop + 2 < head.size() && (head[stop + 2] == ' ' || head[stop + 2] == '\t')) {
            stop = head.find("\r\n", stop + 2);
            if (stop == std::string::npos) stop = head.size();
        }
        const std::string field = head.substr(start, stop - start);
        const std::size_t colon = field.find(':');
        if (colon != std::string::npos && sameName(field.substr(0, colon), name)) {
            std::size_t value = colon + 1;
            while (value < field.size() && field[value] == ' ') ++value;
            return field.substr(value);
        }
        start = stop + 2;
    }
    return {};
}

NotifyReceivers::NotifyReceivers() : NotifyReceivers(Options{}) {}

NotifyReceivers::NotifyReceivers(Options options) : options_(std::move(options)) { start(); }

NotifyReceivers::~NotifyReceivers() { stop(); }

void NotifyReceivers::start() {
    // Debian's interpreter: aiosmtpd is one of its packages.
    pid_ = spawnChild({"/usr/bin/python3", NIMB_NOTIFY_RECEIVERS_SCRIPT, "--dir", dir_.path(),
                       "--status", std::to_string(options_.httpStatus), "--user", options_.user,
                       "--password", options_.password},
                      {}, dir_ / "receivers.log");
    const fs::path ready = dir_ / "ready.json";
    bool exited = false;
    waitUntil(
        [&] {
            exited = ::waitpid(pid_, nullptr, WNOHANG) == pid_;
            return exited || fs::exists(ready);
        },
        std::chrono::seconds(20), std::chrono::milliseconds(20));
    if (exited) pid_ = -1;
    if (pid_ <= 0 || !fs::exists(ready)) {
        ADD_FAILURE() << "the notification receivers did not start: "
                      << readFile(dir_ / "receivers.log");
        return;
    }
    const QJsonObject ports = readObject(ready);
    httpPort_ = ports["http"].toInt();
    httpsPort_ = ports["https"].toInt();
    smtpPort_ = ports["smtp"].toInt();
    smtpPlainPort_ = ports["smtpplain"].toInt();
    smtpsPort_ = ports["smtps"].toInt();
}

void NotifyReceivers::stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    waitChild(pid_, dir_ / "receivers.log", std::chrono::seconds(5));
    pid_ = -1;
}

std::string NotifyReceivers::httpUrl(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(httpPort_) + path;
}

std::string NotifyReceivers::httpsUrl(const std::string& path) const {
    return "https://127.0.0.1:" + std::to_string(httpsPort_) + path;
}

std::string NotifyReceivers::smtpUrl() const {
    return "smtp://127.0.0.1:" + std::to_string(smtpPort_);
}

std::string NotifyReceivers::smtpPlainUrl() const {
    return "smtp://127.0.0.1:" + std::to_string(smtpPlainPort_);
}

std::string NotifyReceivers::smtpsUrl() const {
    return "smtps://127.0.0.1:" + std::to_string(smtpsPort_);
}

std::vector<ReceivedRequest> NotifyReceivers::requests() const {
    std::vector<ReceivedRequest> out;
    for (const QJsonObject& record : records(dir_ / "http")) {
        ReceivedRequest request;
        request.method = text(record, "method");
        request.path = text(record, "path");
        for (const QJsonValue& header : record["headers"].toArray()) {
            const QJsonArray pair = header.toArray();
            request.headers.emplace_back(pair[0].toString().toStdString(),
                                         pair[1].toString().toStdString());
        }
        request.body = base64(record, "body");
        out.push_back(std::move(request));
    }
    return out;
}

std::vector<ReceivedMail> NotifyReceivers::mails() const {
    std::vector<ReceivedMail> out;
    for (const QJsonObject& record : records(dir_ / "mail")) {
        ReceivedMail mail;
        mail.server = text(record, "server");
        mail.from = text(record, "from");
        for (const QJsonValue& to : record["to"].toArray())
            mail.to.push_back(to.toString().toStdString());
        mail.login = text(record, "login");
        mail.tls = record["tls"].toBool();
        mail.data = base64(record, "data");
        mail.subject = text(record, "subject");
        mail.text = text(record, "text");
        for (const QJsonValue& defect : record["defects"].toArray()) {
            mail.defects.push_back(defect.toString().toStdString());
        }
        out.push_back(std::move(mail));
    }
    return out;
}

bool NotifyReceivers::waitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
    return waitUntil([&] { return requests().size() >= count; }, limit,
                     std::chrono::milliseconds(20));
}

bool NotifyReceivers::waitForMails(std::size_t count, std::chrono::milliseconds limit) const {
    return waitUntil([&] { return mails().size() >= count; }, limit, std::chrono::milliseconds(20));
}

}  // namespace nimbtest
