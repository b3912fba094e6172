// SPDX-License-Identifier: MIT
#include "AlertConsole.h"

#include <cstdlib>
#include <set>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "AlertNotifier.h"
#include "AlertSecrets.h"
#include "CRegistry.h"
#include "CSettingsDomain.h"
#include "NimbSettingsKeys.h"
#include "WebApiParts.h"

namespace {

std::string setting(const char* name) {
    CStdStr value;
    if (!CRegistry::getInstance()->ReadSettingImpl(NimbSettings::kAlertsKey, name, value))
        return {};
    return value;
}

std::string secretName(const std::string& channel) { return "channel:" + channel; }

QJsonObject parse(const std::string& body, std::string& error) {
    QJsonParseError parseError{};
    const QJsonDocument document =
        QJsonDocument::fromJson(QByteArray::fromStdString(body), &parseError);
    if (!document.isObject()) {
        error = "the request is not a JSON object";
        return {};
    }
    return document.object();
}

WebReply badRequest(const std::string& error) {
    return WebReply::error(400, QString::fromStdString(error));
}

QJsonArray textArray(const std::vector<std::string>& lines) {
    QJsonArray array;
    for (const std::string& line : lines) array.append(WebApiParts::text(line));
    return array;
}

}  // namespace

AlertConsole::AlertConsole(Options options) : options_(std::move(options)) {
    if (options_.consoleUrl.empty()) options_.consoleUrl = setting("ConsoleUrl");
    if (options_.consoleUrl.empty()) options_.consoleUrl = "http://" + options_.listen + "/";
    if (options_.consoleUrl.back() != '/') options_.consoleUrl += '/';
    if (options_.secretsPath.empty()) options_.secretsPath = setting("SecretsFile");
    if (options_.secretsPath.empty()) options_.secretsPath = defaultSecretsPath();
    if (options_.statePath.empty()) options_.statePath = setting("StateFile");
    if (options_.statePath.empty()) options_.statePath = defaultStatePath();
    secrets_ = std::make_unique<AlertSecrets>(options_.secretsPath);
    notifier_ = std::make_unique<AlertNotifier>();
    engine_ = std::make_unique<AlertEngine>(
        AlertEngine::Options{options_.logsDir, options_.statePath, options_.consoleUrl,
                             options_.pollMs},
        [this](const AlertChannelConfig& channel, const AlertEngine::Notice& notice) {
            return send(channel, notice);
        });
}

AlertConsole::~AlertConsole() = default;

std::string AlertConsole::defaultSecretsPath() {
    return CSettingsDomain::storeDirectory() + "/alert-secrets";
}

std::string AlertConsole::defaultStatePath() {
    const char* state = std::getenv("XDG_STATE_HOME");
    std::string base;
    if (state != nullptr && state[0] == '/') {
        base = state;
    } else {
        const char* home = std::getenv("HOME");
        base = std::string(home != nullptr && home[0] == '/' ? home : "/tmp") + "/.local/state";
    }
    return base + "/pellix/nimb-web-alerts.sqlite";
}

bool AlertConsole::start(std::string& error) {
    std::string configError;
    const AlertConfig config = AlertRules::load(configError);
    const bool started = engine_->start(config, error);
    PMutexLocker lock(edits_);
    configProblem_ = configError;
    if (!started) startProblem_ = error;
    return started;
}

AlertChannel AlertConsole::channelOf(const AlertChannelConfig& config, std::string secret) {
    AlertChannel channel;
    channel.kind = config.kind == AlertChannelConfig::Kind::Email  ? AlertChannel::Kind::Email
                   : config.kind == AlertChannelConfig::Kind::Ntfy ? AlertChannel::Kind::Ntfy
                                                                   : AlertChannel::Kind::Webhook;
    channel.url = config.url;
    channel.user = config.user;
    channel.from = config.from;
    channel.to = config.to;
    channel.priority = config.priority;
    channel.caFile = config.caFile;
    channel.secret = std::move(secret);
    return channel;
}

AlertMessage AlertConsole::messageOf(const AlertEngine::Notice& notice) {
    AlertMessage message;
    message.rule = notice.ruleName;
    message.title = notice.title;
    message.text = notice.text;
    message.link = notice.link;
    message.severity = notice.severity;
    message.matches = notice.matches;
    message.firstTime = notice.firstMs / 1000;
    message.lastTime = notice.lastMs / 1000;
    message.lines = notice.lines;
    message.test = notice.test;
    return message;
}

AlertEngine::Outcome AlertConsole::send(const AlertChannelConfig& config,
                                        const AlertEngine::Notice& notice) {
    std::string error;
    const std::optional<std::string> secret = secrets_->get(secretName(config.id), error);
    if (!error.empty()) return {false, error};
    const AlertSendResult result =
        notifier_->send(channelOf(config, secret.value_or("")), messageOf(notice));
    return {result.ok, result.error};
}

std::set<std::string> AlertConsole::storedSecrets() {
    std::string error;
    const std::vector<std::string> names = secrets_->names(error);
    return {names.begin(), names.end()};
}

WebReply AlertConsole::get() {
    const AlertConfig config = engine_->config();
    QJsonArray rules;
    for (const AlertRule& rule : config.rules) rules.append(AlertRules::toJson(rule));
    QJsonArray channels;
    // The secrets file is read once for all channels.
    const std::set<std::string> secrets = storedSecrets();
    for (const AlertChannelConfig& channel : config.channels)
        channels.append(AlertRules::toJson(channel, secrets.count(secretName(channel.id)) != 0));
    const AlertEngine::Status status = engine_->status();
    QJsonObject ruleStates;
    for (const auto& [id, rule] : status.rules) {
        ruleStates.insert(QString::fromStdString(id),
                          QJsonObject{{"quietUntil", rule.quietUntilMs / 1000.0},
                                      {"pending", static_cast<qint64>(rule.pending)},
                                      {"lastFired", rule.lastFiredMs / 1000.0}});
    }
    QJsonArray fired;
    for (const AlertState::Fired& one : engine_->fired(100)) {
        QJsonArray deliveries;
        for (const AlertState::Delivery& delivery : one.deliveries) {
            const AlertChannelConfig* channel = config.channel(delivery.channel);
            deliveries.append(QJsonObject{
                {"channel", QString::fromStdString(delivery.channel)},
                {"channelName", channel != nullptr ? QString::fromStdString(channel->name)
                                                   : QString::fromStdString(delivery.channel)},
                {"status", QString::fromStdString(delivery.status)},
                {"attempts", delivery.attempts},
                {"sent", delivery.sentMs / 1000.0},
                {"error", QString::fromStdString(delivery.error)}});
        }
        const bool inLog = one.kind == "match" || one.kind == "digest";
        fired.append(QJsonObject{{"id", static_cast<qint64>(one.id)},
                                 {"rule", QString::fromStdString(one.rule)},
                                 {"ruleName", WebApiParts::text(one.ruleName)},
                                 {"kind", QString::fromStdString(one.kind)},
                                 {"time", one.createdMs / 1000.0},
                                 {"matches", static_cast<qint64>(one.matches)},
                                 {"title", WebApiParts::text(one.title)},
                                 {"severity", QString::fromStdString(one.severity)},
                                 {"lines", textArray(one.lines)},
                                 {"file", inLog ? WebApiParts::text(one.place.file) : QString()},
                                 {"generation", static_cast<qint64>(one.place.generation)},
                                 {"offset", static_cast<qint64>(one.place.offset)},
                                 {"first", one.firstMs / 1000.0},
                                 {"last", one.lastMs / 1000.0},
                                 {"deliveries", deliveries}});
    }
    std::string problem;
    {
        PMutexLocker lock(edits_);
        problem = !startProblem_.empty() ? startProblem_ : configProblem_;
    }
    if (problem.empty()) problem = status.problem;
    return WebReply::json(
        QJsonObject{{"rules", rules},
                    {"channels", channels},
                    {"status", QJsonObject{{"running", status.running},
                                           {"indexAvailable", status.indexAvailable},
                                           {"lastRead", status.lastReadMs / 1000.0},
                                           {"problem", QString::fromStdString(problem)},
                                           {"rules", ruleStates}}},
                    {"fired", fired}});
}

WebReply AlertConsole::post(const QString& path, const std::string& body) {
    std::string error;
    const QJsonObject json = parse(body, error);
    if (!error.empty()) return badRequest(error);
    if (path == QLatin1String("rule")) return saveRule(json);
    if (path == QLatin1String("rule/delete")) return deleteRule(json);
    if (path == QLatin1String("channel")) return saveChannel(json);
    if (path == QLatin1String("channel/delete")) return deleteChannel(json);
    if (path == QLatin1String("test")) return test(json);
    return WebApiParts::notFound();
}

WebReply AlertConsole::saveRule(const QJsonObject& json) {
    AlertRule rule;
    std::string error;
    if (!AlertRules::ruleFromJson(json, rule, error)) return badRequest(error);
    PMutexLocker lock(edits_);
    AlertConfig config = engine_->config();
    for (const std::string& channel : rule.channels) {
        if (config.channel(channel) == nullptr)
            return badRequest("the rule names a channel that does not exist: " + channel);
    }
    auto it = std::find_if(config.rules.begin(), config.rules.end(),
                           [&](const AlertRule& r) { return !rule.id.empty() && r.id == rule.id; });
    if (it != config.rules.end()) {
        *it = rule;
    } else if (!rule.id.empty()) {
        return WebReply::error(404, QStringLiteral("no rule has that id"));
    } else if (config.rules.size() >= AlertRules::kMaxRules) {
        return badRequest("there are already " + std::to_string(AlertRules::kMaxRules) + " rules");
    } else {
        rule.id = AlertRules::newId();
        config.rules.push_back(rule);
    }
    if (!AlertRules::save(config, error))
        return WebReply::error(500, QString::fromStdString(error));
    engine_->setConfig(config);
    configProblem_.clear();
    return WebReply::json(QJsonObject{{"rule", AlertRules::toJson(rule)}});
}

WebReply AlertConsole::deleteRule(const QJsonObject& json) {
    const std::string id = json.value(QLatin1String("id")).toString().toStdString();
    PMutexLocker lock(edits_);
    AlertConfig config = engine_->config();
    const auto kept = std::remove_if(config.rules.begin(), config.rules.end(),
                                     [&](const AlertRule& r) { return r.id == id; });
    if (kept == config.rules.end())
        return WebReply::error(404, QStringLiteral("no rule has that id"));
    config.rules.erase(kept, config.rules.end());
    std::string error;
    if (!AlertRules::save(config, error))
        return WebReply::error(500, QString::fromStdString(error));
    engine_->setConfig(config);
    return WebReply::json(QJsonObject{{"deleted", QString::fromStdString(id)}});
}

WebReply AlertConsole::saveChannel(const QJsonObject& json) {
    AlertChannelConfig channel;
    std::string error;
    if (!AlertRules::channelFromJson(json, channel, error)) return badRequest(error);
    const QJsonValue secret = json.value(QLatin1String("secret"));
    if (!secret.isUndefined() && !secret.isNull() && !secret.isString())
        return badRequest("\"secret\" must be text");
    PMutexLocker lock(edits_);
    AlertConfig config = engine_->config();
    auto it = std::find_if(
        config.channels.begin(), config.channels.end(),
        [&](const AlertChannelConfig& c) { return !channel.id.empty() && c.id == channel.id; });
    if (it != config.channels.end()) {
        *it = channel;
    } else if (!channel.id.empty()) {
        return WebReply::error(404, QStringLiteral("no channel has that id"));
    } else if (config.channels.size() >= AlertRules::kMaxChannels) {
        return badRequest("there are already " + std::to_string(AlertRules::kMaxChannels) +
                          " channels");
    } else {
        channel.id = AlertRules::newId();
        config.channels.push_back(channel);
    }
    // An empty secret keeps the one stored; "clearSecret" removes it.
    if (json.value(QLatin1String("clearSecret")).toBool(false)) {
        if (!secrets_->remove(secretName(channel.id), error))
            return WebReply::error(500, QString::fromStdString(error));
    } else if (secret.isString() && !secret.toString().isEmpty()) {
        if (!secrets_->set(secretName(channel.id), secret.toString().toStdString(), error))
            return WebReply::error(500, QString::fromStdString(error));
    }
    if (!AlertRules::save(config, error))
        return WebReply::error(500, QString::fromStdString(error));
    engine_->setConfig(config);
    return WebReply::json(
        QJsonObject{{"channel", AlertRules::toJson(
                                    channel, storedSecrets().count(secretName(channel.id)) != 0)}});
}

WebReply AlertConsole::deleteChannel(const QJsonObject& json) {
    const std::string id = json.value(QLatin1String("id")).toString().toStdString();
    PMutexLocker lock(edits_);
    AlertConfig config = engine_->config();
    for (const AlertRule& rule : config.rules) {
        if (std::find(rule.channels.begin(), rule.channels.end(), id) != rule.channels.end())
            return badRequest("the rule \"" + rule.name + "\" still sends to this channel");
    }
    const auto kept = std::remove_if(config.channels.begin(), config.channels.end(),
                                     [&](const AlertChannelConfig& c) { return c.id == id; });
    if (kept == config.channels.end())
        return WebReply::error(404, QStringLiteral("no channel has that id"));
    config.channels.erase(kept, config.channels.end());
    std::string error;
    if (!secrets_->remove(secretName(id), error) || !AlertRules::save(config, error))
        return WebReply::error(500, QString::fromStdString(error));
    engine_->setConfig(config);
    return WebReply::json(QJsonObject{{"deleted", QString::fromStdString(id)}});
}

WebReply AlertConsole::test(const QJsonObject& json) {
    const std::string id = json.value(QLatin1String("channel")).toString().toStdString();
    const AlertConfig config = engine_->config();
    const AlertChannelConfig* channel = config.channel(id);
    if (channel == nullptr) return WebReply::error(404, QStringLiteral("no channel has that id"));
    const AlertEngine::Outcome outcome = engine_->sendTest(*channel);
    return WebReply::json(
        QJsonObject{{"ok", outcome.ok}, {"error", QString::fromStdString(outcome.error)}});
}
