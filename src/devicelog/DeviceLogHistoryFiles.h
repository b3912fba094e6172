// SPDX-License-Identifier: MIT
// DeviceLogHistoryFiles: the file rules the history's parts share: how folders and
// files inside the history are opened (never through a link, never blocking on a FIFO),
// and the names of generations. Internal to the device-log library; pure functions,
// any thread.
#pragma once

#include <cstdint>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

namespace DeviceLogHistoryFiles {

// A folder of the history: a link is refused (ELOOP).
constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// A file of the history for reading: a link is refused and a FIFO does not block.
constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// strerror_r's text for `error`.
std::string errnoText(int error);

bool endsWith(const std::string& text, const std::string& suffix);

// Parses a generation's name (DeviceLogHistory::generationName's form, spelt exactly
// so); false for any other name.
bool parseGeneration(const std::string& name, long long& movedAt, std::uint64_t& seq);

// Opens the regular file `name` of the folder `dirFd` for reading, filling `info`; -1
// with errno set (EINVAL: not a regular file, ELOOP: a link).
int openRegular(int dirFd, const std::string& name, struct stat& info);

}  // namespace DeviceLogHistoryFiles
