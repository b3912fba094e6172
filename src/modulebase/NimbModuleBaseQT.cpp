// SPDX-License-Identifier: MIT
#include "NimbModuleBaseQT.h"

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>

#include "KibSatellite.h"

int NimbModuleBaseQT::unixSignalSockets[2] = {-1, -1};

namespace {

// Installs `handler` for `signalNumber` with an empty mask and `flags`.
void installHandler(int signalNumber, void (*handler)(int), int flags) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = flags;
    sigaction(signalNumber, &action, nullptr);
}

}  // namespace

NimbModuleBaseQT::NimbModuleBaseQT(const CStdStr& moduleNameText)
    : QObject(nullptr), name(moduleNameText), crashDumper(name.c_str()) {
    logger.reset(new CBBLog(name + ".log", false, kModuleLogSize));
    CBBLog::setLogger(logger);
    KibSatellite::setLogger(logger);

    if (socketpair(AF_UNIX, SOCK_STREAM, 0, unixSignalSockets) != 0) {
        qFatal("Couldn't create HUP socketpair");
    }
    signalNotifier = new QSocketNotifier(unixSignalSockets[1], QSocketNotifier::Read, this);
    connect(signalNotifier, &QSocketNotifier::activated, this, &NimbModuleBaseQT::unixSignalSlot);

    installHandler(SIGPIPE, SIG_IGN, 0);
    for (int signalNumber : {SIGHUP, SIGTERM, SIGINT}) {
        installHandler(signalNumber, &NimbModuleBaseQT::unixSignalHandler, SA_RESTART);
    }
    if (CBBLog::isDebugEnabled()) CBBLog::debug("NimbModuleBaseQT %s", name.c_str());
}

NimbModuleBaseQT::~NimbModuleBaseQT() {
    if (CBBLog::isDebugEnabled()) CBBLog::debug("~NimbModuleBaseQT %s", name.c_str());
}

void NimbModuleBaseQT::unixSignalHandler(int) {
    const char byte = 1;
    const ssize_t written = write(unixSignalSockets[0], &byte, 1);
    (void)written;  // a full socket already holds a pending request: nothing is lost
}

void NimbModuleBaseQT::unixSignalSlot() {
    signalNotifier->setEnabled(false);
    char byte = 0;
    const ssize_t got = read(unixSignalSockets[1], &byte, 1);
    (void)got;  // the notifier said a byte is there; its value carries nothing
    abort();
    signalNotifier->setEnabled(true);
}

void NimbModuleBaseQT::abort() {
    if (QCoreApplication::instance() != nullptr) QCoreApplication::exit(0);
}
