// SPDX-License-Identifier: MIT
#include "LogPushOptions.h"

#include <cstdio>

#include <QCommandLineParser>
#include <QStringList>

#include "DeviceIdentity.h"

namespace {

const char* const kDefaultSatellite = "RemoteLogger";
const char* const kStdinLogName = "stdin";

QString q(const char* text) { return QString::fromUtf8(text); }

std::string text(const QCommandLineParser& parser, const char* name) {
    return parser.value(q(name)).toStdString();
}

// A satellite name is one bus subject token: printable ASCII without ".", "*" and ">".
bool isValidSatelliteName(const std::string& name) {
    if (name.empty() || name.size() > 128) return false;
    for (const char c : name) {
        const auto u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u >= 0x7F || c == '.' || c == '*' || c == '>') return false;
    }
    return true;
}

bool readNumber(const QCommandLineParser& parser, const char* name, int minimum, int& value,
                std::string& error) {
    if (!parser.isSet(q(name))) return true;
    bool ok = false;
    value = parser.value(q(name)).toInt(&ok);
    if (ok && value >= minimum) return true;
    error = "--" + std::string(name) + " needs a number of milliseconds of at least " +
            std::to_string(minimum);
    return false;
}

void addOptions(QCommandLineParser& parser) {
    parser.setApplicationDescription(
        q("Sends log files, or standard input, to the suite's log collector."));
    parser.addHelpOption();
    parser.addOptions(NimbBusSettings::commandLineOptions());
    parser.addOptions({
        {q("mac"), q("MAC address of this device (default: first network interface)."), q("addr")},
        {q("device-id"), q("Device id (default: the host name)."), q("id")},
        {q("name"), q("Display name of this device (default: the host name)."), q("text")},
        {q("log"), q("Log name to send under (default: the file's path, or stdin)."), q("name")},
        {{q("f"), q("follow")}, q("Keep sending what is appended to the files.")},
        {q("satellite"), q("Satellite name of the collector (default RemoteLogger)."), q("name"),
         q(kDefaultSatellite)},
        {{q("t"), q("timeout")}, q("Reply timeout in milliseconds (default 5000)."), q("ms")},
        {q("retry-for"),
         q("How long a failing request is retried, in milliseconds (default 60000; "
           "without end when following)."),
         q("ms")},
        {q("no-time"), q("Do not send the device time (no timestamp conversion).")},
    });
    parser.addPositionalArgument(q("file"), q("Files to send; none or - reads standard input."),
                                 q("[FILE...]"));
}

}  // namespace

bool LogPushOptions::parse(const std::vector<std::string>& arguments, std::string& error) {
    QCommandLineParser parser;
    addOptions(parser);
    QStringList list;
    for (const std::string& argument : arguments) list << QString::fromStdString(argument);
    if (!parser.parse(list)) {
        error = parser.errorText().toStdString();
        return false;
    }
    if (parser.isSet(q("help"))) {
        std::fputs(qPrintable(parser.helpText()), stdout);
        helpShown = true;
        return true;
    }
    follow = parser.isSet(q("follow"));
    // A follower runs unattended: giving up would lose its place in the files.
    if (follow) client.retryMs = -1;
    client.bus = NimbBusSettings::fromCommandLine(parser);
    client.satellite = text(parser, "satellite");
    if (!isValidSatelliteName(client.satellite)) {
        error = "invalid satellite name: " + client.satellite;
        return false;
    }
    const std::string host = DeviceIdentity::hostName();
    client.macAddress =
        parser.isSet(q("mac")) ? text(parser, "mac") : DeviceIdentity::firstMacAddress();
    client.deviceId = parser.isSet(q("device-id")) ? text(parser, "device-id") : host;
    client.displayName = parser.isSet(q("name")) ? text(parser, "name") : host;
    client.sendTime = !parser.isSet(q("no-time"));
    if (!readNumber(parser, "timeout", 1, client.timeoutMs, error) ||
        !readNumber(parser, "retry-for", 0, client.retryMs, error)) {
        return false;
    }

    QStringList files = parser.positionalArguments();
    if (files.isEmpty()) files << q("-");
    const bool named = parser.isSet(q("log"));
    if (named && text(parser, "log").empty()) {
        error = "--log needs a name";
        return false;
    }
    for (const QString& file : files) {
        const std::string path = file.toStdString();
        const std::string logName =
            named ? text(parser, "log") : (path == "-" ? kStdinLogName : path);
        inputs.push_back({path, logName});
        bool known = false;
        for (const std::string& name : client.logNames) known = known || name == logName;
        if (!known) client.logNames.push_back(logName);
    }
    return true;
}
