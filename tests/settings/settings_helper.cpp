// SPDX-License-Identifier: MIT
// A second process for the settings tests: writes or reads one value through the
// store so that tests can check what survives a process boundary.
//   settings_helper write-int|write-string KEY NAME VALUE
//   settings_helper write-bool DOMAIN NAME 0|1
//   settings_helper read-int|read-string KEY NAME     (prints the value)
//   settings_helper read-bool DOMAIN NAME             (prints 0 or 1)
//   settings_helper write-many KEY PREFIX COUNT       (PREFIX0 .. PREFIX<COUNT-1> = index)
// Exit status: 0 done, 1 value missing or write refused, 2 bad arguments.
#include <QVariant>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "CRegistryImpl.h"
#include "CSettingsDomain.h"

namespace {

int writeMany(CRegistryImpl& registry, const char* key, const char* prefix, int count) {
    for (int i = 0; i < count; ++i) {
        CStdStr name;
        name.Format("%s%d", prefix, i);
        if (!registry.WriteSettingImpl(key, name, i)) return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) return 2;
    const CStdStr command(argv[1]);
    CRegistryImpl registry;
    if (argc == 5) {
        const char* value = argv[4];
        if (command == "write-int")
            return registry.WriteSettingImpl(argv[2], argv[3], atoi(value)) ? 0 : 1;
        if (command == "write-string")
            return registry.WriteSettingImpl(argv[2], argv[3], CStdStr(value)) ? 0 : 1;
        if (command == "write-bool") {
            return CSettingsDomain(argv[2]).setValue(argv[3],
                                                     QVariant(std::strcmp(value, "1") == 0))
                       ? 0
                       : 1;
        }
        if (command == "write-many") return writeMany(registry, argv[2], argv[3], atoi(value));
        return 2;
    }
    if (command == "read-int") {
        int value = 0;
        if (!registry.ReadSettingImpl(argv[2], argv[3], value)) return 1;
        printf("%d", value);
        return 0;
    }
    if (command == "read-string") {
        CStdStr value;
        if (!registry.ReadSettingImpl(argv[2], argv[3], value)) return 1;
        fwrite(value.data(), 1, value.size(), stdout);
        return 0;
    }
    if (command == "read-bool") {
        bool value = false;
        if (!registry.ReadSettingImpl(argv[2], argv[3], value)) return 1;
        printf("%d", value ? 1 : 0);
        return 0;
    }
    return 2;
}
