// SPDX-License-Identifier: MIT
// A second process for the settings tests.
//   settings_helper read-int|read-string|read-bool KEY NAME   prints the value
//   settings_helper write-many KEY PREFIX COUNT               PREFIX<i> = i, i < COUNT
// Exit status: 0 done, 1 value missing or write refused, 2 bad arguments.
#include <cstdio>
#include <cstdlib>

#include "CRegistryImpl.h"

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) return 2;
    const CStdStr command(argv[1]);
    CRegistryImpl registry;
    if (command == "write-many" && argc == 5) {
        for (int i = 0; i < atoi(argv[4]); ++i) {
            CStdStr name;
            name.Format("%s%d", argv[3], i);
            if (!registry.WriteSettingImpl(argv[2], name, i)) return 1;
        }
        return 0;
    }
    CStdStr text;
    int number = 0;
    bool flag = false;
    if (command == "read-int" && registry.ReadSettingImpl(argv[2], argv[3], number)) {
        printf("%d", number);
    } else if (command == "read-string" && registry.ReadSettingImpl(argv[2], argv[3], text)) {
        fputs(text.c_str(), stdout);
    } else if (command == "read-bool" && registry.ReadSettingImpl(argv[2], argv[3], flag)) {
        fputs(flag ? "true" : "false", stdout);
    } else {
        return 1;
    }
    return 0;
}
