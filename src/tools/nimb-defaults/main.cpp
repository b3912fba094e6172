// SPDX-License-Identifier: MIT
// nimb-defaults: reads and changes the suite's settings store from the command line.
#include <iostream>
#include <string>
#include <vector>

#include "DefaultsTool.h"
#include "NimbVersion.h"

int main(int argc, char** argv) {
    if (nimbPrintVersionIfAsked(argc, argv, "nimb-defaults")) return 0;
    const std::vector<std::string> args(argv + 1, argv + argc);
    DefaultsTool tool(std::cout, std::cerr);
    const int status = tool.run(args);
    std::cout.flush();
    return status;
}
