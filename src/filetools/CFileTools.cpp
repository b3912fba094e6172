// SPDX-License-Identifier: MIT
// The folder functions of CFileTools: install folder, data folders, user folders,
// temporary folders and files.
#include "CFileTools.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include "CRegistry.h"
#include "CStdPath.h"
#include "NimbSettingsKeys.h"
#include "SuiteFolders.h"

namespace fs = boost::filesystem;

namespace {

constexpr const char* kBinSubfolder = "bin";
constexpr const char* kLauncherName = "/NimbLauncher";
constexpr const char* kDefaultBinFolder = "/opt/pellix/nimb/bin";
constexpr char kTempFileTemplate[] = "/tmp/fileXXXXXX";
constexpr mode_t kSharedFolderMode = 0777;

std::optional<CStdStr> currentDirectory() {
    try {
        return CStdStr(fs::current_path().native());
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// The working directory at program load, before main() can change it.
const std::optional<CStdStr> g_startDirectory = currentDirectory();

bool existsNoThrow(const CStdStr& path) {
    boost::system::error_code ec;
    return fs::exists(fs::path(path), ec);
}

bool isDirectoryNoThrow(const CStdStr& path) {
    boost::system::error_code ec;
    return fs::is_directory(fs::path(path), ec);
}

}  // namespace

CStdStr CFileTools::getNimbBinFolderPath() {
    const boost::shared_ptr<CRegistry> registry = CRegistry::getInstance();
    if (!registry) {
        std::fprintf(stderr, "CFileTools: no settings store\n");
        std::abort();
    }
    CStdStr installDir;
    registry->ReadSettingImpl(NimbSettings::kSuiteKey, NimbSettings::kInstallDir, installDir);
    if (!installDir.empty()) return CStdPath::AppendPath(installDir, kBinSubfolder);
    return getNimbBinFolderPathLinux();
}

CStdStr CFileTools::getNimbBinFolderPathLinux() {
    const CStdStr processFolder = GetProcessBundleFolder();
    if (!processFolder.empty() && testNimbBinPath(processFolder)) return processFolder;
    if (testNimbBinPath(kDefaultBinFolder)) return kDefaultBinFolder;
    return CStdStr();
}

bool CFileTools::testNimbBinPath(CStdStr folder) {
    folder += kLauncherName;
    return existsNoThrow(folder);
}

CStdStr CFileTools::GetProcessBundleFolder() {
    char buffer[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof buffer);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof buffer) return CStdStr();
    const CStdStr executable(buffer, static_cast<size_t>(length));
    const size_t slash = executable.rfind('/');
    if (slash == std::string::npos) return CStdStr();
    return slash == 0 ? CStdStr("/") : CStdStr(executable.substr(0, slash));
}

CStdStr CFileTools::GetBinaryDirectory() {
    if (!g_startDirectory) throw std::logic_error("Failed to GetBinaryDirectory");
    return *g_startDirectory;
}

CStdStr CFileTools::GetCurrentWorkingDirectory() {
    std::optional<CStdStr> current = currentDirectory();
    if (!current) throw std::logic_error("Failed to GetCurrentWorkingDirectory");
    return *current;
}

CStdStr CFileTools::GetUserHomeFolder() {
    struct passwd entry {};
    struct passwd* found = nullptr;
    char buffer[4096];
    if (::getpwuid_r(::getuid(), &entry, buffer, sizeof buffer, &found) != 0 || !found) {
        return CStdStr();
    }
    CStdStr home;
    home.Format("%s", found->pw_dir);
    return home;
}

CStdStr CFileTools::GetLogsDirectory() { return CSuiteFolders::logsDirectory(); }

// A regular file where the data folder should be counts as existing, so nothing is
// created; the final folder test then fails with "Failed to create Nimb data folder".
CStdStr CFileTools::GetNimbDataFolder() {
    const CStdStr folder = CSuiteFolders::dataDirectory();
    if (!existsNoThrow(folder)) {
        try {
            fs::create_directory(fs::path(folder));
        } catch (const std::exception&) {
            throw std::logic_error("Failed to create " + folder + " folder");
        }
        if (::chmod(folder.c_str(), kSharedFolderMode) != 0) {
            throw std::logic_error("Couldn't set access rights on " + folder + "folder");
        }
    }
    if (!isDirectoryNoThrow(folder)) throw std::logic_error("Failed to create Nimb data folder");
    return folder;
}

// Anything but a folder at the path is in the way: creating it then fails and the
// reason names the obstacle.
CStdStr CFileTools::GetNimbDataSubFolder(const CStdStr& name) {
    const CStdStr folder = CStdPath::AppendPath(GetNimbDataFolder(), name);
    if (!isDirectoryNoThrow(folder)) {
        try {
            if (!fs::create_directory(fs::path(folder))) {
                throw std::runtime_error("a file of that name is in the way");
            }
        } catch (const std::exception& e) {
            CStdStr message;
            message.Format("Failed to create Nimb data subfolder: %s\n\t%s", e.what(),
                           folder.c_str());
            throw std::logic_error(message);
        }
        if (::chmod(folder.c_str(), kSharedFolderMode) != 0) {
            throw std::logic_error("Couldn't set access rights on Nimb data folder");
        }
    }
    return folder;
}

bool CFileTools::CreateDirectory(const CStdStr& path) {
    try {
        return fs::create_directories(fs::path(path));
    } catch (const std::exception& e) {
        std::printf("std::exception in CreateDirectory %s: %s\n", path.c_str(), e.what());
        std::fflush(stdout);
        return false;
    }
}

CStdStr CFileTools::resolveSpecialPath(const CStdStr& path) {
    const size_t open = path.find('%');
    if (open == std::string::npos) return path;
    const size_t close = path.find('%', open + 1);
    if (close == std::string::npos) return path;
    CStdStr token = path.substr(open + 1, close - open - 1);
    for (char& c : token) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    static const std::map<CStdStr, const char*> kFolders = {
        {"DESKTOP", "/Desktop"},     {"MYDOCUMENTS", "/Documents"}, {"MYMUSIC", "/Music"},
        {"MYPICTURES", "/Pictures"}, {"MYVIDEO", "/Videos"},        {"MYCOMPUTER", "/"},
    };
    CStdStr result = GetUserHomeFolder();
    const auto found = kFolders.find(token);
    if (found != kFolders.end()) result += found->second;
    return result;
}

CStdStr CFileTools::GetPathFromCSIDL(int /*id*/) { return CStdStr(); }

CStdStr CFileTools::getTmpFolder() {
    try {
        const char* tmpdir = std::getenv("TMPDIR");
        const CStdStr candidate(tmpdir ? tmpdir : "");
        if (!candidate.empty() && fs::is_directory(fs::path(candidate))) return candidate;
        if (fs::is_directory(fs::path("/var/tmp/"))) return "/var/tmp/";
    } catch (const std::exception&) {
        // An unreadable candidate falls through to the last resort.
    }
    return "/tmp";
}

CStdStr CFileTools::getTmpFolder(CStdStr sub) {
    CStdStr result = getTmpFolder();
    if (!result.empty() && result.back() != '/') result += '/';
    const size_t first = sub.find_first_not_of('/');
    if (first != std::string::npos) {
        sub = sub.substr(first, sub.find_last_not_of('/') - first + 1);
        result.AppendFormat("%s%c", sub.c_str(), '/');
    }
    CreateDirectory(result);
    try {
        if (!fs::is_directory(fs::path(result))) return CStdStr();
    } catch (const std::exception&) {
        return CStdStr();
    }
    return result;
}

CStdStr CFileTools::GenerateTempFilePath() {
    char name[sizeof kTempFileTemplate];
    std::memcpy(name, kTempFileTemplate, sizeof name);
    const int fd = ::mkstemp(name);
    if (fd < 0) return CStdStr();
    ::close(fd);
    DeleteFile(name);
    return name;
}

bool CFileTools::DeleteFile(const CStdStr& path) {
    try {
        return fs::remove(fs::path(path));
    } catch (const std::exception&) {
        // The entry stays where it is; the caller sees false.
        return false;
    }
}
