// SPDX-License-Identifier: MIT
// SafeFolder: the only way the web console reaches a file. A file is served only when
// its name is one plain component of a known folder and it is a regular file there,
// reached without following a symbolic link; FIFOs and device files are refused
// without ever being opened in a way that could block. Stateless; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/stat.h>

// Owns one file descriptor; closes it on destruction.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    ~UniqueFd();

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release();

private:
    int fd_ = -1;
};

namespace SafeFolder {

// A regular file directly inside a folder.
struct Entry {
    std::string name;
    std::uint64_t size = 0;
    std::int64_t mtime = 0;  // seconds since 1970
    std::uint64_t inode = 0;
};

// Whether `name` may be looked up inside a folder: 1 to 255 bytes, no "/", "\" or NUL,
// not starting with "." (so neither "." nor ".." nor hidden files).
bool isPlainName(const std::string& name);

// Opens `name` inside `folder` read-only when it is a plain name of a regular file
// that is not a symbolic link; fills `info` (may be null). An invalid fd otherwise.
UniqueFd openRegular(const std::string& folder, const std::string& name, struct stat* info);

// The regular files directly inside `folder` with plain names (links, FIFOs, devices
// and folders left out), in no particular order. Empty when the folder cannot be read.
std::vector<Entry> listRegular(const std::string& folder);

// Reads up to `length` bytes at `offset` into `out` (replacing it). False on a read
// error; a short read at the end of the file is not an error.
bool readAt(int fd, std::uint64_t offset, std::size_t length, std::string& out);

}  // namespace SafeFolder
