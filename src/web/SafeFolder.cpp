// SPDX-License-Identifier: MIT
#include "SafeFolder.h"

#include <cerrno>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = other.release();
    }
    return *this;
}

UniqueFd::~UniqueFd() {
    if (fd_ >= 0) ::close(fd_);
}

int UniqueFd::release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

namespace SafeFolder {

bool isPlainName(const std::string& name) {
    if (name.empty() || name.size() > 255 || name[0] == '.') return false;
    return name.find_first_of(std::string("/\\\0", 3)) == std::string::npos;
}

UniqueFd openRegular(const std::string& folder, const std::string& name, struct stat* info) {
    if (!isPlainName(name)) return UniqueFd();
    const UniqueFd dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.valid()) return UniqueFd();
    // Look before opening: a FIFO or device is never opened at all.
    struct stat before {};
    if (::fstatat(dir.get(), name.c_str(), &before, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(before.st_mode)) {
        return UniqueFd();
    }
    // O_NONBLOCK and O_NOFOLLOW cover a swap between the look and the open.
    UniqueFd fd(::openat(dir.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) return UniqueFd();
    struct stat after {};
    if (::fstat(fd.get(), &after) != 0 || !S_ISREG(after.st_mode) ||
        after.st_ino != before.st_ino || after.st_dev != before.st_dev) {
        return UniqueFd();
    }
    if (info != nullptr) *info = after;
    return fd;
}

std::vector<Entry> listRegular(const std::string& folder) {
    std::vector<Entry> entries;
    DIR* dir = ::opendir(folder.c_str());
    if (dir == nullptr) return entries;
    while (const dirent* item = ::readdir(dir)) {
        const std::string name = item->d_name;
        if (!isPlainName(name)) continue;
        struct stat st {};
        if (::fstatat(::dirfd(dir), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (!S_ISREG(st.st_mode)) continue;
        entries.push_back({name, static_cast<std::uint64_t>(st.st_size),
                           static_cast<std::int64_t>(st.st_mtim.tv_sec),
                           static_cast<std::uint64_t>(st.st_ino)});
    }
    ::closedir(dir);
    return entries;
}

bool readAt(int fd, std::uint64_t offset, std::size_t length, std::string& out) {
    out.resize(length);
    std::size_t done = 0;
    while (done < length) {
        const ssize_t n =
            ::pread(fd, out.data() + done, length - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            out.clear();
            return false;
        }
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    out.resize(done);
    return true;
}

}  // namespace SafeFolder
