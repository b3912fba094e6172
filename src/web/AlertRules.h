// SPDX-License-Identifier: MIT
// AlertRules: what the console's alerts are made of, as the settings store keeps them
// (key "Software\Pellix\Nimb\Alerts": "Rules" and "Channels", each a JSON array) and as
// the API shows and takes them. A rule either matches lines (a text or RE2 pattern, a
// lowest severity, a device, a log; N matches within M minutes) or watches for a device
// gone silent; it names the channels it notifies and a quiet period during which further
// matches are gathered into one digest. A channel is where a notification goes: a web
// hook, an ntfy-style topic or mail. A channel's secret (token, password) is never part
// of this: it lives in the secrets file (0600) and is only ever written, never read back.
// Plain values and pure functions; any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <QJsonObject>

#include "DeviceLogSeverity.h"

struct AlertRule {
    enum class Kind { Match, Silent };
    std::string id;
    std::string name;
    bool enabled = true;
    Kind kind = Kind::Match;
    // Match: the text (a substring, any case) or an RE2 pattern; "" matches every line.
    std::string text;
    bool regex = false;
    // Lines at this severity or a graver one; Unknown: any line, with or without one.
    DeviceLogSeverity::Level level = DeviceLogSeverity::Level::Unknown;
    // Match and Silent: a device (id, display name, MAC or file name prefix); "" any.
    std::string device;
    // Match: a log file name, or the log's name as the device announced it; "" any.
    std::string log;
    // Match: fires once `count` lines matched within `minutes`.
    int count = 1;
    int minutes = 5;
    // Silent: a device that sent nothing for this long after sending.
    int silentMinutes = 30;
    // After a notification, further matches wait this long and go out as one digest.
    int quietMinutes = 1;
    std::vector<std::string> channels;
};

struct AlertChannelConfig {
    enum class Kind { Webhook, Ntfy, Email };
    std::string id;
    std::string name;
    Kind kind = Kind::Webhook;
    std::string url;   // http(s) for Webhook and Ntfy, smtp:// (STARTTLS) or smtps:// for Email
    std::string user;  // Email login
    std::string from;  // Email
    std::vector<std::string> to;  // Email
    int priority = 3;             // Ntfy, 1 to 5
    std::string caFile;           // an extra CA bundle for a receiver with its own CA
};

struct AlertConfig {
    std::vector<AlertRule> rules;
    std::vector<AlertChannelConfig> channels;

    const AlertRule* rule(const std::string& id) const;
    const AlertChannelConfig* channel(const std::string& id) const;
};

namespace AlertRules {

// Bounds of what a rule or channel may hold.
constexpr std::size_t kMaxRules = 200;
constexpr std::size_t kMaxChannels = 50;
constexpr std::size_t kMaxText = 1000;
constexpr int kMaxMinutes = 7 * 24 * 60;

// Reads a rule or channel from its JSON form. `error` says what is wrong in one sentence
// naming the field; the id is kept as given ("" for a new one).
bool ruleFromJson(const QJsonObject& json, AlertRule& rule, std::string& error);
bool channelFromJson(const QJsonObject& json, AlertChannelConfig& channel, std::string& error);
QJsonObject toJson(const AlertRule& rule);
// `hasSecret` tells the page a secret is stored (the secret itself never goes out).
QJsonObject toJson(const AlertChannelConfig& channel, bool hasSecret);

const char* kindName(AlertRule::Kind kind);
const char* kindName(AlertChannelConfig::Kind kind);

// A new id: 12 hex digits, random.
std::string newId();

// The configuration from the settings store; a stored value that cannot be read gives
// `error` and leaves that list empty.
AlertConfig load(std::string& error);
// Writes both lists to the settings store. False with `error` when it cannot.
bool save(const AlertConfig& config, std::string& error);

}  // namespace AlertRules
