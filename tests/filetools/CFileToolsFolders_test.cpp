// SPDX-License-Identifier: MIT
// The folder functions of CFileTools: install folder lookup, data folders and their
// failures, directory creation, special paths and temporary folders and files.
#include <cstring>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CFileTools.h"
#include "NimbTestSupport.h"

// Chmod on the path named here fails with EPERM; every other call goes through. The
// folder functions call chmod directly, so this definition takes their calls.
static std::string g_failChmodPath;

extern "C" int chmod(const char* path, mode_t mode) noexcept {
    if (!g_failChmodPath.empty() && g_failChmodPath == path) {
        errno = EPERM;
        return -1;
    }
    return ::fchmodat(AT_FDCWD, path, mode, 0);
}

namespace {

using namespace nimbtest;

class FolderTest : public ConfigHomeTest {
protected:
    void TearDown() override {
        g_failChmodPath.clear();
        ConfigHomeTest::TearDown();
    }

    static mode_t modeOf(const std::string& path) {
        struct stat info {};
        EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
        return info.st_mode & 07777;
    }

    // The message of the std::logic_error that `call` throws, or "" if none.
    template <typename Call>
    static std::string logicErrorOf(Call call) {
        try {
            call();
        } catch (const std::logic_error& e) {
            return e.what();
        }
        return "";
    }
};

std::string homeFromPasswordDatabase() {
    const passwd* entry = ::getpwuid(::getuid());
    return entry ? entry->pw_dir : "";
}

// ---- Install folder ----

TEST_F(FolderTest, InstallDirSettingIsJoinedWithBinWithoutExistenceTest) {
    setSuiteSetting("InstallDir", "/nowhere/nimb/");
    EXPECT_EQ(CFileTools::getNimbBinFolderPath(), "/nowhere/nimb/bin");
}

TEST_F(FolderTest, LauncherBesideTheExecutableMakesItsFolderTheInstallFolder) {
    const std::string bin = dir_ / "bin";
    ASSERT_TRUE(fs::create_directory(bin));
    const std::string program = bin + "/print_bin_folder";
    fs::copy_file(NIMB_PRINT_BIN_FOLDER, program);

    ChildResult without = runProgram({program}, dir_);
    ASSERT_EQ(without.exitCode(), 0) << without.errors;
    if (!CFileTools::testNimbBinPath("/opt/pellix/nimb/bin")) {
        EXPECT_EQ(without.output, "\n" + bin + "\n");
    }

    writeFile(bin + "/NimbLauncher", "");
    ChildResult with = runProgram({program}, dir_);
    ASSERT_EQ(with.exitCode(), 0) << with.errors;
    EXPECT_EQ(with.output, bin + "\n" + bin + "\n");
}

// ---- Process folders ----

TEST_F(FolderTest, WorkingDirectoriesAndHome) {
    const std::string start = CFileTools::GetBinaryDirectory();
    const std::string before = CFileTools::GetCurrentWorkingDirectory();
    ASSERT_EQ(::chdir(dir_.path().c_str()), 0);
    const std::string during = CFileTools::GetCurrentWorkingDirectory();
    EXPECT_EQ(CFileTools::GetBinaryDirectory(), start);  // the start folder stays
    ASSERT_EQ(::chdir(before.c_str()), 0);
    EXPECT_EQ(during, fs::canonical(dir_.path()).string());

    ScopedEnv home("HOME", "/nonexistent-home");
    EXPECT_EQ(CFileTools::GetUserHomeFolder(), homeFromPasswordDatabase());
    EXPECT_EQ(CFileTools::GetPathFromCSIDL(5), "");
}

// ---- Data folders ----

TEST_F(FolderTest, DataFolderIsCreatedOpenToAllAndAnExistingOneKeepsItsMode) {
    const std::string data = dir_ / "data";
    setSuiteSetting("DataDir", data);
    EXPECT_EQ(CFileTools::GetNimbDataFolder(), data);
    EXPECT_EQ(modeOf(data), 0777u);

    ASSERT_EQ(::chmod(data.c_str(), 0700), 0);
    EXPECT_EQ(CFileTools::GetNimbDataFolder(), data);
    EXPECT_EQ(modeOf(data), 0700u);

    EXPECT_EQ(CFileTools::GetNimbDataSubFolder("crash"), data + "/crash");
    EXPECT_EQ(modeOf(data + "/crash"), 0777u);
    EXPECT_EQ(CFileTools::GetNimbDataSubFolder("/crash"), data + "/crash");
}

TEST_F(FolderTest, DataFolderFailuresNameTheFolder) {
    const std::string orphan = dir_ / "missing/data";
    setSuiteSetting("DataDir", orphan);
    EXPECT_EQ(logicErrorOf([] { CFileTools::GetNimbDataFolder(); }),
              "Failed to create " + orphan + " folder");
    EXPECT_EQ(logicErrorOf([] { CFileTools::GetNimbDataSubFolder("x"); }),
              "Failed to create " + orphan + " folder");

    const std::string blocked = dir_ / "file";
    writeFile(blocked, "not a folder");
    setSuiteSetting("DataDir", blocked);
    EXPECT_EQ(logicErrorOf([] { CFileTools::GetNimbDataFolder(); }),
              "Failed to create Nimb data folder");

    const std::string locked = dir_ / "locked";
    g_failChmodPath = locked;
    setSuiteSetting("DataDir", locked);
    EXPECT_EQ(logicErrorOf([] { CFileTools::GetNimbDataFolder(); }),
              "Couldn't set access rights on " + locked + "folder");

    g_failChmodPath.clear();
    const std::string data = dir_ / "data";
    setSuiteSetting("DataDir", data);
    ASSERT_EQ(CFileTools::GetNimbDataFolder(), data);

    writeFile(data + "/taken", "");
    const std::string message = logicErrorOf([] { CFileTools::GetNimbDataSubFolder("taken"); });
    EXPECT_EQ(message.rfind("Failed to create Nimb data subfolder: ", 0), 0u) << message;
    EXPECT_NE(message.find("File exists"), std::string::npos) << message;
    const std::string tail = "\n\t" + data + "/taken";
    ASSERT_GT(message.size(), tail.size());
    EXPECT_EQ(message.substr(message.size() - tail.size()), tail);

    g_failChmodPath = data + "/locked";
    EXPECT_EQ(logicErrorOf([] { CFileTools::GetNimbDataSubFolder("locked"); }),
              "Couldn't set access rights on Nimb data folder");
}

// ---- Directory creation and removal ----

TEST_F(FolderTest, CreateDirectoryReportsFailuresOnStandardOutput) {
    const std::string nested = dir_ / "a/b/c";
    EXPECT_TRUE(CFileTools::CreateDirectory(nested));
    EXPECT_FALSE(CFileTools::CreateDirectory(nested));  // already there

    writeFile(dir_ / "plain", "");
    const std::string below = dir_ / "plain/sub";
    testing::internal::CaptureStdout();
    EXPECT_FALSE(CFileTools::CreateDirectory(below));
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string prefix = "std::exception in CreateDirectory " + below + ": ";
    EXPECT_EQ(out.rfind(prefix, 0), 0u) << out;
    EXPECT_EQ(out.back(), '\n');
}

// ---- Special paths ----

TEST_F(FolderTest, ResolveSpecialPathExpandsTheTokenAndDropsTheRest) {
    const std::string home = homeFromPasswordDatabase();
    const std::pair<const char*, std::string> cases[] = {
        {"/plain/path", "/plain/path"},
        {"%desktop%", home + "/Desktop"},
        {"%MYMUSIC%/Playlists", home + "/Music"},
        {"a/%MyDocuments%/b", home + "/Documents"},
        {"%MYCOMPUTER%", home + "/"},
        {"%Downloads%/x", home},
    };
    for (const auto& [path, resolved] : cases) {
        EXPECT_EQ(CFileTools::resolveSpecialPath(path), resolved) << path;
    }
}

// ---- Temporary folders and files ----

TEST_F(FolderTest, TmpFolderPrefersTmpdirThenVarTmpAndCreatesSubFolders) {
    {
        ScopedEnv tmpdir("TMPDIR", dir_.path());
        EXPECT_EQ(CFileTools::getTmpFolder(), dir_.path());
        // A sub folder is created and has one slash each side.
        EXPECT_EQ(CFileTools::getTmpFolder("//a/b//"), dir_.path() + "/a/b/");
        EXPECT_TRUE(fs::is_directory(dir_ / "a/b"));
        EXPECT_EQ(CFileTools::getTmpFolder("/"), dir_.path() + "/");
        writeFile(dir_ / "regular", "");
        testing::internal::CaptureStdout();
        EXPECT_EQ(CFileTools::getTmpFolder("regular/sub"), "");
        EXPECT_NE(testing::internal::GetCapturedStdout().find("std::exception in CreateDirectory"),
                  std::string::npos);
    }
    if (!fs::is_directory("/var/tmp/")) GTEST_SKIP() << "no /var/tmp here";
    {
        ScopedEnv tmpdir("TMPDIR", dir_ / "regular");
        EXPECT_EQ(CFileTools::getTmpFolder(), "/var/tmp/");
    }
    ScopedEnv tmpdir("TMPDIR", std::nullopt);
    EXPECT_EQ(CFileTools::getTmpFolder(), "/var/tmp/");
}

TEST_F(FolderTest, GenerateTempFilePathGivesFreshNamesWithoutFiles) {
    const std::string first = CFileTools::GenerateTempFilePath();
    EXPECT_EQ(first.rfind("/tmp/file", 0), 0u) << first;
    EXPECT_EQ(first.size(), std::strlen("/tmp/fileXXXXXX")) << first;
    EXPECT_FALSE(fs::exists(first)) << first;
    EXPECT_NE(CFileTools::GenerateTempFilePath(), first);
    EXPECT_FALSE(CFileTools::DeleteFile(first));
}

}  // namespace
