// SPDX-License-Identifier: MIT
// nimb-web: the web console. Serves the logs folder and the crash reports to a
// browser: devices, logs with a live tail, search, downloads, health and /metrics
// (docs/web.md). Reads only; never writes into the logs folder.
#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTextStream>

#include "NimbVersion.h"
#include "WebAuth.h"
#include "WebServer.h"
#include "WebSettings.h"

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitRefused = 1;

int fail(int status, const QString& message) {
    std::fprintf(stderr, "nimb-web: %s\n", qPrintable(message));
    return status;
}

// Reads one line from standard input and prints its stored form.
int printHash() {
    QTextStream in(stdin);
    const QString secret = in.readLine();
    if (secret.isEmpty())
        return fail(kExitUsage, QStringLiteral("--hash-secret: no secret on standard input"));
    std::printf("%s\n", qPrintable(WebAuth::hashSecret(secret.toUtf8())));
    return 0;
}

// SIGTERM and SIGINT end the event loop through a pipe, as a signal handler may only
// write a byte; written by the handler, read on the main thread.
int g_signalPipe[2] = {-1, -1};

void onSignal(int) {
    const char byte = 1;
    [[maybe_unused]] const ssize_t n = ::write(g_signalPipe[1], &byte, 1);
}

}  // namespace

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("nimb-web"));
    QCoreApplication::setApplicationVersion(QString::fromLatin1(kNimbVersion));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Serves the collected logs to a browser (settings under Software\\Pellix\\Nimb\\Web)."));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOption({QStringLiteral("listen"),
                      QStringLiteral("Address and port to listen on (default: the Listen setting, "
                                     "else 127.0.0.1:8470)."),
                      QStringLiteral("ADDR:PORT")});
    parser.addOption({QStringLiteral("logs-dir"),
                      QStringLiteral("Logs folder to serve (default: the suite's logs folder)."),
                      QStringLiteral("DIR")});
    parser.addOption(
        {QStringLiteral("dump-dir"),
         QStringLiteral("Folder of crash dumps and reports (default: $TMPDIR, else /tmp)."),
         QStringLiteral("DIR")});
    parser.addOption({QStringLiteral("hash-secret"),
                      QStringLiteral("Print the stored form of a token or password read from "
                                     "standard input, for TokenHash or PasswordHash, and exit.")});
    if (!parser.parse(QCoreApplication::arguments())) return fail(kExitUsage, parser.errorText());
    if (parser.isSet(QStringLiteral("help"))) parser.showHelp(0);
    if (parser.isSet(QStringLiteral("version"))) parser.showVersion();
    if (!parser.positionalArguments().isEmpty()) {
        return fail(
            kExitUsage,
            QStringLiteral("unexpected argument \"%1\"").arg(parser.positionalArguments().first()));
    }
    if (parser.isSet(QStringLiteral("hash-secret"))) return printHash();

    WebSettings settings = WebSettings::load();
    QString error;
    if (parser.isSet(QStringLiteral("listen"))) {
        if (!settings.setListen(parser.value(QStringLiteral("listen")), error))
            return fail(kExitUsage, error);
    } else if (!settings.problem.isEmpty()) {
        return fail(kExitUsage, QStringLiteral("setting Listen: ") + settings.problem);
    }
    if (parser.isSet(QStringLiteral("logs-dir")))
        settings.logsDir = parser.value(QStringLiteral("logs-dir")).toStdString();
    if (parser.isSet(QStringLiteral("dump-dir")))
        settings.dumpDir = parser.value(QStringLiteral("dump-dir")).toStdString();
    if (!settings.loopbackOnly() && !settings.hasCredentials()) {
        return fail(
            kExitRefused,
            QStringLiteral("refusing to listen on %1 without credentials: set TokenHash, or "
                           "User and PasswordHash, under Software\\Pellix\\Nimb\\Web (see "
                           "nimb-web --hash-secret)")
                .arg(settings.listen));
    }

    WebServer server(settings);
    const quint16 port = server.start();
    if (port == 0)
        return fail(kExitRefused, QStringLiteral("cannot listen on %1").arg(settings.listen));
    if (::pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        return fail(kExitRefused, QStringLiteral("cannot create the signal pipe"));
    }
    QSocketNotifier signalNotifier(g_signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, &app, &QCoreApplication::quit);
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    std::signal(SIGPIPE, SIG_IGN);
    std::printf("nimb-web: serving %s on http://%s:%u/\n", settings.logsDir.c_str(),
                qPrintable(settings.host.toString()), port);
    std::fflush(stdout);
    return QCoreApplication::exec();
}
