// SPDX-License-Identifier: MIT
#include "DeviceLogHistoryFiles.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <unistd.h>

#include "DeviceLogHistory.h"

namespace DeviceLogHistoryFiles {

std::string errnoText(int error) {
    char buffer[256];
    return strerror_r(error, buffer, sizeof(buffer));
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool parseGeneration(const std::string& name, long long& movedAt, std::uint64_t& seq) {
    tm parts{};
    unsigned long long number = 0;
    int used = 0;
    if (sscanf(name.c_str(), "%4d%2d%2dT%2d%2d%2dZ-%llu%n", &parts.tm_year, &parts.tm_mon,
               &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &number, &used) != 7 ||
        static_cast<std::size_t>(used) != name.size()) {
        return false;
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    movedAt = timegm(&parts);
    seq = number;
    // Only the canonical spelling: one file, one name.
    return DeviceLogHistory::generationName(movedAt, seq) == name;
}

int openRegular(int dirFd, const std::string& name, struct stat& info) {
    const int fd = openat(dirFd, name.c_str(), kReadFlags);
    if (fd < 0) return -1;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        close(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

}  // namespace DeviceLogHistoryFiles
