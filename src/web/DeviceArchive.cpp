// SPDX-License-Identifier: MIT
#include "DeviceArchive.h"

#include <algorithm>
#include <memory>

#include <archive.h>
#include <archive_entry.h>

#include "SafeFolder.h"

namespace DeviceArchive {

namespace {

struct ArchiveDeleter {
    void operator()(archive* a) const { archive_write_free(a); }
};
struct EntryDeleter {
    void operator()(archive_entry* e) const { archive_entry_free(e); }
};

// Copies one open file into the archive as `name`.
std::string addFile(archive* out, const std::string& name, int fd, const struct stat& st) {
    const std::unique_ptr<archive_entry, EntryDeleter> entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_size(entry.get(), st.st_size);
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    // The file's own permission bits (0660 for the collector's files): unpacked, the
    // logs are no more readable than where they came from.
    archive_entry_set_perm(entry.get(), st.st_mode & 0777);
    archive_entry_set_mtime(entry.get(), st.st_mtim.tv_sec, 0);
    if (archive_write_header(out, entry.get()) != ARCHIVE_OK) return archive_error_string(out);
    std::string block;
    std::uint64_t offset = 0;
    const auto size = static_cast<std::uint64_t>(st.st_size);
    while (offset < size) {
        if (!SafeFolder::readAt(fd, offset, std::min<std::uint64_t>(256 * 1024, size - offset),
                                block))
            return "cannot read " + name;
        if (block.empty()) break;  // shrank underneath: the header's size is padded
        if (archive_write_data(out, block.data(), block.size()) < 0) {
            return archive_error_string(out);
        }
        offset += block.size();
    }
    return {};
}

}  // namespace

std::string write(const std::string& folder, const std::vector<std::string>& files, int outFd) {
    const std::unique_ptr<archive, ArchiveDeleter> out(archive_write_new());
    if (archive_write_add_filter_gzip(out.get()) != ARCHIVE_OK ||
        archive_write_set_format_pax_restricted(out.get()) != ARCHIVE_OK ||
        archive_write_open_fd(out.get(), outFd) != ARCHIVE_OK) {
        return archive_error_string(out.get());
    }
    for (const std::string& name : files) {
        struct stat st {};
        const UniqueFd fd = SafeFolder::openRegular(folder, name, &st);
        if (!fd.valid()) continue;
        const std::string error = addFile(out.get(), name, fd.get(), st);
        if (!error.empty()) return error;
    }
    if (archive_write_close(out.get()) != ARCHIVE_OK) return archive_error_string(out.get());
    return {};
}

}  // namespace DeviceArchive
