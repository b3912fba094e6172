// SPDX-License-Identifier: MIT
#include "DefaultsTool.h"

#include <charconv>
#include <cstdio>
#include <system_error>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>

#include "CRegistryImpl.h"
#include "CSettingsDomain.h"
#include "NimbSettingsKeys.h"

namespace {

const char kHelpHead[] =
    R"(Usage: nimb-defaults read DOMAIN_OR_KEY [NAME]
       nimb-defaults write DOMAIN_OR_KEY NAME -int N | -string TEXT | -bool true|false
       nimb-defaults delete DOMAIN_OR_KEY [NAME]
       nimb-defaults --help

Reads and changes the suite's settings store.

  read     prints one value, or every value of the domain with its type
  write    sets one value (a 32-bit integer, a string or a boolean)
  delete   removes one value, or every value of the domain

DOMAIN_OR_KEY is a domain name such as com.pellix.nimb, or a key path such as
'Software\Pellix\Nimb\Config' (anything holding a backslash), which is mapped to
its domain: lower-cased, "software\pellix\nimb" becomes "com.pellix.nimb" and
backslashes become full stops.

Each domain is the file $XDG_CONFIG_HOME/pellix/DOMAIN.json
(~/.config/pellix/DOMAIN.json when XDG_CONFIG_HOME is not set).

Settings the suite reads:
)";

const char kHelpTail[] = R"(
Examples:
  nimb-defaults write 'Software\Pellix\Nimb' LogLevel -int 4
  nimb-defaults write 'Software\Pellix\Nimb' LogsDir -string /srv/pellix/logs
  nimb-defaults write 'Software\Pellix\Nimb\Config' kibDirectory.host -string 127.0.0.1
  nimb-defaults write 'Software\Pellix\Nimb\Syslog' UdpPort -int 5514
  nimb-defaults read com.pellix.nimb

Exit status: 0 done, 1 value or domain missing or store unusable, 2 bad command line.
)";

// A value as JSON text: strings quoted and escaped, other types as JSON writes them.
std::string jsonText(const QVariant& value) {
    const QByteArray array =
        QJsonDocument(QJsonArray{QJsonValue::fromVariant(value)}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2).toStdString();
}

const char* typeName(const QVariant& value) {
    switch (value.typeId()) {
        case QMetaType::Int:
            return "int";
        case QMetaType::QString:
            return "string";
        case QMetaType::Bool:
            return "bool";
        case QMetaType::QVariantList:
            return "array";
        case QMetaType::QVariantMap:
            return "object";
        case QMetaType::Nullptr:
            return "null";
        default:
            return "number";
    }
}

// One value as `read DOMAIN NAME` prints it: strings as their bare text.
std::string plainText(const QVariant& value) {
    switch (value.typeId()) {
        case QMetaType::Int:
            return std::to_string(value.toInt());
        case QMetaType::QString:
            return CStdStr::fromQString(value.toString());
        case QMetaType::Bool:
            return value.toBool() ? "true" : "false";
        default:
            return jsonText(value);
    }
}

// Decimal digits with an optional "-", nothing else (no blanks, no "+", no hex).
bool parseInt(const std::string& text, int& value) {
    const char* end = text.data() + text.size();
    int parsed = 0;
    const auto [stop, error] = std::from_chars(text.data(), end, parsed);
    if (error != std::errc() || stop != end) return false;
    value = parsed;
    return true;
}

}  // namespace

DefaultsTool::DefaultsTool(std::ostream& out, std::ostream& err) : out_(out), err_(err) {}

CStdStr DefaultsTool::domainFor(const std::string& domainOrKey) {
    if (domainOrKey.find('\\') == std::string::npos) return domainOrKey;
    CRegistryImpl registry;
    return registry.createKey(domainOrKey);
}

int DefaultsTool::run(const std::vector<std::string>& args) {
    if (args.empty()) return usageError("missing command");
    const std::string& command = args[0];
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    if (command == "read") return read(rest);
    if (command == "write") return write(rest);
    if (command == "delete") return remove(rest);
    if (command == "--help" || command == "-h" || command == "help") return printHelp();
    return usageError("unknown command \"" + command + "\"");
}

int DefaultsTool::read(const std::vector<std::string>& args) {
    if (args.empty() || args.size() > 2) return usageError("read takes DOMAIN_OR_KEY [NAME]");
    CSettingsDomain domain(domainFor(args[0]));
    if (!open(domain)) return kFailure;
    if (args.size() == 1) {
        if (domain.names().isEmpty())
            return failure("domain " + domain.domain() + " has no settings");
        printDomain(domain);
        return kSuccess;
    }
    const std::optional<QVariant> value = domain.value(args[1]);
    if (!value) return failure("no value \"" + args[1] + "\" in domain " + domain.domain());
    out_ << plainText(*value) << '\n';
    return kSuccess;
}

int DefaultsTool::write(const std::vector<std::string>& args) {
    if (args.size() != 4) {
        return usageError(
            "write takes DOMAIN_OR_KEY NAME -int N | -string TEXT | -bool true|false");
    }
    if (args[1].empty()) return usageError("write: the value name is empty");
    QVariant value;
    if (!parseValue(args[2], args[3], value)) return kUsage;
    CSettingsDomain domain(domainFor(args[0]));
    if (!open(domain)) return kFailure;
    if (!domain.setValue(args[1], value)) return failure(domain.failureReason());
    return kSuccess;
}

int DefaultsTool::remove(const std::vector<std::string>& args) {
    if (args.empty() || args.size() > 2) return usageError("delete takes DOMAIN_OR_KEY [NAME]");
    CSettingsDomain domain(domainFor(args[0]));
    if (!open(domain)) return kFailure;
    if (args.size() == 1) {
        if (domain.names().isEmpty())
            return failure("domain " + domain.domain() + " has no settings");
        if (!domain.clear()) return failure(domain.failureReason());
        return kSuccess;
    }
    if (!domain.value(args[1]))
        return failure("no value \"" + args[1] + "\" in domain " + domain.domain());
    if (!domain.remove(args[1])) return failure(domain.failureReason());
    return kSuccess;
}

int DefaultsTool::printHelp() {
    out_ << kHelpHead;
    char row[256];
    for (const NimbSettings::Key& key : NimbSettings::kKeys) {
        std::snprintf(row, sizeof row, "  %-28s %-22s %-7s %s (default %s)\n", key.keyPath,
                      key.name, key.type, key.meaning, key.defaultText);
        out_ << row;
    }
    out_ << kHelpTail;
    return kSuccess;
}

bool DefaultsTool::parseValue(const std::string& type, const std::string& text, QVariant& value) {
    if (type == "-int") {
        int number = 0;
        if (!parseInt(text, number)) {
            usageError("write: invalid integer \"" + text +
                       "\" (a whole number from -2147483648 to 2147483647 is expected)");
            return false;
        }
        value = QVariant(number);
    } else if (type == "-string") {
        value = QVariant(CStdStr(text).toQString());
    } else if (type == "-bool") {
        if (text != "true" && text != "false") {
            usageError("write: invalid boolean \"" + text + "\" (true or false is expected)");
            return false;
        }
        value = QVariant(text == "true");
    } else {
        usageError("write: unknown value type \"" + type + "\" (-int, -string or -bool)");
        return false;
    }
    return true;
}

bool DefaultsTool::open(CSettingsDomain& domain) {
    if (domain.synchronize()) return true;
    failure(domain.failureReason());
    return false;
}

void DefaultsTool::printDomain(const CSettingsDomain& domain) {
    for (const QString& name : domain.names()) {
        const QVariant value = domain.value(CStdStr::fromQString(name)).value_or(QVariant());
        out_ << CStdStr::fromQString(name) << " (" << typeName(value) << ") = " << jsonText(value)
             << '\n';
    }
}

int DefaultsTool::usageError(const std::string& message) {
    err_ << "nimb-defaults: " << message << "\nTry 'nimb-defaults --help'.\n";
    return kUsage;
}

int DefaultsTool::failure(const std::string& message) {
    err_ << "nimb-defaults: " << message << '\n';
    return kFailure;
}
