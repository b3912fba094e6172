// SPDX-License-Identifier: MIT
// nimb-logpush run as a separate process against a real server and a stand-in collector.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <QFile>
#include <QProcess>
#include <QSysInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "DeviceIdentity.h"
#include "KibException.h"
#include "KibSatellite.h"
#include "KibVariantHolder.h"
#include "NatsServer.h"
#include "VUtil.h"

namespace {

constexpr std::size_t kChunkLimit = 64 * 1024;

struct Received {
    bool announcement = false;  // SetLogSource, else AppendLog
    std::string caller = {}, mac = {}, deviceId = {}, displayName = {}, log = {}, content = {};
    std::vector<std::string> logs = {};
    long time = -1;  // the device time, -1 when not sent
};

long dateElement(const tagVARIANT& in, int index) {
    KibVariantHolder value;
    VUtil::GetElement(in, index, *value.out());
    VUtil::CheckType(value.get(), VT_DATE, "invalid time");
    return VUtil::DateToTime(value.get().date);
}

// Stands in for the collector: "RemoteLogger" with both services, checking the requests'
// layout and recording them. Appends can be refused, or one reply held back. Handlers run
// on the library's threads, the test reads on its own: records are guarded by mutex_.
class StandInCollector : public KibSatellite {
public:
    using Delegate = KibSatelliteDelegateMember<StandInCollector>;
    ~StandInCollector() override { Disconnect(); }

    int CreateServices() override {
        AddService("SetLogSource", "", new Delegate(this, &StandInCollector::setLogSource));
        return AddService("AppendLog", "", new Delegate(this, &StandInCollector::appendLog));
    }

    std::vector<Received> received() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }
    std::string contentOf(const std::string& log) const {
        std::string all;
        for (const Received& r : received())
            all += !r.announcement && r.log == log ? r.content : "";
        return all;
    }

    // Answers given instead of taking a request, each while its count lasts: "no such
    // service" (as while the collector leaves the bus), busy, not written, and for
    // appends "unknown source" until the next announcement.
    std::atomic<int> noSuchService{0};
    std::atomic<int> busyAppends{0};
    std::atomic<int> unwrittenAppends{0};
    std::atomic<bool> forgetSources{false};
    std::atomic<int> forgetAfter{-1};  // forget them once this many appends were taken

    int OnServiceRequested(int id, const char* caller, const char* service, tagVARIANT in,
                           tagVARIANT* out, int* result) override {
        if (noSuchService > 0 && noSuchService-- > 0) return KIB_E_NO_SUCH_SERVICE;
        return KibSatellite::OnServiceRequested(id, caller, service, in, out, result);
    }

    std::atomic<bool> refuseAppends{false};
    std::atomic<long> appendCalls{0};
    std::atomic<long> delayedAppend{-1};  // this AppendLog (counted from 0) is answered late
    std::atomic<int> appendReplyMs{0};    // every AppendLog is answered this much later

private:
    int setLogSource(const char* caller, const tagVARIANT& in, tagVARIANT*) {
        VUtil::CheckArrayType(in, VT_VARIANT, 5, true, "SetLogSource: invalid parameter");
        forgetSources = false;
        Received r{.announcement = true, .caller = caller, .mac = VUtil::GetStringElement(in, 0)};
        if (r.mac.find('/') != std::string::npos) {
            throw KibInvalidParameterException("SetLogSource: invalid addr: path separator");
        }
        r.deviceId = VUtil::GetStringElement(in, 1);
        r.displayName = VUtil::GetStringElement(in, 2);
        r.time = dateElement(in, 3);
        KibVariantHolder logs;
        VUtil::GetElement(in, 4, *logs.out());
        const int count = VUtil::CheckArrayType(logs.get(), VT_BSTR, 0, true, "invalid log list");
        for (int i = 0; i < count; ++i) r.logs.push_back(VUtil::GetStringElement(logs.get(), i));
        return record(std::move(r));
    }

    int appendLog(const char* caller, const tagVARIANT& in, tagVARIANT* out) {
        if (refuseAppends) throw KibInvalidParameterException("AppendLog: invalid log: unknown");
        if (busyAppends > 0 && busyAppends-- > 0)
            throw KibException("AppendLog: busy: too much is waiting to be written, try again", 2);
        if (unwrittenAppends > 0 && unwrittenAppends-- > 0)
            throw KibException("AppendLog: cannot write x.log: No space left on device", 3);
        if (forgetAfter >= 0 && contentCount() == static_cast<std::size_t>(forgetAfter)) {
            forgetAfter = -1;
            forgetSources = true;
        }
        if (forgetSources) {
            out->vt = VT_BSTR;
            out->bstrVal = SysAllocString("AppendLog: unknown source");
            return 2;
        }
        if (appendCalls++ == delayedAppend)
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        std::this_thread::sleep_for(std::chrono::milliseconds(appendReplyMs.load()));
        const int length =
            VUtil::CheckArrayType(in, VT_VARIANT, 3, true, "AppendLog: invalid parameter");
        Received r{.caller = caller,
                   .mac = VUtil::GetStringElement(in, 0),
                   .log = VUtil::GetStringElement(in, 1),
                   .content = VUtil::GetStringElement(in, 2)};
        if (length > 3) r.time = dateElement(in, 3);
        return record(std::move(r));
    }

    std::size_t contentCount() const {
        std::size_t count = 0;
        for (const Received& r : received()) count += r.announcement ? 0 : 1;
        return count;
    }

    int record(Received r) {
        const std::lock_guard<std::mutex> lock(mutex_);
        received_.push_back(std::move(r));
        return 0;
    }

    mutable std::mutex mutex_;
    std::vector<Received> received_;
};

struct RunResult {
    int exitCode = -1;
    std::string err;
};

// Polls `done` every 20 ms for at most `limit`.
bool waitFor(const std::function<bool()>& done,
             std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

bool nearNow(long seconds) {
    return std::labs(seconds - static_cast<long>(std::time(nullptr))) < 60;
}

class LogPushTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir_.isValid());
        startCollector();
    }

    // A new collector instance, which knows no sources.
    void startCollector() {
        collector_ = std::make_unique<StandInCollector>();
        ASSERT_EQ(collector_->Connect(nats_.host().c_str(), "RemoteLogger"), KIB_OK);
    }

    std::string path(const char* name) const { return dir_.filePath(name).toStdString(); }
    QString file(const char* name) const { return dir_.filePath(name); }

    void write(const char* name, const std::string& text, bool append = false) {
        QFile file(dir_.filePath(name));
        ASSERT_TRUE(
            file.open(append ? QIODevice::Append : QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(file.write(text.data(), static_cast<qint64>(text.size())),
                  static_cast<qint64>(text.size()));
    }

    // Starts nimb-logpush on the test's server; a later --host in `args` wins.
    std::unique_ptr<QProcess> start(const QStringList& args) {
        auto process = std::make_unique<QProcess>();
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), dir_.path());
        process->setProcessEnvironment(env);
        const QStringList host{QStringLiteral("--host"), QString::fromStdString(nats_.host())};
        process->start(QStringLiteral(NIMB_LOGPUSH), host + args);
        EXPECT_TRUE(process->waitForStarted(10000));
        return process;
    }

    static RunResult finish(QProcess& process, int timeoutMs = 60000) {
        RunResult result;
        if (!process.waitForFinished(timeoutMs)) {
            process.kill();
            process.waitForFinished(5000);
            return result;
        }
        result.exitCode =
            process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -process.exitCode();
        result.err = process.readAllStandardError().toStdString();
        return result;
    }

    RunResult run(const QStringList& args, const std::string& input = "") {
        auto process = start(args);
        process->write(input.data(), static_cast<qint64>(input.size()));
        process->closeWriteChannel();
        return finish(*process);
    }

    // Asks a following nimb-logpush to stop and expects it to end normally.
    static void stop(QProcess& process) {
        process.terminate();
        const RunResult result = finish(process, 20000);
        EXPECT_EQ(result.exitCode, 0) << result.err;
    }

    QTemporaryDir dir_;
    NatsServer nats_;
    std::unique_ptr<StandInCollector> collector_;
};

// Numbered lines of varying length, one line longer than a chunk made of three-byte
// characters (so that the cut at the limit would split one), and a last line without its
// line end.
std::string sampleLog() {
    std::string text;
    for (int i = 0; i < 3000; ++i) {
        text += "2026-11-22 10:00:00 line " + std::to_string(i) + " " +
                std::string(static_cast<std::size_t>(i % 97), 'x') + "\n";
        for (int j = 0; i == 1500 && j < 30000; ++j) text += j + 1 < 30000 ? "\u20AC" : "\n";
    }
    return text + "unfinished";
}

}  // namespace

TEST_F(LogPushTest, SendsFilesInLineChunksAndStandardInputAndFailsWithStatusAndText) {
    const std::string text = sampleLog();
    write("app.log", text);
    const RunResult r = run({"--mac", "00:11:22:33:44:55", "--device-id", "puck-7", "--name",
                             "Living room", "--log", "syslog", file("app.log")});
    ASSERT_EQ(r.exitCode, 0) << r.err;

    const std::vector<Received> got = collector_->received();
    ASSERT_GE(got.size(), 5u);
    const Received& announced = got.front();
    EXPECT_TRUE(announced.announcement);
    EXPECT_EQ(announced.caller, "nimb-logpush");
    EXPECT_EQ(announced.mac, "00:11:22:33:44:55");
    EXPECT_EQ(announced.deviceId, "puck-7");
    EXPECT_EQ(announced.displayName, "Living room");
    EXPECT_TRUE(nearNow(announced.time)) << announced.time;
    EXPECT_EQ(announced.logs, std::vector<std::string>{"syslog"});

    for (std::size_t i = 1; i < got.size(); ++i) {
        const Received& chunk = got[i];
        EXPECT_TRUE(!chunk.announcement && chunk.log == "syslog" && nearNow(chunk.time));
        EXPECT_LE(chunk.content.size(), kChunkLimit);
        EXPECT_NE(chunk.content.front() & 0xC0, 0x80) << "split character, chunk " << i;
        // Only the last chunk, or the cut inside the overlong line, lacks a line end.
        if (i + 1 < got.size() && chunk.content.back() != '\n') {
            EXPECT_GT(chunk.content.size(), kChunkLimit - 3) << "chunk " << i;
        }
    }
    EXPECT_TRUE(collector_->contentOf("syslog") == text);

    // Standard input and files go under their own names; --no-time leaves the time out.
    write("first.log", "from a file\n");
    const std::string first = path("first.log");
    const RunResult second =
        run({"--no-time", QString::fromStdString(first), "-"}, "alpha\nbeta\n");
    ASSERT_EQ(second.exitCode, 0) << second.err;
    const std::vector<Received> all = collector_->received();
    ASSERT_EQ(all.size(), got.size() + 3);
    const Received* next = all.data() + got.size();
    EXPECT_EQ(next[0].logs, (std::vector<std::string>{first, "stdin"}));
    EXPECT_TRUE(next[0].deviceId == QSysInfo::machineHostName().toStdString() &&
                next[0].displayName == QSysInfo::machineHostName().toStdString());
    EXPECT_EQ(next[0].mac.size(), 17u) << next[0].mac;
    EXPECT_EQ(next[1].log, first);
    EXPECT_EQ(next[1].content, "from a file\n");
    EXPECT_EQ(next[2].log, "stdin");
    EXPECT_EQ(next[2].content, "alpha\nbeta\n");
    EXPECT_EQ(next[1].time + next[2].time, -2);

    // Failures exit with their status and text.
    write("a.log", "text\n");
    const QString log = file("a.log");
    const QString nowhere = QStringLiteral("127.0.0.1:%1").arg(NatsServer::freePort());
    struct Case {
        QStringList args;
        int exitCode;
        const char* message;
    };
    const Case cases[] = {
        {{"--mac", "aa/bb", log}, 1, "nimb-logpush: SetLogSource: invalid addr: "},
        {{"--bogus", log}, 2, "Unknown option 'bogus'"},
        {{"--timeout", "0", log}, 2, "--timeout needs"},
        {{file("missing.log")}, 2, "cannot open"},
        {{"--host", nowhere, "--retry-for", "600", log}, 3, "cannot reach RemoteLogger"},
        {{"--satellite", "Nobody", "--retry-for", "600", log}, 3, "no responders"},
    };
    for (const Case& c : cases) {
        const RunResult failed = run(c.args);
        EXPECT_EQ(failed.exitCode, c.exitCode)
            << c.args.join(' ').toStdString() << ": " << failed.err;
        EXPECT_NE(failed.err.find(c.message), std::string::npos) << failed.err;
    }
    EXPECT_TRUE(collector_->contentOf(path("a.log")).empty());

    collector_->refuseAppends = true;
    const RunResult refused = run({log});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err, "nimb-logpush: AppendLog: invalid log: unknown\n");
}

TEST_F(LogPushTest, FollowSurvivesRotationTruncationAndRestarts) {
    write("app.log", "one\n");
    auto process = start({"-f", "--timeout", "500", "--log", "app", file("app.log")});
    std::string expected = "one\n";
    const auto arrived = [&] { return collector_->contentOf("app") == expected; };
    ASSERT_TRUE(waitFor(arrived));
    const auto appendAndWait = [&](const char* name, const char* text, bool append) {
        write(name, text, append);
        expected += text;
        return waitFor(arrived);
    };
    ASSERT_TRUE(appendAndWait("app.log", "two\n", true)) << collector_->contentOf("app");
    // Rotation: the old file gets a last line after the rename, then a new file appears.
    ASSERT_EQ(std::rename(path("app.log").c_str(), path("app.log.1").c_str()), 0);
    write("app.log.1", "three\n", true);
    expected += "three\n";
    ASSERT_TRUE(appendAndWait("app.log", "four\n", false)) << collector_->contentOf("app");
    ASSERT_TRUE(appendAndWait("app.log", "5\n", false));  // truncated, rewritten shorter
    // An unfinished line goes after a short wait for its line end.
    ASSERT_TRUE(appendAndWait("app.log", "unfinished", true)) << collector_->contentOf("app");
    const auto announcements = [&] {
        const std::vector<Received> got = collector_->received();
        return std::count_if(got.begin(), got.end(), [](auto& r) { return r.announcement; });
    };
    EXPECT_EQ(announcements(), 1);

    // The bus goes away for longer than the reply timeout while text is waiting; the
    // collector stays and reconnects. The text goes once, after a new announcement.
    nats_.stop();
    write("app.log", "\nduring\n", true);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ASSERT_TRUE(nats_.start());
    expected += "\nduring\n";
    ASSERT_TRUE(waitFor(arrived)) << collector_->contentOf("app");
    EXPECT_EQ(announcements(), 2);
    EXPECT_TRUE(collector_->received().back().content == "\nduring\n");

    // The collector restarts cleanly while nothing is sent; it has forgotten the source.
    collector_.reset();
    startCollector();
    expected.clear();
    ASSERT_TRUE(appendAndWait("app.log", "after\n", true)) << collector_->contentOf("app");
    EXPECT_TRUE(collector_->received().front().announcement);
    stop(*process);
}

TEST_F(LogPushTest, RetriesUntilTheCollectorAnswersAndResendsOnlyUnansweredChunks) {
    // No collector at first: the announcement is retried until one appears.
    collector_.reset();
    write("a.log", "early\n");
    auto early = start({"--retry-for", "20000", "--log", "a", file("a.log")});
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    startCollector();
    const RunResult first = finish(*early);
    EXPECT_EQ(first.exitCode, 0) << first.err;
    EXPECT_EQ(collector_->contentOf("a"), "early\n");

    // The second of three chunks is answered too late: it alone is sent again, after a
    // new announcement, and every answered chunk arrives once.
    std::string text;
    for (char c : {'a', 'b', 'c'}) text += std::string(kChunkLimit - 1, c) + "\n";
    write("b.log", text);
    collector_->delayedAppend = collector_->appendCalls + 1;
    const RunResult second = run({"--timeout", "1000", "--log", "b", file("b.log")});
    EXPECT_EQ(second.exitCode, 0) << second.err;

    std::vector<std::string> chunks;
    std::size_t reannounced = 0;
    for (const Received& entry : collector_->received()) {
        if (entry.announcement && !chunks.empty()) ++reannounced;
        if (!entry.announcement && entry.log == "b") chunks.push_back(entry.content);
    }
    ASSERT_EQ(chunks.size(), 4u);
    EXPECT_EQ(chunks[1], chunks[2]);
    EXPECT_EQ(chunks[0] + chunks[1] + chunks[3], text);
    EXPECT_EQ(reannounced, 1u);
}

// Answers that only mean "not now" are retried within the budget; "unknown source" makes
// the device announce again and resend at once. Every piece arrives exactly once.
TEST_F(LogPushTest, TransientAnswersAreRetriedAndAnUnknownSourceIsAnnouncedAgain) {
    std::string text;
    for (int i = 0; i < 4; ++i)
        text += std::string(kChunkLimit - 1, static_cast<char>('a' + i)) + "\n";
    write("t.log", text);
    collector_->noSuchService = 1;
    collector_->busyAppends = 2;
    collector_->unwrittenAppends = 1;
    collector_->forgetAfter = 2;  // as a restarted collector would
    const RunResult result = run({"--retry-for", "20000", "--log", "t", file("t.log")});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(collector_->contentOf("t"), text);
    int announcements = 0;
    for (const Received& r : collector_->received()) announcements += r.announcement ? 1 : 0;
    EXPECT_GE(announcements, 2);
    EXPECT_FALSE(collector_->forgetSources);
}

// While a request is being answered, what the followed file gains waits and goes with the
// next request: a backlog goes in full pieces (none holding only the lines left over
// from a full read), lines written faster than the collector answers go in batches, and
// a lone line written to an idle file still goes at once. Every line arrives once.
TEST_F(LogPushTest, FollowGathersWhatTheFileGainsWhileARequestIsAnswered) {
    constexpr std::size_t kLineLength = 1000;  // a full read ends inside a line
    std::string backlog;
    for (int i = 0; backlog.size() < 3 * kChunkLimit; ++i) {
        std::string line = "2026-11-22 10:00:00 backlog " + std::to_string(i) + " ";
        line.resize(kLineLength - 1, '.');
        backlog += line + "\n";
    }
    write("busy.log", backlog);
    collector_->appendReplyMs = 20;
    auto process = start({"-f", "--log", "busy", file("busy.log")});
    std::string expected = backlog;
    const auto arrived = [&] { return collector_->contentOf("busy") == expected; };
    const auto pieces = [&] {
        std::vector<std::string> all;
        for (const Received& r : collector_->received())
            if (!r.announcement) all.push_back(r.content);
        return all;
    };
    ASSERT_TRUE(waitFor(arrived)) << collector_->contentOf("busy").size();
    const std::vector<std::string> backlogPieces = pieces();
    ASSERT_EQ(backlogPieces.size(), 4u);
    for (std::size_t i = 0; i + 1 < backlogPieces.size(); ++i)
        EXPECT_GT(backlogPieces[i].size(), kChunkLimit - kLineLength) << "piece " << i;

    // Each line is written (and flushed) on its own, far faster than the collector answers.
    constexpr int kLines = 2000;
    std::FILE* out = std::fopen(path("busy.log").c_str(), "a");
    ASSERT_NE(out, nullptr);
    for (int i = 0; i < kLines; ++i) {
        const std::string line = "2026-11-22 10:00:01 busy line " + std::to_string(i) + "\n";
        std::fputs(line.c_str(), out);
        std::fflush(out);
        expected += line;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    std::fclose(out);
    ASSERT_TRUE(waitFor(arrived)) << collector_->contentOf("busy").size();
    const std::vector<std::string> all = pieces();
    const std::size_t batches = all.size() - backlogPieces.size();
    EXPECT_LT(batches, static_cast<std::size_t>(kLines / 4));
    for (std::size_t i = backlogPieces.size(); i < all.size(); ++i)
        EXPECT_EQ(all[i].back(), '\n') << "piece " << i;

    // The collector answers at once again; a lone line must not wait for company.
    collector_->appendReplyMs = 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    write("busy.log", "lone\n", true);
    expected += "lone\n";
    ASSERT_TRUE(waitFor(arrived, std::chrono::seconds(5)));
    EXPECT_EQ(pieces().back(), "lone\n");
    stop(*process);
}

TEST(DeviceIdentityTest, FallbackMacIsLocallyAdministeredAndPerHost) {
    const std::string a = DeviceIdentity::hostMacAddress("0123456789abcdef0123456789abcdef", "h");
    EXPECT_EQ(a, DeviceIdentity::hostMacAddress("0123456789abcdef0123456789abcdef", "other"));
    EXPECT_NE(a, DeviceIdentity::hostMacAddress("fedcba9876543210fedcba9876543210", "h"));
    EXPECT_NE(DeviceIdentity::hostMacAddress("", "h1"), DeviceIdentity::hostMacAddress("", "h2"));
    ASSERT_EQ(a.size(), 17u);
    const int first = std::stoi(a.substr(0, 2), nullptr, 16);
    EXPECT_EQ(first & 0x03, 0x02) << a;  // locally administered, unicast
    EXPECT_NE(DeviceIdentity::firstMacAddress(), DeviceIdentity::kNoMacAddress);
}
