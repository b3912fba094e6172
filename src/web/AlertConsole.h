// SPDX-License-Identifier: MIT
// AlertConsole: the console's side of the alerts: the rules and channels as the page
// reads and edits them (kept in the settings store, secrets in their own 0600 file and
// never given back), the fired alerts, "send a test", and the engine that evaluates and
// delivers (AlertEngine, through AlertNotifier). Its settings live under
// "Software\Pellix\Nimb\Alerts". The API:
//   GET  /api/alerts                  rules, channels, status and the fired alerts
//   POST /api/alerts/rule             a rule (JSON; without an id: a new one)
//   POST /api/alerts/rule/delete      {"id": ...}
//   POST /api/alerts/channel          a channel (JSON), with "secret" to set one
//   POST /api/alerts/channel/delete   {"id": ...}
//   POST /api/alerts/test             {"channel": ...}: sends a test now
// Edits are taken one at a time; any thread.
#pragma once

#include <memory>
#include <set>
#include <string>

#include <QString>

#include "AlertEngine.h"
#include "PMutex.h"
#include "WebReply.h"

class AlertNotifier;
class AlertSecrets;
struct AlertChannel;
struct AlertMessage;

class AlertConsole {
public:
    struct Options {
        std::string logsDir;
        std::string consoleUrl;   // "" : from the ConsoleUrl setting, else `listen`
        std::string listen;       // ADDR:PORT nimb-web listens on
        std::string secretsPath;  // "" : from the SecretsFile setting, else the default
        std::string statePath;    // "" : from the StateFile setting, else the default
        int pollMs = 500;
    };

    explicit AlertConsole(Options options);
    AlertConsole(const AlertConsole&) = delete;
    AlertConsole& operator=(const AlertConsole&) = delete;
    ~AlertConsole();

    // Loads the rules and starts the engine. False with `error` when alerts cannot run
    // (the console goes on without them and the page says why).
    bool start(std::string& error);

    WebReply get();
    // `path` below /api/alerts/, `body` the request's JSON.
    WebReply post(const QString& path, const std::string& body);

    // A channel and a notice as the notifier takes them.
    static AlertChannel channelOf(const AlertChannelConfig& config, std::string secret);
    static AlertMessage messageOf(const AlertEngine::Notice& notice);

    // The default places of the secrets and of the state.
    static std::string defaultSecretsPath();
    static std::string defaultStatePath();

private:
    WebReply saveRule(const QJsonObject& json);
    WebReply deleteRule(const QJsonObject& json);
    WebReply saveChannel(const QJsonObject& json);
    WebReply deleteChannel(const QJsonObject& json);
    WebReply test(const QJsonObject& json);
    // The names under which the secrets file holds a secret.
    std::set<std::string> storedSecrets();
    AlertEngine::Outcome send(const AlertChannelConfig& channel, const AlertEngine::Notice& notice);

    Options options_;
    std::unique_ptr<AlertSecrets> secrets_;
    std::unique_ptr<AlertNotifier> notifier_;
    std::unique_ptr<AlertEngine> engine_;
    PMutex edits_;
    std::string startProblem_ NIMB_GUARDED_BY(edits_);
    std::string configProblem_ NIMB_GUARDED_BY(edits_);
};
