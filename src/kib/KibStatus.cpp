// SPDX-License-Identifier: MIT
#include "KibStatus.h"

const char* KibStatusText(int status) {
    for (const KibStatusEntry& entry : kKibStatusTable) {
        if (entry.code == status) return entry.text;
    }
    return "unknown status";
}
