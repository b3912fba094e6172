// SPDX-License-Identifier: MIT
// kib-call: calls one service of one satellite on the bus with an argument written in
// JSON, prints the reply as JSON and exits non-zero with the error text on failure.
// Usage and exit codes: docs/kib-call.md.
#include <cstdio>

#include <unistd.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "KibJson.h"
#include "KibSatellite.h"
#include "NimbBusSettings.h"
#include "NimbVersion.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitServiceStatus = 1;  // the handler returned a non-zero status
constexpr int kExitServiceError = 2;   // the handler threw, or the service refused the call
constexpr int kExitCallFailed = 3;     // no connection, no responders, timeout
constexpr int kExitNotPermitted = 4;   // the bus refused the credentials or this call
constexpr int kExitUsage = 64;

int usage(const QString& message) {
    std::fprintf(stderr, "kib-call: %s\n", qUtf8Printable(message));
    return kExitUsage;
}

const char* errorKindName(KibErrorKind kind) {
    switch (kind) {
        case KibErrorKind::KibException:
            return "KibException";
        case KibErrorKind::StdException:
            return "std::exception";
        case KibErrorKind::OtherException:
            return "exception";
        case KibErrorKind::Library:
            return "library";
        case KibErrorKind::Local:
            return "local";
        default:
            return "none";
    }
}

void printReply(const KibReply& reply) {
    QJsonObject out;
    out.insert(QStringLiteral("status"), reply.status);
    if (reply.failed()) {
        QJsonObject error;
        error.insert(QStringLiteral("kind"), QLatin1String(errorKindName(reply.errorKind)));
        error.insert(QStringLiteral("code"), reply.errorCode);
        error.insert(QStringLiteral("message"), QString::fromStdString(reply.errorText));
        out.insert(QStringLiteral("error"), error);
    } else {
        out.insert(QStringLiteral("value"), KibJson::fromVariant(reply.value.get()));
    }
    std::printf("%s\n", QJsonDocument(out).toJson(QJsonDocument::Compact).constData());
}

}  // namespace

int main(int argc, char** argv) {
    if (nimbPrintVersionIfAsked(argc, argv, "kib-call")) return 0;
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Calls a service on the component bus."));
    parser.addHelpOption();
    parser.addOptions(NimbBusSettings::commandLineOptions());
    parser.addOptions({
        {{QStringLiteral("t"), QStringLiteral("timeout")},
         QStringLiteral("Reply timeout in milliseconds (default 5000)."),
         QStringLiteral("ms"),
         QStringLiteral("5000")},
        {{QStringLiteral("n"), QStringLiteral("name")},
         QStringLiteral("Satellite name of this caller (default kib-call-<pid>)."),
         QStringLiteral("name")},
    });
    parser.addPositionalArgument(QStringLiteral("satellite"), QStringLiteral("Satellite to call."));
    parser.addPositionalArgument(QStringLiteral("service"), QStringLiteral("Service to call."));
    parser.addPositionalArgument(QStringLiteral("json"),
                                 QStringLiteral("Argument as JSON (default: empty value)."));
    parser.process(app);

    const QStringList args = parser.positionalArguments();
    if (args.size() < 2 || args.size() > 3)
        return usage(QStringLiteral("expected SATELLITE SERVICE [JSON]"));
    bool ok = false;
    const int timeout = parser.value(QStringLiteral("timeout")).toInt(&ok);
    if (!ok || timeout <= 0) return usage(QStringLiteral("--timeout needs a positive number"));

    KibVariantHolder argument;
    if (args.size() == 3) {
        QJsonParseError parseError;
        // Wrapped in an array so that a bare scalar ("5", "\"text\"") parses too.
        const QJsonDocument document =
            QJsonDocument::fromJson(("[" + args[2] + "]").toUtf8(), &parseError);
        if (document.isNull() || document.array().size() != 1) {
            return usage(QStringLiteral("argument is not JSON: ") + parseError.errorString());
        }
        QString error;
        if (!KibJson::toVariant(document.array().at(0), argument, error)) {
            return usage(QStringLiteral("argument: ") + error);
        }
    }

    const QString name = parser.isSet(QStringLiteral("name"))
                             ? parser.value(QStringLiteral("name"))
                             : QStringLiteral("kib-call-%1").arg(::getpid());
    const NimbBusSettings bus = NimbBusSettings::fromCommandLine(parser);
    const std::string exposed = bus.credentialsWarning();
    if (!exposed.empty()) std::fprintf(stderr, "kib-call: warning: %s\n", exposed.c_str());
    KibSatellite satellite;
    const int connected = bus.connect(satellite, name.toUtf8().constData());
    if (connected != KIB_OK) {
        const std::string why = satellite.lastConnectError();
        std::fprintf(stderr, "kib-call: cannot connect to %s: %s\n", bus.displayHost().c_str(),
                     why.empty() ? KibStatusText(connected) : why.c_str());
        if (connected != KIB_E_NOT_PERMITTED) return kExitCallFailed;
        std::fprintf(stderr, "kib-call: %s\n",
                     bus.connection.credentialsFile.empty()
                         ? "the server requires credentials: pass a credentials file with "
                           "--creds FILE (nimb-bus-setup add-device NAME issues one)"
                         : "the server refused the credentials file; check --creds");
        return kExitNotPermitted;
    }
    KibReply reply;
    satellite.Call(args[0].toUtf8().constData(), args[1].toUtf8().constData(), argument.get(),
                   &reply, timeout);
    printReply(reply);
    if (reply.errorKind == KibErrorKind::Local) {
        std::fprintf(stderr, "kib-call: %s\n", reply.errorText.c_str());
        return reply.status == KIB_E_NOT_PERMITTED ? kExitNotPermitted : kExitCallFailed;
    }
    if (reply.failed()) {
        std::fprintf(stderr, "kib-call: %s\n", reply.errorText.c_str());
        return kExitServiceError;
    }
    return reply.status == 0 ? kExitOk : kExitServiceStatus;
}
