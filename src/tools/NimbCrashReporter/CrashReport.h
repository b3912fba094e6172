// SPDX-License-Identifier: MIT
// CrashReport: what the crash reporter does with one dump. Parses the reporter's two
// command-line forms, writes a readable report beside the dump (crash reason and the
// crashing thread's stack when minidump_stackwalk can read the dump, with function names
// and source lines where a symbol store has the modules' symbol files, else the basic
// facts) and keeps the dump folder from filling up. Plain functions over files; used by
// the reporter's main() on its only thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

struct CrashReportRequest {
    std::string dumpPath;
    std::string appName;
    std::string appData;                 // "-appData" form only
    std::vector<std::string> extraArgs;  // the long form's two extra fields
};

// The dump and its report kept per dump folder when the setting is missing.
constexpr std::size_t kDefaultKeptDumps = 10;

// Accepts `dump app`, `dump app -appData data` and `dump app arg1 arg2` (argv[0]
// excluded). Returns nothing and sets `error` for any other shape.
std::optional<CrashReportRequest> parseCrashReporterArguments(const std::vector<std::string>& args,
                                                              std::string* error);

// "<dump path without .dmp>.txt".
std::string reportPathFor(const std::string& dumpPath);

// What minidump_stackwalk's machine-readable output says about the crash.
struct StackwalkSummary {
    std::string reason;       // e.g. "SIGSEGV /SEGV_MAPERR"
    std::string address;      // e.g. "0x0"
    int crashingThread = -1;  // index in the dump's thread list
    int threadCount = 0;
    std::vector<std::string> frames;  // the crashing thread's frames, readable, innermost first
};

// Parses `minidump_stackwalk -m` output; nothing when it names no crash.
std::optional<StackwalkSummary> parseStackwalkOutput(const std::string& output);

// Runs `stackwalk -m dump [symbols]` (bounded in time) and returns its standard output;
// nothing when the program is missing, fails or overruns. `symbols` is a symbol store
// (<store>/<module>/<id>/<module>.sym) or empty for none.
std::optional<std::string> runStackwalk(const std::string& stackwalk, const std::string& dumpPath,
                                        const std::string& symbols = {});

// The report's text. `summary` may be empty (stackwalk not at hand or unreadable dump);
// `stackwalkNote` then says why. `symbols` is the store the stack was read with, if any.
std::string buildCrashReport(const CrashReportRequest& request,
                             const std::optional<StackwalkSummary>& summary,
                             const std::string& stackwalkNote, const std::string& symbols = {});

// Writes the report for `request` beside its dump, reading the stack with `stackwalk`
// and the symbol store `symbols` (either may be empty). Returns false with `error` set
// when the report file cannot be written.
bool writeCrashReport(const CrashReportRequest& request, const std::string& stackwalk,
                      const std::string& symbols, std::string* error);

// Removes the oldest dumps (names "<id>.dmp" as the dump handler makes them) beyond
// `keep`, and the oldest reports ("<id>.txt") beyond `keep`, in `folder`; other files
// are never touched. `keep` below 1 counts as 1. Returns the paths removed.
std::vector<std::string> pruneDumpFolder(const std::string& folder, std::size_t keep);
