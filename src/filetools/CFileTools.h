// SPDX-License-Identifier: MIT
// CFileTools: the suite's shared file helper. Its static functions say where things
// live (install folder, data and logs folders, user and temporary folders); an
// instance is one file-system entry of a listing (name, size, dates, medium), which
// can be ordered by a browser sort key and asked for named fields as text.
// An entry is a plain value owned by whoever creates it; its attributes are read once,
// at construction (refresh() reads them again). One entry must not be used by two
// threads at once; the static functions may be called from any thread.
// Errors: the folder look-ups that must produce a folder throw std::logic_error with a
// fixed text when they cannot (each says so below); an entry's attribute that cannot be
// read is a zero or empty value, and a missing file never throws.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "StdString.h"

class CFileTools {
public:
    // Owner of the entries of a listing.
    using EntryList = std::vector<std::unique_ptr<CFileTools>>;

    // The entry at `path`, taken as given (not made absolute). Reads its attributes;
    // when they cannot be read the no-attributes flag is set.
    explicit CFileTools(const CStdStr& path);
    // The entry `name` inside `folder` (joined with one "/").
    CFileTools(const CStdStr& folder, const CStdStr& name);
    CFileTools(const CFileTools&) = default;
    CFileTools(CFileTools&&) noexcept = default;
    CFileTools& operator=(const CFileTools&) = default;
    CFileTools& operator=(CFileTools&&) noexcept = default;
    virtual ~CFileTools() = default;

    // ---- Install, data, user and temporary folders (static, stateless) ----

    // The suite's install folder (where the executables and "NimbLauncher" live):
    // the string setting "InstallDir" under "Software\Pellix\Nimb" joined with "bin"
    // (not tested for existence), else getNimbBinFolderPathLinux(). Aborts the
    // process when the settings store is missing (a programming error).
    static CStdStr getNimbBinFolderPath();
    // The install folder found without settings: the running executable's folder if
    // it holds "NimbLauncher", else "/opt/pellix/nimb/bin" if that holds it, else "".
    static CStdStr getNimbBinFolderPathLinux();
    // The same lookup under the name the suite's other platforms use.
    static CStdStr getNimbBinFolderPathMac() { return getNimbBinFolderPathLinux(); }
    // True when `folder` + "/NimbLauncher" exists (file or folder).
    static bool testNimbBinPath(CStdStr folder);
    // The folder of the running executable (from /proc/self/exe), without a trailing
    // "/"; empty when the link cannot be read. Re-entrant.
    static CStdStr GetProcessBundleFolder();
    // The working directory the process started in (captured when the program is
    // loaded). Throws std::logic_error("Failed to GetBinaryDirectory") when it could
    // not be read.
    static CStdStr GetBinaryDirectory();
    // The current working directory. Throws
    // std::logic_error("Failed to GetCurrentWorkingDirectory") on failure.
    static CStdStr GetCurrentWorkingDirectory();
    // The current user's home folder from the password database (HOME is not read);
    // empty when the user has no entry.
    static CStdStr GetUserHomeFolder();
    // The logs folder ("/var/log/pellix" or the "LogsDir" setting). Not created.
    static CStdStr GetLogsDirectory();
    // The machine-wide data folder ("/var/lib/pellix" or the "DataDir" setting),
    // created with mode 0777 when missing; an existing folder keeps its mode. Throws
    // std::logic_error when it cannot be created ("Failed to create <folder> folder"),
    // when its mode cannot be set ("Couldn't set access rights on <folder>folder"), or
    // when no folder is there afterwards ("Failed to create Nimb data folder").
    static CStdStr GetNimbDataFolder();
    // The data folder joined with `name`, created (one level, mode 0777) unless it is
    // already a folder. Throws what GetNimbDataFolder throws, and std::logic_error
    // "Failed to create Nimb data subfolder: <reason>\n\t<path>" or
    // "Couldn't set access rights on Nimb data folder".
    static CStdStr GetNimbDataSubFolder(const CStdStr& name);
    // Creates `path` and every missing parent. True when something was created, false
    // when it already existed or on failure; a failure is reported on standard output
    // as "std::exception in CreateDirectory <path>: <reason>". Never throws.
    static bool CreateDirectory(const CStdStr& path);
    // Expands a special-folder token between the first two "%" signs (DESKTOP,
    // MYDOCUMENTS, MYMUSIC, MYPICTURES, MYVIDEO, MYCOMPUTER; any case) into the home
    // folder plus the matching folder; an unknown token gives the home folder. Text
    // around the token is dropped. A path without two "%" is returned unchanged.
    static CStdStr resolveSpecialPath(const CStdStr& path);
    // Numeric special-folder ids mean nothing here: always "".
    static CStdStr GetPathFromCSIDL(int id);
    // The temporary folder: TMPDIR when it names a folder (as written), else
    // "/var/tmp/", else "/tmp". The three forms differ in their trailing "/".
    static CStdStr getTmpFolder();
    // The folder `sub` (its leading and trailing "/" stripped) inside the temporary
    // folder, created, with a trailing "/"; "" when it is not a folder afterwards.
    // An empty `sub` gives the temporary folder itself.
    static CStdStr getTmpFolder(CStdStr sub);
    // A name "/tmp/fileXXXXXX" that was unique when generated; no file has it on
    // return. "" when no name could be made.
    static CStdStr GenerateTempFilePath();
    // Removes the file or empty folder at `path`. True when something was removed;
    // failures are swallowed (false).
    static bool DeleteFile(const CStdStr& path);

    // ---- Listing ----

    // Appends one entry per item of `folder` ("." and ".." left out, in the order the
    // file system gives) to `entries`; the caller owns them through the list. Returns
    // false and sets `*error` (an errno value) when the folder cannot be read.
    static bool EnumerateFolder(const CStdStr& folder, EntryList& entries, int* error = nullptr);
    // Borrowed pointers to the entries of `entries`, in the same order, for SortFiles.
    static std::vector<CFileTools*> borrowEntries(const EntryList& entries);

    // ---- Sorting and fields ----

    // Sorts `entries` (borrowed) in place by `sortKey` ("title:asc", "size:desc", ...;
    // text from a "," at a position above 0 on is ignored). Folders always come first.
    // Returns false for an unknown key, after sorting by "title:asc". Unstable.
    static bool SortFiles(std::vector<CFileTools*>& entries, const CStdStr& sortKey);
    // The entry's value of the named field ("title", "size", "lastModified", ...);
    // "" for an unknown field. Size and date fields are "" under the no-attributes
    // flag. Dates are local time "YYYY-MM-DD hh:mm:ss".
    CStdStr getFieldValue(const CStdStr& field) const;
    // The recognised sort keys and field names, in documentation order.
    static const std::vector<const char*>& sortKeyNames();
    static const std::vector<const char*>& fieldNames();

    // Lower-case extension with a leading "." -> media-type word ("audio", "video",
    // "image", "text"). getFieldValue("mediaType") adds a missing extension with an
    // empty value (under an internal lock); touch the map directly only before other
    // threads use getFieldValue.
    static std::map<CStdStr, CStdStr> s_extensionMediaTypeMap;

    // ---- Entry accessors (what each returns on Linux) ----

    // Whether the entry is a folder (a symbolic link is followed). False without
    // attributes.
    virtual bool isFolder() const { return folder_; }
    // The last path component ("/" for the root).
    virtual CStdStr getDisplayName() const;
    // The text after the last "." of the display name, without the "."; "" when there
    // is none or the only "." starts the name (".profile").
    virtual CStdStr getExtension() const;
    // The folder holding the entry, without a trailing "/" ("/" for a top-level
    // entry, "." for a bare name).
    virtual CStdStr getDirectory() const;
    // The path as constructed.
    virtual CStdStr getPath() const { return path_; }
    // The device of the file system holding the entry, "major:minor" in decimal
    // (as /proc/self/mountinfo writes it); stable while the medium is mounted. ""
    // without attributes.
    virtual CStdStr getMediumId() const;
    // Size in bytes of a file; 0 for a folder and without attributes.
    virtual uint64_t getFileSize() const { return size_; }
    // Seconds since 1970: the birth time where the file system records it, else the
    // status-change time. Times outside the signed 32-bit range are clamped to it.
    virtual int32_t getDateCreated() const { return created_; }
    // Modification time, seconds since 1970 (clamped as above).
    virtual int32_t getLastModified() const { return modified_; }
    // Access time, seconds since 1970 (clamped as above).
    virtual int32_t getLastAccessed() const { return accessed_; }
    // Set when the attributes could not be read (missing entry, no permission).
    bool hasNoAttributes() const { return noAttributes_; }
    void setNoAttributes(bool noAttributes) { noAttributes_ = noAttributes; }
    // Reads the attributes again.
    void refresh();

private:
    CStdStr dateField(int32_t seconds) const;
    CStdStr mediaTypeField() const;

    // Immutable after construction
    CStdStr path_;
    // Attributes, read by refresh()
    bool noAttributes_ = true;
    bool folder_ = false;
    uint64_t size_ = 0;
    uint32_t deviceMajor_ = 0;
    uint32_t deviceMinor_ = 0;
    int32_t created_ = 0;
    int32_t modified_ = 0;
    int32_t accessed_ = 0;
};
