// SPDX-License-Identifier: MIT
// The module program's entry: answers "--help" and "--version"; otherwise builds the
// application object, creates the module through createNimbModuleInstance(), hands it
// the command line, runs the event loop until a signal ends it, then closes and deletes
// the module and the application object. The exit status is 0 in every case.
//
// Built twice: nimb_modulemain for modules without a user interface (this one), and,
// where Qt's widgets are installed, nimb_modulemain_gui (NIMB_MODULE_GUI) for modules
// that set g_nimbModuleRequiresQApplication.
#include <cstdio>
#include <cstring>
#include <vector>

#include <QCoreApplication>
#include <QDir>

#if NIMB_MODULE_GUI
#include <QApplication>
#endif

#include "CFileTools.h"
#include "NimbModuleBaseQT.h"
#include "NimbVersion.h"

namespace {

// The application object the module asked for. `argc` must outlive it.
QCoreApplication* createApplication(int& argc, char** argv) {
    if (!g_nimbModuleRequiresQApplication) return new QCoreApplication(argc, argv);
#if NIMB_MODULE_GUI
    // Modules run without a display: the offscreen platform unless one is named.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QCoreApplication* application = new QApplication(argc, argv);
    QCoreApplication::addLibraryPath(
        QDir::cleanPath(QString::fromUtf8(CFileTools::getNimbBinFolderPath().c_str())));
    return application;
#else
    qFatal("A module that needs a QApplication must link nimb_modulemain_gui");
#endif
}

}  // namespace

int main(int argc, char** argv) {
    // "--help" and "--version" as the only argument answer and exit; any other command
    // line is not interpreted and starts the module.
    if (nimbPrintVersionIfAsked(argc, argv, g_nimbModuleProgramName)) return 0;
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::fputs(g_nimbModuleUsage, stdout);
        return 0;
    }
    QCoreApplication* application = createApplication(argc, argv);
    std::vector<CStdStr> args(argv, argv + argc);

    NimbModuleBaseQT* module = createNimbModuleInstance();
    if (module->init(args)) {
        QCoreApplication::exec();  // its result is not the process's: the exit status is 0
        module->close();
    }
    delete module;
    delete application;
    return 0;
}
