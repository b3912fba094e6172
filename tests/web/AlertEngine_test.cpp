// SPDX-License-Identifier: MIT
// The alert engine over a logs folder written by the real writer with its index: a burst
// of 10,000 matching lines gives one notification and one digest that together count
// every line, delivered to a real web hook receiver on loopback; a restart in a quiet period
// neither repeats nor loses a line, lines written while it was down included; a threshold counts
// across rotations into the history and links to the first line wherever it is now; a silent device
// fires once and again when it comes back; a failing delivery is retried and its outcome recorded.
// Rule texts from the page are checked with errors that name the field.
#include "AlertEngine.h"

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include "AlertConsole.h"
#include "AlertNotifier.h"
#include "IndexedLogWriter.h"
#include "LogIndexView.h"
#include "NimbTestSupport.h"
#include "NotifyReceivers.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nimbtest::TempDir;
using nimbtest::waitUntil;

const std::string kFile = "puck-7001122334455-cam.log";

class AlertEngineTest : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(logs()); }
    void TearDown() override {
        engine_.reset();
        writer_.reset();
    }
    std::string logs() const { return (fs::path(dir_.path()) / "logs").string(); }

    // The collector's side: a writer with its index (and a history when it rotates).
    void openWriter(long long rotateSize = 0) {
        writer_ = std::make_unique<IndexedLogWriter>(logs(), kFile, rotateSize);
        ASSERT_TRUE(writer_->ok());
        write(
            "\n===== Kitchen Camera - sat1 === 2026/11/24 12:00:00 <-> 2026/11/24 12:00:00 "
            "=====\n",
            true);
    }
    void write(const std::string& text, bool header = false) {
        writer_->append(text, header, QDateTime::currentMSecsSinceEpoch());
    }
    static std::string lines(int first, int count, const std::string& what) {
        std::string text;
        for (int i = first; i < first + count; ++i)
            text += "2026-11-25 10:00:00 E/app: " + what + " " + std::to_string(i) + "\n";
        return text;
    }

    void startEngine(const AlertConfig& config, long long minuteMs = 60000) {
        AlertEngine::Options options{logs(), dir_.path() + "/state/alerts.sqlite",
                                     "http://console.test/", 20};
        options.minuteMs = minuteMs;
        options.retryMs = 30;
        engine_ = std::make_unique<AlertEngine>(
            options, [this](const AlertChannelConfig& channel, const AlertEngine::Notice& notice) {
                std::lock_guard<std::mutex> lock(mutex_);
                if (failures_ > 0) {
                    --failures_;
                    return AlertEngine::Outcome{false, "receiver down"};
                }
                notices_.push_back(notice);
                channels_.push_back(channel.id);
                if (!receivers_) return AlertEngine::Outcome{true, ""};
                // Delivered for real, to the receiver on loopback.
                AlertChannelConfig hook = channel;
                hook.url = receivers_->httpUrl();
                const AlertSendResult sent = AlertNotifier().send(AlertConsole::channelOf(hook, ""),
                                                                  AlertConsole::messageOf(notice));
                return AlertEngine::Outcome{sent.ok, sent.error};
            });
        std::string error;
        ASSERT_TRUE(engine_->start(config, error)) << error;
        // Started once the engine has read to the end of what is there.
        ASSERT_TRUE(waitUntil([&] { return engine_->status().lastReadMs != 0; }, 10s));
    }
    static AlertConfig config(AlertRule rule) {
        AlertConfig config;
        AlertChannelConfig channel;
        channel.id = "c1";
        channel.name = "hook";
        channel.url = "http://127.0.0.1:9/";
        config.channels.push_back(channel);
        rule.id = rule.id.empty() ? "r1" : rule.id;
        rule.name = rule.name.empty() ? "Crashes" : rule.name;
        rule.channels = {"c1"};
        config.rules.push_back(rule);
        return config;
    }
    // The matches the receiver was told of, from the web hooks' JSON.
    std::int64_t received() const {
        std::int64_t sum = 0;
        for (const nimbtest::ReceivedRequest& request : receivers_->requests()) {
            sum += QJsonDocument::fromJson(QByteArray::fromStdString(request.body))
                       .object()["matches"]
                       .toInteger();
        }
        return sum;
    }
    std::vector<AlertEngine::Notice> notices() {
        std::lock_guard<std::mutex> lock(mutex_);
        return notices_;
    }
    std::int64_t matched() {
        std::int64_t sum = 0;
        for (const AlertEngine::Notice& notice : notices()) sum += notice.matches;
        return sum;
    }

    TempDir dir_;
    std::unique_ptr<IndexedLogWriter> writer_;
    std::unique_ptr<AlertEngine> engine_;
    std::mutex mutex_;
    std::vector<AlertEngine::Notice> notices_;
    std::vector<std::string> channels_;
    int failures_ = 0;
    std::unique_ptr<nimbtest::NotifyReceivers> receivers_;
};

TEST_F(AlertEngineTest, BurstGivesOneNoticeAndOneDigestAndRestartsNeitherRepeatNorLose) {
    receivers_ = std::make_unique<nimbtest::NotifyReceivers>();
    ASSERT_TRUE(receivers_->running());
    openWriter();
    write(lines(0, 50, "segfault"));  // before alerts started: never alerted on
    AlertRule rule;
    rule.text = "SEGFAULT";  // any case
    rule.level = DeviceLogSeverity::Level::Error;
    rule.quietMinutes = 2;
    startEngine(config(rule), 250);

    constexpr int kBurst = 10000;
    for (int i = 0; i < kBurst; i += 1000) {
        write(lines(i, 1000, "segfault") + "2026-11-25 10:00:00 I/app: fine\n" +
              "2026-11-25 10:00:00 W/app: segfault soon\n");  // a warning: below the level
    }
    ASSERT_TRUE(waitUntil([&] { return matched() == kBurst; }, 20s)) << matched();
    std::vector<AlertEngine::Notice> seen = notices();
    ASSERT_GE(seen.size(), 2u);
    EXPECT_LE(seen.size(), 3u);  // the burst may straddle the end of one quiet period
    EXPECT_EQ(seen[0].kind, "match");
    EXPECT_EQ(seen[0].matches, 1);
    EXPECT_EQ(seen[0].lines.at(0), "2026-11-25 10:00:00 E/app: segfault 0");
    EXPECT_EQ(seen[0].severity, "error");
    EXPECT_NE(seen[0].link.find("http://console.test/#/log?file=" + kFile), std::string::npos);
    EXPECT_EQ(seen[1].kind, "digest");
    EXPECT_NE(seen[1].title.find("more matches"), std::string::npos) << seen[1].title;
    EXPECT_EQ(seen[1].lines.size(), AlertEngine::kMaxLines);
    ASSERT_TRUE(waitUntil([&] { return received() == kBurst; }, 10s)) << received();
    EXPECT_EQ(receivers_->requests().size(), seen.size());

    // Matches in a quiet period wait in the state; the engine stops, more lines come.
    write(lines(kBurst, 5, "segfault"));
    ASSERT_TRUE(waitUntil(
        [&] {
            const auto status = engine_->status().rules;
            return status.count("r1") != 0 && status.at("r1").pending == 5;
        },
        10s));
    engine_.reset();
    write(lines(kBurst + 5, 7, "segfault"));
    const std::size_t before = notices().size();
    startEngine(config(rule), 250);
    ASSERT_TRUE(waitUntil([&] { return matched() == kBurst + 12; }, 10s)) << matched();
    seen = notices();
    ASSERT_EQ(seen.size(), before + 1);
    EXPECT_EQ(seen.back().kind, "digest");
    EXPECT_EQ(seen.back().matches, 12);
    EXPECT_EQ(seen.back().lines.front(), "2026-11-25 10:00:00 E/app: segfault 10000");
    EXPECT_EQ(seen.back().lines.back(), "2026-11-25 10:00:00 E/app: segfault 10009");
    // Nothing else comes, and the receiver got each line's notice once.
    std::this_thread::sleep_for(600ms);
    EXPECT_EQ(notices().size(), before + 1);
    ASSERT_TRUE(waitUntil([&] { return received() == kBurst + 12; }, 10s)) << received();
    const std::vector<AlertState::Fired> fired = engine_->fired(10);
    ASSERT_FALSE(fired.empty());
    EXPECT_EQ(fired.front().deliveries.at(0).status, "sent");
}

TEST_F(AlertEngineTest, ThresholdCountsAcrossRotationsAndLinksToTheFirstLine) {
    openWriter(4096);
    AlertRule rule;
    rule.regex = true;
    rule.text = R"(disk (full|gone))";
    rule.count = 3;
    rule.minutes = 5;
    startEngine(config(rule));
    write(lines(0, 1, "disk full"));
    write(lines(1, 1, "disk gone"));
    const std::string filler(3000, 'x');
    for (int i = 0; i < 4; ++i) write(filler + "\n");  // rotates twice or more: history
    std::this_thread::sleep_for(200ms);
    EXPECT_TRUE(notices().empty());
    write(lines(2, 1, "disk full") + lines(3, 1, "disk fine"));
    ASSERT_TRUE(waitUntil([&] { return !notices().empty(); }, 10s));
    const AlertEngine::Notice notice = notices().front();
    EXPECT_EQ(notice.matches, 3);
    ASSERT_EQ(notice.lines.size(), 3u);
    EXPECT_EQ(notice.lines[1], "2026-11-25 10:00:00 E/app: disk gone 1");
    // The place recorded is the first line's, now in the history.
    const AlertState::Fired fired = engine_->fired(1).at(0);
    DeviceLogIndex::Query query;
    query.file = kFile;
    query.order = DeviceLogIndex::Order::Place;
    LogIndexView view(logs());
    std::string text;
    for (const DeviceLogIndex::Piece& piece : view.query(query)) {
        if (piece.generation == fired.place.generation && piece.offset <= fired.place.offset &&
            fired.place.offset < piece.offset + piece.length) {
            ASSERT_TRUE(LogIndexView::readPath(logs(), piece.path, fired.place.offset, 40, text));
        }
    }
    EXPECT_EQ(text.substr(0, 40), "2026-11-25 10:00:00 E/app: disk full 0\n2");
    EXPECT_FALSE(writer_->history()->list(kFile).empty());
}

TEST_F(AlertEngineTest, SilentDeviceFiresOnceAndAgainWhenItComesBack) {
    openWriter();
    AlertRule rule;
    rule.kind = AlertRule::Kind::Silent;
    rule.silentMinutes = 3;
    startEngine(config(rule), 200);
    const long long hello = QDateTime::currentMSecsSinceEpoch();
    write(lines(0, 1, "hello"));
    // The silence after "hello" (on a slow machine the header's may come first, with its
    // own "sending again" on "hello").
    std::size_t silent = 0;
    ASSERT_TRUE(waitUntil(
        [&] {
            const auto seen = notices();
            for (silent = 0; silent < seen.size(); ++silent) {
                if (seen[silent].kind == "silent" && seen[silent].lastMs >= hello) return true;
            }
            return false;
        },
        10s));
    EXPECT_NE(notices()[silent].title.find("Kitchen Camera has sent nothing for "),
              std::string::npos)
        << notices()[silent].title;
    std::this_thread::sleep_for(700ms);
    EXPECT_EQ(notices().size(), silent + 1);  // once per silence
    write(lines(1, 1, "back"));
    ASSERT_TRUE(waitUntil([&] { return notices().size() == silent + 2; }, 10s));
    EXPECT_EQ(notices()[silent + 1].kind, "resumed");
}

TEST_F(AlertEngineTest, FailedDeliveriesAreRetriedAndARemovedChannelIsGivenUp) {
    openWriter();
    failures_ = 2;
    AlertRule rule;
    rule.text = "panic";
    rule.level = DeviceLogSeverity::Level::Error;
    rule.quietMinutes = 0;
    AlertConfig cfg = config(rule);
    startEngine(cfg);
    // A line without a label is not an error for standing beside one.
    write(lines(0, 1, "kernel panic") + "panic handler installed\n");
    ASSERT_TRUE(waitUntil([&] { return notices().size() == 1; }, 10s));
    std::vector<AlertState::Fired> fired = engine_->fired(1);
    ASSERT_TRUE(waitUntil(
        [&] {
            fired = engine_->fired(1);
            return fired.at(0).deliveries.at(0).status == "sent";
        },
        5s));
    EXPECT_EQ(fired.at(0).deliveries.at(0).attempts, 3);
    EXPECT_EQ(fired.at(0).matches, 1);
    EXPECT_EQ(notices().size(), 1u);

    cfg.rules[0].channels = {"gone"};
    engine_->setConfig(cfg);
    write(lines(1, 1, "kernel panic"));
    ASSERT_TRUE(waitUntil(
        [&] {
            fired = engine_->fired(1);
            return fired.at(0).id != 0 && fired.at(0).deliveries.at(0).status == "failed";
        },
        10s));
    EXPECT_EQ(fired.at(0).deliveries.at(0).error, "the channel was removed");
}

TEST(AlertRulesTest, RulesAndChannelsFromThePageAreCheckedWithTheFieldNamed) {
    struct Case {
        const char* json;
        const char* error;  // "" : accepted
    };
    const Case rules[] = {
        {R"({"name":"a","text":"x","level":"warn","count":3,"minutes":10})", ""},
        {R"({"text":"x"})", "a rule needs a name"},
        {R"({"name":"a","kind":"loud"})", "\"kind\" must be \"match\" or \"silent\""},
        {R"({"name":"a","regex":true,"text":"(unclosed"})", "the pattern does not compile"},
        {R"({"name":"a","level":"sort of bad"})", "\"level\" is not a severity"},
        {R"({"name":"a","count":0})", "\"count\" must be a whole number from 1"},
        {R"({"name":"a","quietMinutes":1.5})", "\"quietMinutes\" must be a whole number"},
        {R"({"name":"a\nb"})", "\"name\" holds a control character"},
        {R"({"name":"a","channels":"c1"})", "\"channels\" must be a list"},
    };
    for (const Case& c : rules) {
        AlertRule rule;
        std::string error;
        const bool ok = AlertRules::ruleFromJson(
            QJsonDocument::fromJson(QByteArray(c.json)).object(), rule, error);
        EXPECT_EQ(ok, std::string(c.error).empty()) << c.json << ": " << error;
        EXPECT_EQ(error.rfind(c.error, 0), 0u) << c.json << ": " << error;
    }
    const Case channels[] = {
        {R"({"name":"h","kind":"webhook","url":"https://hooks.test/x"})", ""},
        {R"({"name":"m","kind":"email","url":"smtp://mail.test:587","from":"a@b","to":["c@d"]})",
         ""},
        {R"({"name":"h","kind":"webhook","url":"ftp://hooks.test/x"})",
         "\"url\" must be a http:// or https:// address"},
        {R"({"name":"h","kind":"ntfy","url":"https://me:pw@push.test/t"})",
         "\"url\" must not carry a user or password"},
        {R"({"name":"m","kind":"email","url":"smtp://mail.test","to":["c@d"]})",
         "mail needs a sender"},
        {R"({"name":"m","kind":"email","url":"https://mail.test","from":"a","to":["b"]})",
         "\"url\" must be a smtp:// or smtps:// address"},
        {R"({"name":"n","kind":"ntfy","url":"https://push.test/t","priority":9})",
         "\"priority\" must be a whole number from 1 to 5"},
        {R"({"name":"h","kind":"pigeon","url":"https://x.test"})", "\"kind\" must be"},
    };
    for (const Case& c : channels) {
        AlertChannelConfig channel;
        std::string error;
        const bool ok = AlertRules::channelFromJson(
            QJsonDocument::fromJson(QByteArray(c.json)).object(), channel, error);
        EXPECT_EQ(ok, std::string(c.error).empty()) << c.json << ": " << error;
        EXPECT_EQ(error.rfind(c.error, 0), 0u) << c.json << ": " << error;
    }
}

}  // namespace
