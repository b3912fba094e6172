// SPDX-License-Identifier: MIT
// The collector program: the module host's entry with NimbRemoteLogger as its module.
#include "NimbRemoteLogger.h"

bool g_nimbModuleRequiresQApplication = false;

NimbModuleBaseQT* createNimbModuleInstance() { return new NimbRemoteLogger(); }
