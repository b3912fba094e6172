// SPDX-License-Identifier: MIT
#include "AlertSecrets.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

namespace {

constexpr off_t kMaxFileSize = 1 << 20;
constexpr std::size_t kMaxNameSize = 200;

bool isUtf8Text(const std::string& text) {
    const QString decoded = QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
    return decoded.toStdString() == text;
}

bool isValidName(const std::string& name) {
    if (name.empty() || name.size() > kMaxNameSize || !isUtf8Text(name)) return false;
    for (const char c : name) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return false;
    }
    return true;
}

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool writeAll(int fd, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

AlertSecrets::AlertSecrets(std::string path) : path_(std::move(path)) {}

std::optional<std::string> AlertSecrets::get(const std::string& name, std::string& error) const {
    const PMutexLocker lock(mutex_);
    Entries entries;
    error.clear();
    if (!load(entries, error)) return std::nullopt;
    const auto found = entries.find(name);
    if (found == entries.end()) return std::nullopt;
    return found->second;
}

std::vector<std::string> AlertSecrets::names(std::string& error) const {
    const PMutexLocker lock(mutex_);
    Entries entries;
    error.clear();
    std::vector<std::string> out;
    if (!load(entries, error)) return out;
    for (const auto& entry : entries) out.push_back(entry.first);
    return out;
}

bool AlertSecrets::set(const std::string& name, const std::string& value, std::string& error) {
    error.clear();
    if (!isValidName(name)) {
        error = "a secret's name must be one line of UTF-8 text of 1 to 200 bytes";
        return false;
    }
    if (!isUtf8Text(value)) {
        error = "the secret for \"" + name + "\" is not valid UTF-8 text";
        return false;
    }
    const PMutexLocker lock(mutex_);
    Entries entries;
    if (!load(entries, error)) return false;
    entries[name] = value;
    return save(entries, error);
}

bool AlertSecrets::remove(const std::string& name, std::string& error) {
    const PMutexLocker lock(mutex_);
    Entries entries;
    error.clear();
    if (!load(entries, error)) return false;
    if (entries.erase(name) == 0) return true;
    return save(entries, error);
}

bool AlertSecrets::load(Entries& entries, std::string& error) const {
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        if (errno == ENOENT) return true;
        error = "cannot open the secrets file " + path_ + ": " + std::strerror(errno);
        return false;
    }
    struct stat info {};
    std::string bytes;
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        error = "the secrets file " + path_ + " is not a regular file";
    } else if (info.st_uid != ::geteuid()) {
        error = "the secrets file " + path_ + " belongs to another user; refusing to use it";
    } else if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
        error = "the secrets file " + path_ + " has mode " + mode +
                ", open to group or others; refusing to use it until it is 0600";
    } else if (info.st_size > kMaxFileSize) {
        error = "the secrets file " + path_ + " is larger than 1 MiB";
    } else {
        bytes.resize(static_cast<std::size_t>(info.st_size));
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        bytes.resize(done);
    }
    ::close(fd);
    if (!error.empty()) return false;
    if (bytes.empty()) return true;

    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(
        QByteArray(bytes.data(), static_cast<qsizetype>(bytes.size())), &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject()) {
        error = "the secrets file " + path_ + " is not a JSON object";
        return false;
    }
    const QJsonObject object = document.object();
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (!it.value().isString()) {
            error = "the secrets file " + path_ + " has a value that is not text under \"" +
                    it.key().toStdString() + "\"";
            return false;
        }
        entries[it.key().toStdString()] = it.value().toString().toStdString();
    }
    return true;
}

bool AlertSecrets::save(const Entries& entries, std::string& error) {
    QJsonObject object;
    for (const auto& [name, value] : entries) {
        object[QString::fromStdString(name)] = QString::fromStdString(value);
    }
    const std::string bytes = QJsonDocument(object).toJson(QJsonDocument::Indented).toStdString();

    std::string temp = path_ + ".XXXXXX";
    const int fd = ::mkostemp(temp.data(), O_CLOEXEC);  // created with mode 0600
    if (fd < 0) {
        error = "cannot write the secrets file " + path_ + ": " + std::strerror(errno);
        return false;
    }
    bool ok = ::fchmod(fd, S_IRUSR | S_IWUSR) == 0 && writeAll(fd, bytes) && ::fsync(fd) == 0;
    int failure = ok ? 0 : errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        failure = errno;
    }
    if (ok && ::rename(temp.c_str(), path_.c_str()) != 0) {
        ok = false;
        failure = errno;
    }
    if (!ok) {
        error = "cannot write the secrets file " + path_ + ": " +
                std::strerror(failure != 0 ? failure : EIO);
        ::unlink(temp.c_str());
        return false;
    }
    const int folder = ::open(folderOf(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        ::fsync(folder);  // best effort: the rename is done either way
        ::close(folder);
    }
    return true;
}
