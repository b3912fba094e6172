// SPDX-License-Identifier: MIT
// NimbCrashReporter: started by a crashed module's dump handler on its fresh minidump.
// Writes a readable report beside the dump and prunes old dumps and reports from the
// dump folder. The stack is read with minidump_stackwalk and the symbol store "symbols",
// both found beside this program (as the install and the build lay them out). Exit status: 0 done,
// 1 the report could not be written, 2 bad usage.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

#include "CRegistry.h"
#include "CrashReport.h"
#include "NimbSettingsKeys.h"
#include "NimbVersion.h"

namespace {

constexpr const char* kStackwalkName = "minidump_stackwalk";
constexpr const char* kSymbolsName = "symbols";

const char kHelp[] =
    "Usage: NimbCrashReporter <dump> <application> [-appData <data> | <argument> <argument>]\n"
    "       NimbCrashReporter --help | --version\n"
    "\n"
    "Started by a crashed program's dump handler on its fresh minidump: writes a readable\n"
    "report beside the dump (<dump without .dmp>.txt), with the stack read by\n"
    "minidump_stackwalk and the symbol store \"symbols\" found beside this program, then\n"
    "keeps the newest dumps and reports of the dump folder (setting CrashDumpsKept under\n"
    "Software\\Pellix\\Nimb).\n"
    "\n"
    "Exit status: 0 done, 1 the report could not be written, 2 bad usage.\n";

// The folder that holds this program; empty when unknown.
std::filesystem::path ownFolder() {
    std::error_code ec;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path() : self.parent_path();
}

// minidump_stackwalk beside this program, else the first one on PATH; empty when none.
std::string findStackwalk() {
    if (const auto folder = ownFolder(); !folder.empty()) {
        const auto beside = folder / kStackwalkName;
        if (access(beside.c_str(), X_OK) == 0) return beside.string();
    }
    const char* path = std::getenv("PATH");
    std::string folders = path != nullptr ? path : "";
    for (std::size_t start = 0; start <= folders.size();) {
        std::size_t colon = folders.find(':', start);
        if (colon == std::string::npos) colon = folders.size();
        const std::string folder = folders.substr(start, colon - start);
        if (!folder.empty()) {
            const std::string candidate = folder + "/" + kStackwalkName;
            if (access(candidate.c_str(), X_OK) == 0) return candidate;
        }
        start = colon + 1;
    }
    return {};
}

// The symbol store beside this program; empty when there is none.
std::string findSymbols() {
    const auto folder = ownFolder();
    std::error_code ec;
    if (folder.empty() || !std::filesystem::is_directory(folder / kSymbolsName, ec)) return {};
    return (folder / kSymbolsName).string();
}

// The "CrashDumpsKept" setting under "Software\Pellix\Nimb", else the default.
std::size_t keptDumps() {
    int kept = static_cast<int>(kDefaultKeptDumps);
    CRegistry::getInstance()->ReadSettingImpl(NimbSettings::kSuiteKey,
                                              NimbSettings::kCrashDumpsKept, kept);
    return kept > 0 ? static_cast<std::size_t>(kept) : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (nimbPrintVersionIfAsked(argc, argv, "NimbCrashReporter")) return 0;
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kHelp, stdout);
        return 0;
    }
    std::string error;
    const auto request =
        parseCrashReporterArguments(std::vector<std::string>(argv + 1, argv + argc), &error);
    if (!request) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 2;
    }
    const bool written = writeCrashReport(*request, findStackwalk(), findSymbols(), &error);
    if (written) {
        std::printf("crash report for %s written to %s\n", request->appName.c_str(),
                    reportPathFor(request->dumpPath).c_str());
    } else {
        std::fprintf(stderr, "%s\n", error.c_str());
    }
    const auto folder = std::filesystem::path(request->dumpPath).parent_path();
    pruneDumpFolder(folder.empty() ? "." : folder.string(), keptDumps());
    return written ? 0 : 1;
}
