// SPDX-License-Identifier: MIT
// What other processes and users do to the logs folder: files planted at a log's name
// or its backup's, and the modes and group of the files.
#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CBBLog.h"
#include "LogTestSupport.h"

namespace {

using logtest::addAndWait;
using logtest::LogTest;
using logtest::Outcome;
using logtest::readFile;
using logtest::waitUntil;
using logtest::writeFile;

namespace fs = std::filesystem;

mode_t modeOf(const std::string& path) {
    struct stat info {};
    return lstat(path.c_str(), &info) == 0 ? info.st_mode : 0;
}

TEST_F(LogTest, SomethingOtherThanAFilePlantedAtALogsNameIsNeverOpenedNorChanged) {
    fs::create_directories(logsDir());
    const std::string outside = root() + "/outside.txt";
    writeFile(outside, "not the logger's\n");
    chmod(outside.c_str(), 0600);
    int reader = -1;
    const struct {
        const char* name;
        std::function<bool(const std::string&)> plant;
    } cases[] = {
        {"symlink.log",
         [&](const std::string& p) { return symlink(outside.c_str(), p.c_str()) == 0; }},
        {"fifo.log", [](const std::string& p) { return mkfifo(p.c_str(), 0666) == 0; }},
        {"fifo-with-reader.log",
         [&](const std::string& p) {
             if (mkfifo(p.c_str(), 0666) != 0) return false;
             reader = open(p.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
             return reader != -1;
         }},
        {"folder.log", [](const std::string& p) { return mkdir(p.c_str(), 0755) == 0; }},
        {"device.log",
         [](const std::string& p) { return mknod(p.c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = logFile(c.name);
        if (!c.plant(path)) {
            // Making device nodes needs a privilege that containers often withhold.
            EXPECT_EQ(std::string(c.name), "device.log") << strerror(errno);
            continue;
        }
        const mode_t before = modeOf(path);
        Outcome outcome;
        {
            CBBLog log(c.name, false, 1 << 20);
            addAndWait(log, "text\n", outcome);
        }
        EXPECT_NE(outcome.error, 0);
        EXPECT_EQ(outcome.message.rfind("cannot open '" + path + "': not a regular file (", 0), 0u)
            << outcome.message;
        EXPECT_EQ(modeOf(path), before);
    }
    if (reader != -1) close(reader);
    EXPECT_EQ(readFile(outside), "not the logger's\n");
    EXPECT_EQ(modeOf(outside) & 07777, 0600u);
}

TEST_F(LogTest, RotationReplacesALinkAtTheBackupNameAndBacksOffFromAFolderThere) {
    fs::create_directories(logsDir());
    const std::string outside = root() + "/outside.txt";
    writeFile(outside, "not the logger's\n");
    const std::string line(99, 'r');
    {
        // A symbolic link at the backup name is replaced by the rotated file, not followed.
        symlink(outside.c_str(), logFile("linked.log.back").c_str());
        CBBLog log("linked.log", false, 100);
        for (int i = 0; i < 2; ++i) {
            Outcome outcome;
            addAndWait(log, line + "\n", outcome);
            EXPECT_EQ(outcome.error, 0);
        }
    }
    EXPECT_TRUE(S_ISREG(modeOf(logFile("linked.log.back"))));
    EXPECT_EQ(readFile(logFile("linked.log.back")), line + "\n");
    EXPECT_EQ(readFile(outside), "not the logger's\n");

    // A folder at the backup name: the rotation fails, the lines go on into the file and
    // errors.log says why.
    fs::create_directories(logFile("blocked.log.back") + "/inside");
    {
        CBBLog log("blocked.log", false, 100);
        for (int i = 0; i < 3; ++i) {
            Outcome outcome;
            addAndWait(log, line + "\n", outcome);
            EXPECT_EQ(outcome.error, 0);
        }
    }
    EXPECT_EQ(readFile(logFile("blocked.log")).size(), 300u);
    EXPECT_NE(readFile(logFile("errors.log"))
                  .find("[ERROR] - blocked - cannot rotate '" + logFile("blocked.log") + "' to '" +
                        logFile("blocked.log.back") + "': Is a directory; appending to it"),
              std::string::npos)
        << readFile(logFile("errors.log"));
}

TEST_F(LogTest, CreatedFilesAreSharedWithTheGroupOnlyAndOthersKeepTheirMode) {
    fs::create_directories(logsDir());
    writeFile(logFile("existing.log"), "");
    chmod(logFile("existing.log").c_str(), 0604);
    {
        CBBLog created("created.log", false, 1 << 20);
        CBBLog existing("existing.log", false, 1 << 20);
        Outcome one;
        Outcome two;
        addAndWait(created, "text\n", one);
        addAndWait(existing, "text\n", two);
    }
    EXPECT_EQ(modeOf(logFile("created.log")) & 07777, 0660u);
    EXPECT_EQ(modeOf(logFile("errors.log")) & 07777, 0660u);
    EXPECT_EQ(modeOf(logFile("existing.log")) & 07777, 0604u);
    struct stat info {};
    ASSERT_EQ(stat(logFile("created.log").c_str(), &info), 0);
    const group* suite = getgrnam(CBBLog::kFileGroup);
    EXPECT_EQ(info.st_gid, suite != nullptr ? suite->gr_gid : getegid());
}

}  // namespace
