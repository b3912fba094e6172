// SPDX-License-Identifier: MIT
// The module program's entry: builds the application object, creates the module through
// createNimbModuleInstance(), hands it the command line, runs the event loop until a
// signal ends it, then closes and deletes the module and the application object. The
// exit status is 0 in every case.
#include <QCoreApplication>
#include <QDir>
#include <vector>

#include "CFileTools.h"
#include "NimbModuleBaseQT.h"

int main(int argc, char** argv) {
    // Modules of this port run without a display: a module that asks for a GUI
    // application still gets the core application object (GUI classes would need a
    // platform plug-in), and the install folder is added to the plug-in path for it.
    QCoreApplication* application = new QCoreApplication(argc, argv);
    if (g_nimbModuleRequiresQApplication) {
        QCoreApplication::addLibraryPath(
            QDir::cleanPath(QString::fromUtf8(CFileTools::getNimbBinFolderPath().c_str())));
    }
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
