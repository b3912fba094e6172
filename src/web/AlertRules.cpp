// SPDX-License-Identifier: MIT
#include "AlertRules.h"

#include <random>

#include <QJsonArray>
#include <QJsonDocument>
#include <QUrl>

#include <re2/re2.h>

#include "CRegistry.h"
#include "NimbSettingsKeys.h"

namespace {

std::string text(const QJsonObject& json, const char* name) {
    return json.value(QLatin1String(name)).toString().toStdString();
}

// An integer field within [low, high], `fallback` when absent; false when present and not
// a whole number in range.
bool number(const QJsonObject& json, const char* name, int low, int high, int& out,
            std::string& error) {
    const QJsonValue value = json.value(QLatin1String(name));
    if (value.isUndefined() || value.isNull()) return true;
    const double read = value.toDouble(-1e18);
    if (!value.isDouble() || read != static_cast<double>(static_cast<long long>(read)) ||
        read < low || read > high) {
        error = std::string("\"") + name + "\" must be a whole number from " + std::to_string(low) +
                " to " + std::to_string(high);
        return false;
    }
    out = static_cast<int>(read);
    return true;
}

// A text field of at most `limit` bytes without control characters.
bool plainText(const QJsonObject& json, const char* name, std::size_t limit, std::string& out,
               std::string& error) {
    const QJsonValue value = json.value(QLatin1String(name));
    if (value.isUndefined() || value.isNull()) return true;
    if (!value.isString()) {
        error = std::string("\"") + name + "\" must be text";
        return false;
    }
    out = value.toString().toStdString();
    if (out.size() > limit) {
        error = std::string("\"") + name + "\" is longer than " + std::to_string(limit) + " bytes";
        return false;
    }
    for (const unsigned char c : out) {
        if (c < 0x20 || c == 0x7f) {
            error = std::string("\"") + name + "\" holds a control character";
            return false;
        }
    }
    return true;
}

bool textList(const QJsonObject& json, const char* name, std::vector<std::string>& out,
              std::string& error) {
    const QJsonValue value = json.value(QLatin1String(name));
    out.clear();
    if (value.isUndefined() || value.isNull()) return true;
    if (!value.isArray()) {
        error = std::string("\"") + name + "\" must be a list";
        return false;
    }
    for (const QJsonValue item : value.toArray()) {
        QJsonObject wrapper;
        wrapper.insert(QLatin1String(name), item);
        std::string one;
        if (!plainText(wrapper, name, 320, one, error)) return false;
        if (!one.empty()) out.push_back(one);
    }
    if (out.size() > 50) {
        error = std::string("\"") + name + "\" names more than 50 entries";
        return false;
    }
    return true;
}

QJsonArray jsonList(const std::vector<std::string>& items) {
    QJsonArray array;
    for (const std::string& item : items) array.append(QString::fromStdString(item));
    return array;
}

bool urlWithScheme(const std::string& url, std::initializer_list<const char*> schemes,
                   std::string& error) {
    const QUrl parsed(QString::fromStdString(url), QUrl::StrictMode);
    bool known = false;
    for (const char* scheme : schemes) known = known || parsed.scheme() == QLatin1String(scheme);
    if (!parsed.isValid() || !known || parsed.host().isEmpty()) {
        error = "\"url\" must be a ";
        bool first = true;
        for (const char* scheme : schemes) {
            error += (first ? "" : " or ") + std::string(scheme) + "://";
            first = false;
        }
        error += " address";
        return false;
    }
    if (!parsed.userInfo().isEmpty()) {
        error = "\"url\" must not carry a user or password: give them as the channel's login";
        return false;
    }
    return true;
}

}  // namespace

const AlertRule* AlertConfig::rule(const std::string& id) const {
    for (const AlertRule& rule : rules)
        if (rule.id == id) return &rule;
    return nullptr;
}

const AlertChannelConfig* AlertConfig::channel(const std::string& id) const {
    for (const AlertChannelConfig& channel : channels)
        if (channel.id == id) return &channel;
    return nullptr;
}

namespace AlertRules {

const char* kindName(AlertRule::Kind kind) {
    return kind == AlertRule::Kind::Silent ? "silent" : "match";
}

const char* kindName(AlertChannelConfig::Kind kind) {
    switch (kind) {
        case AlertChannelConfig::Kind::Ntfy:
            return "ntfy";
        case AlertChannelConfig::Kind::Email:
            return "email";
        case AlertChannelConfig::Kind::Webhook:
            break;
    }
    return "webhook";
}

bool ruleFromJson(const QJsonObject& json, AlertRule& rule, std::string& error) {
    rule = AlertRule{};
    rule.id = text(json, "id");
    if (!plainText(json, "name", 200, rule.name, error)) return false;
    if (rule.name.empty()) {
        error = "a rule needs a name";
        return false;
    }
    rule.enabled = json.value(QLatin1String("enabled")).toBool(true);
    const std::string kind = text(json, "kind");
    if (kind == "silent") {
        rule.kind = AlertRule::Kind::Silent;
    } else if (kind.empty() || kind == "match") {
        rule.kind = AlertRule::Kind::Match;
    } else {
        error = "\"kind\" must be \"match\" or \"silent\"";
        return false;
    }
    if (!plainText(json, "text", kMaxText, rule.text, error) ||
        !plainText(json, "device", 200, rule.device, error) ||
        !plainText(json, "log", 200, rule.log, error))
        return false;
    rule.regex = json.value(QLatin1String("regex")).toBool(false);
    if (rule.regex) {
        RE2::Options options;
        options.set_log_errors(false);
        const RE2 pattern(rule.text, options);
        if (!pattern.ok()) {
            error = "the pattern does not compile: " + pattern.error();
            return false;
        }
    }
    const std::string level = text(json, "level");
    if (!level.empty() && (!DeviceLogSeverity::parse(level, rule.level))) {
        error = "\"level\" is not a severity: " + level;
        return false;
    }
    if (!number(json, "count", 1, 1000000, rule.count, error) ||
        !number(json, "minutes", 1, kMaxMinutes, rule.minutes, error) ||
        !number(json, "silentMinutes", 1, kMaxMinutes, rule.silentMinutes, error) ||
        !number(json, "quietMinutes", 0, kMaxMinutes, rule.quietMinutes, error) ||
        !textList(json, "channels", rule.channels, error))
        return false;
    return true;
}

bool channelFromJson(const QJsonObject& json, AlertChannelConfig& channel, std::string& error) {
    channel = AlertChannelConfig{};
    channel.id = text(json, "id");
    if (!plainText(json, "name", 200, channel.name, error)) return false;
    if (channel.name.empty()) {
        error = "a channel needs a name";
        return false;
    }
    const std::string kind = text(json, "kind");
    if (kind == "ntfy") {
        channel.kind = AlertChannelConfig::Kind::Ntfy;
    } else if (kind == "email") {
        channel.kind = AlertChannelConfig::Kind::Email;
    } else if (kind == "webhook") {
        channel.kind = AlertChannelConfig::Kind::Webhook;
    } else {
        error = "\"kind\" must be \"webhook\", \"ntfy\" or \"email\"";
        return false;
    }
    if (!plainText(json, "url", 2000, channel.url, error) ||
        !plainText(json, "user", 320, channel.user, error) ||
        !plainText(json, "from", 320, channel.from, error) ||
        !plainText(json, "caFile", 1000, channel.caFile, error) ||
        !textList(json, "to", channel.to, error) ||
        !number(json, "priority", 1, 5, channel.priority, error))
        return false;
    if (channel.kind == AlertChannelConfig::Kind::Email) {
        if (!urlWithScheme(channel.url, {"smtp", "smtps"}, error)) return false;
        if (channel.from.empty() || channel.to.empty()) {
            error = "mail needs a sender (\"from\") and at least one recipient (\"to\")";
            return false;
        }
    } else if (!urlWithScheme(channel.url, {"http", "https"}, error)) {
        return false;
    }
    if (!channel.caFile.empty() && channel.caFile.front() != '/') {
        error = "\"caFile\" must be an absolute path";
        return false;
    }
    return true;
}

QJsonObject toJson(const AlertRule& rule) {
    QJsonObject json{
        {QStringLiteral("id"), QString::fromStdString(rule.id)},
        {QStringLiteral("name"), QString::fromStdString(rule.name)},
        {QStringLiteral("enabled"), rule.enabled},
        {QStringLiteral("kind"), QLatin1String(kindName(rule.kind))},
        {QStringLiteral("text"), QString::fromStdString(rule.text)},
        {QStringLiteral("regex"), rule.regex},
        {QStringLiteral("level"), rule.level == DeviceLogSeverity::Level::Unknown
                                      ? QString()
                                      : QString::fromLatin1(DeviceLogSeverity::name(rule.level))},
        {QStringLiteral("device"), QString::fromStdString(rule.device)},
        {QStringLiteral("log"), QString::fromStdString(rule.log)},
        {QStringLiteral("count"), rule.count},
        {QStringLiteral("minutes"), rule.minutes},
        {QStringLiteral("silentMinutes"), rule.silentMinutes},
        {QStringLiteral("quietMinutes"), rule.quietMinutes},
        {QStringLiteral("channels"), jsonList(rule.channels)},
    };
    return json;
}

QJsonObject toJson(const AlertChannelConfig& channel, bool hasSecret) {
    return QJsonObject{
        {QStringLiteral("id"), QString::fromStdString(channel.id)},
        {QStringLiteral("name"), QString::fromStdString(channel.name)},
        {QStringLiteral("kind"), QLatin1String(kindName(channel.kind))},
        {QStringLiteral("url"), QString::fromStdString(channel.url)},
        {QStringLiteral("user"), QString::fromStdString(channel.user)},
        {QStringLiteral("from"), QString::fromStdString(channel.from)},
        {QStringLiteral("to"), jsonList(channel.to)},
        {QStringLiteral("priority"), channel.priority},
        {QStringLiteral("caFile"), QString::fromStdString(channel.caFile)},
        {QStringLiteral("hasSecret"), hasSecret},
    };
}

std::string newId() {
    static thread_local std::mt19937_64 random{std::random_device{}()};
    static const char* const kHex = "0123456789abcdef";
    std::string id;
    std::uint64_t bits = random();
    for (int i = 0; i < 12; ++i, bits >>= 4) id += kHex[bits & 15];
    return id;
}

AlertConfig load(std::string& error) {
    AlertConfig config;
    error.clear();
    const auto read = [&](const char* name) {
        CStdStr value;
        if (!CRegistry::getInstance()->ReadSettingImpl(NimbSettings::kAlertsKey, name, value))
            return QJsonArray();
        QJsonParseError parse{};
        const QJsonDocument document = QJsonDocument::fromJson(
            QByteArray::fromStdString(static_cast<const std::string&>(value)), &parse);
        if (!document.isArray()) {
            error = std::string("the stored alert setting \"") + name + "\" is not a JSON list";
            return QJsonArray();
        }
        return document.array();
    };
    for (const QJsonValue item : read("Rules")) {
        AlertRule rule;
        std::string why;
        if (config.rules.size() < kMaxRules && ruleFromJson(item.toObject(), rule, why) &&
            !rule.id.empty()) {
            config.rules.push_back(std::move(rule));
        } else if (error.empty()) {
            error = "a stored alert rule was left out: " + why;
        }
    }
    for (const QJsonValue item : read("Channels")) {
        AlertChannelConfig channel;
        std::string why;
        if (config.channels.size() < kMaxChannels &&
            channelFromJson(item.toObject(), channel, why) && !channel.id.empty()) {
            config.channels.push_back(std::move(channel));
        } else if (error.empty()) {
            error = "a stored alert channel was left out: " + why;
        }
    }
    return config;
}

bool save(const AlertConfig& config, std::string& error) {
    QJsonArray rules;
    for (const AlertRule& rule : config.rules) rules.append(toJson(rule));
    QJsonArray channels;
    for (const AlertChannelConfig& channel : config.channels)
        channels.append(toJson(channel, false));
    for (QJsonValueRef channel : channels) {
        QJsonObject object = channel.toObject();
        object.remove(QStringLiteral("hasSecret"));
        channel = object;
    }
    const auto write = [](const char* name, const QJsonArray& array) {
        const QByteArray json = QJsonDocument(array).toJson(QJsonDocument::Compact);
        return CRegistry::getInstance()->WriteSettingImpl(NimbSettings::kAlertsKey, name,
                                                          CStdStr(json.toStdString()));
    };
    if (!write("Rules", rules) || !write("Channels", channels)) {
        error = "the settings store could not be written";
        return false;
    }
    return true;
}

}  // namespace AlertRules
