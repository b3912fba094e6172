// SPDX-License-Identifier: MIT
// CFileTools as a file-system entry: attributes, name parts and folder listing.
#include <cerrno>
#include <climits>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "CFileTools.h"
#include "CStdPath.h"

namespace {

// Seconds since 1970 squeezed into the signed 32-bit field the entry keeps; times
// beyond 2038 (or before 1901) stay ordered by clamping to the ends of the range.
int32_t clampSeconds(int64_t seconds) {
    if (seconds > INT32_MAX) return INT32_MAX;
    if (seconds < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(seconds);
}

// Closes a directory stream when it goes out of scope.
class DirectoryStream {
public:
    explicit DirectoryStream(const char* path) : dir_(::opendir(path)) {}
    DirectoryStream(const DirectoryStream&) = delete;
    DirectoryStream& operator=(const DirectoryStream&) = delete;
    ~DirectoryStream() {
        if (dir_) ::closedir(dir_);
    }
    DIR* get() const { return dir_; }

private:
    DIR* dir_ = nullptr;
};

}  // namespace

CFileTools::CFileTools(const CStdStr& path) : path_(path) { refresh(); }

CFileTools::CFileTools(const CStdStr& folder, const CStdStr& name)
    : path_(CStdPath::AppendPath(folder, name)) {
    refresh();
}

void CFileTools::refresh() {
    struct statx info {};
    const unsigned mask = STATX_BASIC_STATS | STATX_BTIME;
    if (path_.empty() || ::statx(AT_FDCWD, path_.c_str(), 0, mask, &info) != 0) {
        noAttributes_ = true;
        folder_ = false;
        size_ = 0;
        deviceMajor_ = deviceMinor_ = 0;
        created_ = modified_ = accessed_ = 0;
        return;
    }
    noAttributes_ = false;
    folder_ = S_ISDIR(info.stx_mode);
    size_ = folder_ ? 0 : info.stx_size;
    deviceMajor_ = info.stx_dev_major;
    deviceMinor_ = info.stx_dev_minor;
    const bool hasBirthTime = (info.stx_mask & STATX_BTIME) != 0;
    created_ = clampSeconds(hasBirthTime ? info.stx_btime.tv_sec : info.stx_ctime.tv_sec);
    modified_ = clampSeconds(info.stx_mtime.tv_sec);
    accessed_ = clampSeconds(info.stx_atime.tv_sec);
}

CStdStr CFileTools::getDisplayName() const {
    const size_t end = path_.find_last_not_of('/');
    if (end == std::string::npos) return path_.empty() ? CStdStr() : CStdStr("/");
    const size_t slash = path_.rfind('/', end);
    const size_t start = slash == std::string::npos ? 0 : slash + 1;
    return path_.substr(start, end - start + 1);
}

CStdStr CFileTools::getExtension() const {
    const CStdStr name = getDisplayName();
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) return CStdStr();
    return name.substr(dot + 1);
}

CStdStr CFileTools::getDirectory() const {
    const size_t end = path_.find_last_not_of('/');
    if (end == std::string::npos) return path_.empty() ? CStdStr(".") : CStdStr("/");
    const size_t slash = path_.rfind('/', end);
    if (slash == std::string::npos) return ".";
    const size_t folderEnd = path_.find_last_not_of('/', slash);
    if (folderEnd == std::string::npos) return "/";
    return path_.substr(0, folderEnd + 1);
}

CStdStr CFileTools::getMediumId() const {
    CStdStr id;
    if (!noAttributes_) id.Format("%u:%u", deviceMajor_, deviceMinor_);
    return id;
}

bool CFileTools::EnumerateFolder(const CStdStr& folder, EntryList& entries, int* error) {
    DirectoryStream stream(folder.c_str());
    if (!stream.get()) {
        if (error) *error = errno;
        return false;
    }
    errno = 0;
    while (const dirent* item = ::readdir(stream.get())) {
        if (std::strcmp(item->d_name, ".") != 0 && std::strcmp(item->d_name, "..") != 0) {
            entries.push_back(std::make_unique<CFileTools>(folder, item->d_name));
        }
        errno = 0;
    }
    if (errno != 0) {
        if (error) *error = errno;
        return false;
    }
    return true;
}

std::vector<CFileTools*> CFileTools::borrowEntries(const EntryList& entries) {
    std::vector<CFileTools*> borrowed;
    borrowed.reserve(entries.size());
    for (const std::unique_ptr<CFileTools>& entry : entries) borrowed.push_back(entry.get());
    return borrowed;
}
