// SPDX-License-Identifier: MIT
// Test support for tests that run child programs and read their dumps: the shared
// fixtures, a temporary folder that hands out filesystem paths, and helpers to find
// dumps and to capture a tool's output. Used by the dump manager's, the crash
// reporter's and the module host's tests, on the test's thread.
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "NimbTestSupport.h"

namespace crashtest {

using namespace nimbtest;

// A fresh temporary folder, removed on destruction.
class TempFolder : public TempDir {
public:
    fs::path path() const { return TempDir::path(); }
};

inline std::vector<std::string> readLines(const fs::path& path) { return linesOf(readFile(path)); }

// Files in `folder` whose names end in `extension`, sorted.
inline std::vector<fs::path> filesWithExtension(const fs::path& folder,
                                                const std::string& extension) {
    std::vector<fs::path> found;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().extension() == extension) found.push_back(it->path());
    }
    std::sort(found.begin(), found.end());
    return found;
}

// Standard output of `program args...` (bounded in time), whatever its exit status
// (minidump_dump reports 1 for dumps it reads in full); empty when it overran.
inline std::string captureOutput(const fs::path& scratch, const std::vector<std::string>& argv) {
    const fs::path out = scratch / "capture.txt";
    const ChildResult run = runChild(argv, {}, out, false);
    std::error_code ec;
    fs::remove(out, ec);
    return run.finished ? run.output : std::string();
}

}  // namespace crashtest
