// SPDX-License-Identifier: MIT
// CStdPath: path-text helpers shared by the folder and entry functions of CFileTools.
// Works on the text only (no file-system access). Stateless; any thread.
#pragma once

#include "StdString.h"

class CStdPath {
public:
    CStdPath() = delete;

    // Joins two path parts with exactly one "/" between them: trailing "/" of `base`
    // and leading "/" of `tail` are dropped before one "/" is put in. An empty part
    // yields the other one unchanged. The root stays a root: "/" + "a" gives "/a".
    static CStdStr AppendPath(const CStdStr& base, const CStdStr& tail);
};
