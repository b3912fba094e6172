// SPDX-License-Identifier: MIT
// The device-log history: a kept generation compresses into frames that the zstd tool
// and read() both give back whole, at a ratio worth the work on log text; retention
// spares a quiet log's history when a chatty one fills the budget, honours the age limit
// and the free-space floor; a compression cut short at any moment leaves the text
// whole, and start-up tidies what it left; nothing is followed through a link.

#include "DeviceLogHistory.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include "CBBLog.h"
#include "CRegistry.h"
#include "DeviceLogHistoryFrames.h"
#include "DeviceLogTrigrams.h"
#include "LogCorpus.h"
#include "NimbSettingsKeys.h"
#include "NimbTestSupport.h"

namespace {

namespace fs = std::filesystem;
using nimbtest::deviceCorpus;
using nimbtest::readFile;
using nimbtest::syslogCorpus;
using nimbtest::writeFile;

class DeviceLogHistoryTest : public nimbtest::ConfigHomeTest {
protected:
    DeviceLogHistory::Options options() const {
        DeviceLogHistory::Options result;
        result.logsDir = dir_ / "logs";
        result.minFreePercent = 0;  // the test machine's disk is not the subject
        return result;
    }
    // Writes `text` as the ".back" of `fileName` and hands it to the history.
    std::string keep(DeviceLogHistory& history, const std::string& fileName,
                     const std::string& text) const {
        const std::string back = dir_ / "logs" + "/" + fileName + ".back";
        writeFile(back, text);
        return history.keep(fileName, back);
    }
    std::string historyDir() const { return dir_ / "logs/history"; }
};

std::string zstdcat(const std::string& path) {
    std::string text;
    if (FILE* pipe = popen(("zstdcat -q '" + path + "' 2>/dev/null").c_str(), "r")) {
        char buffer[65536];
        std::size_t n;
        while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) text.append(buffer, n);
        pclose(pipe);
    }
    return text;
}

TEST_F(DeviceLogHistoryTest, KeptTextCompressesAndReadsBackWholeByZstdAndAtAnyOffset) {
    if (system("command -v zstdcat >/dev/null 2>&1") != 0) GTEST_SKIP() << "zstd is missing";
    struct Corpus {
        const char* name;
        std::string text;
    };
    const Corpus corpora[] = {{"syslog", syslogCorpus(2 << 20, 1)},
                              {"device", deviceCorpus(2 << 20, 2)}};
    DeviceLogHistory history(options());
    std::mt19937 rng(3);
    for (const Corpus& corpus : corpora) {
        const std::string fileName = std::string("0011223344") + corpus.name + "-main.log";
        const auto start = std::chrono::steady_clock::now();
        const std::string kept = keep(history, fileName, corpus.text);
        ASSERT_EQ(kept.rfind(historyDir() + "/" + fileName + "/", 0), 0u) << kept;
        EXPECT_FALSE(fs::exists(dir_ / "logs" + "/" + fileName + ".back"));
        history.drain();
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

        const std::vector<DeviceLogHistory::Entry> entries = history.list(fileName);
        ASSERT_EQ(entries.size(), 1u);
        const DeviceLogHistory::Entry& entry = entries[0];
        EXPECT_EQ(entry.path, kept + ".zst");
        EXPECT_FALSE(fs::exists(kept));
        EXPECT_EQ(entry.rawBytes, corpus.text.size());
        EXPECT_EQ(entry.compressedBytes, fs::file_size(entry.path));
        EXPECT_EQ(fs::status(entry.path).permissions(), fs::perms(0660));
        EXPECT_TRUE(zstdcat(entry.path) == corpus.text) << corpus.name;

        const double ratio = static_cast<double>(entry.rawBytes) / entry.compressedBytes;
        printf("[ ratio    ] %s text: %zu -> %llu bytes, %.2fx, kept and compressed in %.0f ms\n",
               corpus.name, corpus.text.size(),
               static_cast<unsigned long long>(entry.compressedBytes), ratio, seconds * 1000);
        EXPECT_GE(ratio, 8.0) << corpus.name;

        // Ranges anywhere, across frame boundaries and past the end, by either name.
        for (int i = 0; i < 40; ++i) {
            const std::uint64_t offset = rng() % (corpus.text.size() + 1000);
            const std::size_t length = 1 + rng() % 300000;
            std::string out = "x";
            std::string error;
            ASSERT_TRUE(history.read(i % 2 ? kept : entry.path, offset, length, out, error))
                << error;
            EXPECT_TRUE(out == "x" + (offset < corpus.text.size()
                                          ? corpus.text.substr(offset, length)
                                          : std::string()))
                << corpus.name << " offset " << offset << " length " << length;
        }
    }
    EXPECT_EQ(history.stats().compressedFiles, 2u);
}

TEST_F(DeviceLogHistoryTest, TheIndexCarriesAWordFilterAndFilesWithoutOneStillRead) {
    if (system("command -v zstdcat >/dev/null 2>&1") != 0) GTEST_SKIP() << "zstd is missing";
    const std::string text = deviceCorpus(512 * 1024, 4);
    DeviceLogHistory history(options());
    const std::string kept = keep(history, "a.log", text);
    history.drain();
    const std::string path = kept + ".zst";
    const std::string packed = readFile(path);

    std::vector<DeviceLogHistoryFrames::Frame> frames;
    std::string filter, error;
    {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(DeviceLogHistoryFrames::readIndex(fd, packed.size(), frames, error, &filter))
            << error;
        close(fd);
    }
    EXPECT_GE(frames.size(), 4u);
    EXPECT_TRUE(DeviceLogTrigrams::mayHold(filter, "frame dropped at pts"));
    EXPECT_FALSE(DeviceLogTrigrams::mayHold(filter, "segfault"));

    // The same frames under an index without a filter, as files written before it.
    std::string old =
        packed.substr(0, frames.back().compressedOffset + frames.back().compressedSize);
    std::string index;
    const auto le32 = [](std::string& out, std::uint32_t value) {
        for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
    };
    for (const auto& frame : frames) {
        le32(index, frame.compressedSize);
        le32(index, frame.rawSize);
    }
    le32(index, static_cast<std::uint32_t>(frames.size()));
    le32(index, DeviceLogHistoryFrames::kIndexMarker);
    le32(old, DeviceLogHistoryFrames::kSkippableMagic);
    le32(old, static_cast<std::uint32_t>(index.size()));
    writeFile(path, old + index);
    EXPECT_TRUE(zstdcat(path) == text);
    std::string out;
    ASSERT_TRUE(history.read(path, 200000, 100000, out, error)) << error;
    EXPECT_TRUE(out == text.substr(200000, 100000));
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(
        DeviceLogHistoryFrames::readIndex(fd, old.size() + index.size(), frames, error, &filter));
    EXPECT_EQ(filter, "");
    close(fd);
}

TEST_F(DeviceLogHistoryTest, FollowsNoLinkAndReadsNothingOutsideTheHistory) {
    DeviceLogHistory history(options());
    const std::string logs = dir_ / "logs";
    writeFile(dir_ / "secret", "secret");
    // A ".back" that is a link is not moved; nor is anything under an unusable name.
    fs::create_symlink(dir_ / "secret", logs + "/a.log.back");
    EXPECT_EQ(history.keep("a.log", logs + "/a.log.back"), "");
    EXPECT_TRUE(fs::is_symlink(logs + "/a.log.back"));
    writeFile(logs + "/b.log.back", "text\n");
    EXPECT_EQ(history.keep("../b.log", logs + "/b.log.back"), "");
    // A log's history folder that is a link is not entered.
    fs::create_directory(dir_ / "elsewhere");
    fs::create_directory_symlink(dir_ / "elsewhere", historyDir() + "/b.log");
    EXPECT_EQ(history.keep("b.log", logs + "/b.log.back"), "");
    EXPECT_TRUE(fs::exists(logs + "/b.log.back"));
    EXPECT_TRUE(fs::is_empty(dir_ / "elsewhere"));

    std::string out;
    std::string error;
    const std::string name = DeviceLogHistory::generationName(time(nullptr), 1);
    fs::create_symlink(dir_ / "secret", dir_ / ("elsewhere/" + name));
    for (const std::string& path :
         {dir_ / "secret", historyDir() + "/b.log/" + name, historyDir() + "/../secret",
          historyDir() + "/x/../../secret"}) {
        EXPECT_FALSE(history.read(path, 0, 100, out, error)) << path;
    }
    EXPECT_EQ(out, "");
}

TEST_F(DeviceLogHistoryTest, OverBudgetTheDeviceHoldingMostLosesItsOldestFirst) {
    // Removals are reported in the process's own log.
    setSuiteSetting("LogsDir", dir_ / "own");
    setSuiteSetting("LogLevel", INFO);
    auto own = boost::make_shared<CBBLog>("own.log", false, 1 << 20);
    CBBLog::setLogger(own);
    DeviceLogHistory::Options small = options();
    small.maxBytes = 400 * 1024;
    DeviceLogHistory history(small);
    // A quiet device with one log that holds more than any one log of a chatty device,
    // which spreads more text over eight logs (and a syslog sender's two).
    const std::string quietLog = "quiet001122334455-main.log";
    std::vector<std::string> quiet;
    for (unsigned i = 0; i < 3; ++i)
        quiet.push_back(keep(history, quietLog, deviceCorpus(512 << 10, i)));
    std::vector<std::pair<std::string, std::string>> chatty;  // log, generation; oldest first
    for (unsigned round = 0; round < 2; ++round) {
        for (unsigned i = 0; i < 4; ++i) {
            const std::string log = "chatty0011223344aa-log" + std::to_string(i) + ".log";
            chatty.emplace_back(log,
                                keep(history, log, syslogCorpus(512 << 10, 100 + i + 8 * round)));
        }
    }
    for (const char* log : {"nas-sshd", "nas-kernel"})
        keep(history, log, syslogCorpus(64 << 10, 7));
    history.drain();
    history.trim();

    const DeviceLogHistory::Stats stats = history.stats();
    EXPECT_LE(stats.bytes, 400u * 1024);
    EXPECT_GT(stats.removedFiles, 0u);
    EXPECT_EQ(stats.files + stats.removedFiles, 13u);
    // The quiet device and the syslog sender hold less than the chatty device: all of
    // it stays.
    const std::vector<DeviceLogHistory::Entry> quietLeft = history.list(quietLog);
    ASSERT_EQ(quietLeft.size(), 3u);
    for (std::size_t i = 0; i < quiet.size(); ++i) EXPECT_EQ(quietLeft[i].path, quiet[i] + ".zst");
    EXPECT_EQ(history.list("nas-sshd").size() + history.list("nas-kernel").size(), 2u);
    // The chatty device loses its oldest generations across its logs, in the order kept.
    std::size_t gone = 0;
    for (const auto& [log, path] : chatty) {
        const bool kept = fs::exists(path + ".zst");
        if (gone < chatty.size() && !kept) {
            ++gone;
            continue;
        }
        EXPECT_TRUE(kept) << path << " removed after a younger one stayed";
        gone = chatty.size();
    }
    EXPECT_EQ(history.list().size(), stats.files);

    CBBLog::setLogger(boost::shared_ptr<CBBLog>());
    own.reset();  // writes what it was given
    const std::string report = readFile(dir_ / "own/own.log");
    EXPECT_NE(report.find("History: removed " + chatty[0].second + ".zst ("), std::string::npos)
        << report;
    EXPECT_NE(report.find(" bytes, over the byte budget)"), std::string::npos);
    EXPECT_EQ(report.find("quiet"), std::string::npos);
}

TEST_F(DeviceLogHistoryTest, StartUpTidiesAnInterruptedCompressionAndAppliesTheAgeLimit) {
    // A complete compressed generation to plant, made by a history elsewhere.
    const std::string text = deviceCorpus(300 << 10, 9);
    const std::string folder = historyDir() + "/dev.log/";
    fs::create_directories(folder);
    std::string packed;
    {
        DeviceLogHistory::Options other = options();
        other.logsDir = dir_ / "other";
        DeviceLogHistory maker(other);
        const std::string kept = keep(maker, "x.log", text);
        maker.drain();
        packed = readFile(kept + ".zst");
    }
    ASSERT_FALSE(packed.empty());
    const long long now = time(nullptr);
    const std::string old = folder + DeviceLogHistory::generationName(now - 40 * 86400, 1);
    const std::string cut = folder + DeviceLogHistory::generationName(now - 3600, 5);
    const std::string done = folder + DeviceLogHistory::generationName(now - 60, 6);
    writeFile(old, "old\n");
    writeFile(cut, text);
    writeFile(cut + ".zst.tmp", packed.substr(0, packed.size() / 2));
    writeFile(done, text);
    writeFile(done + ".zst", packed);
    writeFile(folder + "notes.txt", "not ours\n");

    DeviceLogHistory::Options options = this->options();
    options.maxAgeDays = 30;
    DeviceLogHistory history(options);
    EXPECT_FALSE(fs::exists(cut + ".zst.tmp"));
    EXPECT_FALSE(fs::exists(done));
    EXPECT_TRUE(fs::exists(folder + "notes.txt"));
    const std::string next = keep(history, "dev.log", "newest\n");
    // Sequence numbers go on from the highest there, so generations keep their order.
    EXPECT_EQ(fs::path(next).parent_path().string() + "/", folder);
    EXPECT_EQ(fs::path(next).filename().string().substr(16), "-000007");
    history.drain();
    history.trim();

    const std::vector<DeviceLogHistory::Entry> entries = history.list("dev.log");
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_FALSE(fs::exists(old));
    EXPECT_EQ(entries[0].path, cut + ".zst");
    EXPECT_EQ(entries[1].path, done + ".zst");
    EXPECT_EQ(entries[2].path, next + ".zst");
    EXPECT_EQ(entries[1].movedAt, now - 60);
    for (const auto& entry : {entries[0], entries[1]}) {
        std::string out;
        std::string error;
        EXPECT_TRUE(history.read(entry.path, 0, text.size() + 1, out, error)) << error;
        EXPECT_TRUE(out == text) << entry.path;
    }
    EXPECT_EQ(history.stats().removedFiles, 1u);
}

TEST_F(DeviceLogHistoryTest, KilledMidCompressionLeavesThePlainFileOrAWholeZst) {
    const std::string text = syslogCorpus(3 << 20, 4);
    fs::create_directories(dir_ / "logs");
    for (int round = 0; round < 6; ++round) {
        const std::string back = dir_ / "logs/k.log.back";
        writeFile(back, text);
        ASSERT_EQ(fs::file_size(back), text.size());
        const pid_t child = fork();
        ASSERT_NE(child, -1);
        if (child == 0) {
            DeviceLogHistory history(options());
            history.keep("k.log", back);
            history.drain();
            _exit(0);
        }
        usleep(static_cast<useconds_t>(round * 15000));
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        std::string seen = "not moved";
        if (fs::exists(historyDir() + "/k.log")) {
            seen.clear();
            for (const auto& file : fs::directory_iterator(historyDir() + "/k.log")) {
                const std::string name = file.path().filename();
                const std::string suffix = name.substr(name.find('-') + 7);
                seen += (suffix.empty() ? std::string("plain") : suffix) + " ";
            }
        }
        printf("[ killed   ] after %d ms: %s\n", round * 15, seen.c_str());

        // Whatever moment it died at, the text is there whole, once start-up has run.
        DeviceLogHistory history(options());
        history.drain();
        std::string whole;
        for (const DeviceLogHistory::Entry& entry : history.list("k.log")) {
            std::string out;
            std::string error;
            ASSERT_TRUE(history.read(entry.path, 0, text.size(), out, error)) << error;
            whole = out;
            fs::remove(entry.path);
        }
        const bool moved = !fs::exists(back);
        EXPECT_TRUE(whole == (moved ? text : std::string()))
            << "round " << round << ": " << whole.size() << " bytes read, moved " << moved << ", "
            << history.list("k.log").size() << " generations";
        for (const auto& file : fs::recursive_directory_iterator(historyDir())) {
            EXPECT_TRUE(file.is_directory()) << file.path();
        }
    }
}

TEST_F(DeviceLogHistoryTest, FreeSpaceFloorEmptiesTheHistoryWhenNothingElseFrees) {
    DeviceLogHistory::Options options = this->options();
    options.minFreePercent = 100;  // never met: every generation goes
    DeviceLogHistory history(options);
    keep(history, "a.log", "a\n");
    keep(history, "b.log", "b\n");
    history.drain();
    history.trim();
    EXPECT_EQ(history.stats().files, 0u);
    EXPECT_EQ(history.stats().removedFiles, 2u);
    EXPECT_FALSE(fs::exists(historyDir() + "/a.log"));  // an emptied log's folder goes too
}

TEST_F(DeviceLogHistoryTest, OptionsComeFromTheSettings) {
    DeviceLogHistory::Options options = DeviceLogHistory::optionsFromSettings("/l");
    EXPECT_EQ(options.maxBytes, 0);
    EXPECT_EQ(options.maxAgeDays, 90);
    EXPECT_EQ(options.minFreePercent, 5);
    const auto registry = CRegistry::getInstance();
    ASSERT_TRUE(
        registry->WriteSettingImpl(NimbSettings::kConfigKey, NimbSettings::kHistoryMaxMiB, 3));
    ASSERT_TRUE(
        registry->WriteSettingImpl(NimbSettings::kConfigKey, NimbSettings::kHistoryMaxAgeDays, 0));
    options = DeviceLogHistory::optionsFromSettings("/l");
    EXPECT_EQ(options.logsDir, "/l");
    EXPECT_EQ(options.maxBytes, 3LL << 20);
    EXPECT_EQ(options.maxAgeDays, 0);
}

}  // namespace
