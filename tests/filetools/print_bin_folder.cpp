// SPDX-License-Identifier: MIT
// Prints the install folder and the executable's folder as this program sees them,
// one per line; the folder tests copy it next to (or away from) a launcher file.
#include <iostream>

#include "CFileTools.h"

int main() {
    std::cout << CFileTools::getNimbBinFolderPath() << '\n'
              << CFileTools::GetProcessBundleFolder() << '\n';
    return 0;
}
