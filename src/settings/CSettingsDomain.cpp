// SPDX-License-Identifier: MIT
#include "CSettingsDomain.h"

#include <cstdlib>
#include <vector>

#include <pwd.h>
#include <unistd.h>

#include <QFile>
#include <QFileInfo>

#include "JsonSettingsFormat.h"

namespace {

CStdStr homeDirectory() {
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] != '\0') return home;
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr) {
        return found->pw_dir;
    }
    return "/";
}

CStdStr configHome() {
    // Only an absolute path counts, as for every program following the XDG rules.
    const char* configured = std::getenv("XDG_CONFIG_HOME");
    if (configured != nullptr && configured[0] == '/') return configured;
    CStdStr home = homeDirectory();
    if (home.size() > 1 && home.back() == '/') home.pop_back();
    return home == "/" ? CStdStr("/.config") : home + "/.config";
}

}  // namespace

CSettingsDomain::CSettingsDomain(const CStdStr& domain) : domain_(domain) {
    if (!isUsableName(domain_)) return;
    settings_ = std::make_unique<QSettings>(filePath().toQString(), JsonSettingsFormat::format());
}

CSettingsDomain::~CSettingsDomain() = default;

CStdStr CSettingsDomain::storeDirectory() {
    CStdStr home = configHome();
    while (home.size() > 1 && home.back() == '/') home.pop_back();
    return home + "/pellix";
}

bool CSettingsDomain::isUsableName(const CStdStr& domain) {
    return !domain.empty() && domain != "." && domain != ".." &&
           domain.find_first_of(CStdStr("/\0", 2)) == CStdStr::npos;
}

CStdStr CSettingsDomain::filePath() const {
    if (!isUsableName(domain_)) return CStdStr();
    return storeDirectory() + "/" + domain_ + ".json";
}

bool CSettingsDomain::synchronize() {
    if (!settings_) return false;
    settings_->sync();
    return isHealthy();
}

bool CSettingsDomain::isHealthy() const {
    if (!settings_ || settings_->status() != QSettings::NoError) return false;
    if (!settings_->allKeys().isEmpty()) return true;
    // A file that cannot be parsed reads as an empty domain, and QSettings reports the
    // fault only to the first reader in this process: later ones share its memory of
    // the file until the file changes. So an empty domain checks its file itself.
    QFile file(filePath().toQString());
    if (!file.exists()) return true;
    QSettings::SettingsMap ignored;
    return file.open(QIODevice::ReadOnly) && JsonSettingsFormat::parse(file.readAll(), ignored);
}

std::optional<QVariant> CSettingsDomain::value(const CStdStr& name) const {
    if (!settings_ || name.empty()) return std::nullopt;
    QVariant stored = settings_->value(name.toQString());
    if (!stored.isValid()) return std::nullopt;
    return stored;
}

QStringList CSettingsDomain::names() const {
    return settings_ ? settings_->allKeys() : QStringList();
}

bool CSettingsDomain::setValue(const CStdStr& name, const QVariant& value) {
    // A domain whose file could not be read is not written: that would replace the
    // unreadable file with this one value. Checked before the change is made, as a
    // change that fails to reach the file stays pending in QSettings' memory of it.
    if (!settings_ || name.empty() || !isHealthy()) return false;
    settings_->setValue(name.toQString(), value);
    return synchronize();
}

bool CSettingsDomain::remove(const CStdStr& name) {
    if (!settings_ || name.empty() || !isHealthy()) return false;
    settings_->remove(name.toQString());
    return synchronize();
}

bool CSettingsDomain::clear() {
    if (!settings_ || !isHealthy()) return false;
    settings_->clear();
    return synchronize();
}

CStdStr CSettingsDomain::failureReason() const {
    CStdStr reason;
    if (!settings_) {
        reason.Format("\"%s\" is not a usable domain name", domain_.c_str());
        return reason;
    }
    if (isHealthy()) return reason;
    const CStdStr path = filePath();
    const QFileInfo info(path.toQString());
    QFile file(path.toQString());
    QSettings::SettingsMap ignored;
    if (info.exists() && !file.open(QIODevice::ReadOnly)) {
        reason.Format("cannot read %s", path.c_str());
    } else if (info.exists() && !JsonSettingsFormat::parse(file.readAll(), ignored)) {
        reason.Format("%s is not a valid settings file (a JSON object is expected)", path.c_str());
    } else {
        reason.Format("cannot write %s", path.c_str());
    }
    return reason;
}
