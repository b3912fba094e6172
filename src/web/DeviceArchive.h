// SPDX-License-Identifier: MIT
// DeviceArchive: all of one device's log files as one gzip-compressed tar archive,
// written with libarchive into a file the caller owns (so memory does not grow with
// the logs). Stateless; any thread.
#pragma once

#include <string>
#include <vector>

namespace DeviceArchive {

// Writes the files (plain names in `folder`; each ".back" before its current file, as
// given) into `outFd` as .tar.gz, each member with its file's permission bits and
// modification time. Files that are not plain regular files are skipped.
// Returns "" or the reason it failed.
std::string write(const std::string& folder, const std::vector<std::string>& files, int outFd);

}  // namespace DeviceArchive
