// SPDX-License-Identifier: MIT
// Which device account may write which source: learning on the first announcement,
// refusals of another account's MAC address (however it is spelled) or device id, given
// bindings winning over learned ones, the learned file surviving a restart, revocation
// (an account no longer listed) freeing what it learned, and the open-log ownership
// that keeps one account from taking another's log through an equal log id.

#include "RemoteLogBindings.h"

#include <gtest/gtest.h>

#include "NimbTestSupport.h"
#include "RemoteLogSources.h"

namespace {

using nimbtest::readFile;
using nimbtest::TempDir;
using nimbtest::writeFile;
using Verdict = RemoteLogBindings::Verdict;

class RemoteLogBindingsTest : public ::testing::Test {
protected:
    void SetUp() override { writeGiven("device-a mac=00:00:00:00:00:0a id=alpha\ndevice-b\n"); }
    // Rewrites the bindings file; its size changes with every call, so the change shows
    // even within one tick of the file system's clock.
    void writeGiven(const std::string& text) {
        padding_ += "#\n";
        writeFile(given_, text + padding_);
    }
    std::unique_ptr<RemoteLogBindings> open() {
        return std::make_unique<RemoteLogBindings>(given_, learned_);
    }

    TempDir dir_;
    std::string given_ = dir_ / "bindings.conf";
    std::string learned_ = dir_ / ".learned";
    std::string padding_;
};

TEST_F(RemoteLogBindingsTest, FirstAnnouncementBindsThenOnlyItsOwnSourcesPass) {
    auto bindings = open();
    const std::string id = "beta";
    EXPECT_EQ(bindings->announce("device-b", "00:00:00:00:00:0b", &id).verdict, Verdict::Learned);
    EXPECT_EQ(bindings->announce("device-b", "00:00:00:00:00:0b", &id).verdict, Verdict::Allowed);
    const std::string other = "other";
    const struct {
        const char* account;
        const char* mac;
        const std::string* id;
        Verdict verdict;
        const char* source;
    } cases[] = {
        {"device-b", "00:00:00:00:00:0c", &id, Verdict::NotBound, "00:00:00:00:00:0c"},
        {"device-b", "00:00:00:00:00:0b", &other, Verdict::NotBound, "other"},
        {"device-a", "00:00:00:00:00:0b", nullptr, Verdict::OtherAccount, "00:00:00:00:00:0b"},
        {"device-a", "00000000000b", nullptr, Verdict::OtherAccount, "00000000000b"},
        {"device-a", "00:00:00:00:00:0a", &id, Verdict::OtherAccount, "beta"},
        {"device-x", "00:00:00:00:00:0a", nullptr, Verdict::OtherAccount, "00:00:00:00:00:0a"},
        {"device-b", "00:00:00:00:00:0a", &id, Verdict::OtherAccount, "00:00:00:00:00:0a"},
    };
    for (const auto& c : cases) {
        const RemoteLogBindings::Check check = bindings->announce(c.account, c.mac, c.id);
        EXPECT_EQ(check.verdict, c.verdict) << c.account << " " << c.mac;
        EXPECT_EQ(check.source, c.source) << c.account << " " << c.mac;
        EXPECT_FALSE(check.allowed());
    }
    // The short form carries no device id: an account may learn a MAC address alone.
    EXPECT_EQ(bindings->announce("device-y", "00:00:00:00:00:0d", nullptr).verdict,
              Verdict::Learned);
    EXPECT_EQ(bindings->announce("device-y", "00:00:00:00:00:0d", &other).verdict,
              Verdict::Allowed);
    EXPECT_EQ(bindings->append("device-b", "00:00:00:00:00:0b").verdict, Verdict::Allowed);
    EXPECT_EQ(bindings->append("device-a", "00:00:00:00:00:0b").verdict, Verdict::OtherAccount);
    EXPECT_EQ(bindings->append("device-a", "00:00:00:00:00:0e").verdict, Verdict::NotBound);
    EXPECT_EQ(bindings->accountOf("000000:00000b"), "device-b");
}

TEST_F(RemoteLogBindingsTest, LearnedBindingsSurviveARestartUntilTheAccountIsRevoked) {
    const std::string id = "beta";
    open()->announce("device-b", "00:00:00:00:00:0b", &id);
    EXPECT_NE(readFile(learned_).find("device-b mac=00:00:00:00:00:0b id=beta\n"),
              std::string::npos);
    auto bindings = open();
    EXPECT_EQ(bindings->announce("device-c", "00:00:00:00:00:0b", nullptr).verdict,
              Verdict::OtherAccount);

    writeGiven("device-a mac=00:00:00:00:00:0a id=alpha\ndevice-c\n");  // b revoked
    bindings->refresh(true);
    EXPECT_EQ(bindings->announce("device-c", "00:00:00:00:00:0b", &id).verdict, Verdict::Learned);
    EXPECT_EQ(readFile(learned_).find("device-b"), std::string::npos);
    EXPECT_FALSE(bindings->hasSources("device-b"));

    // Given sources replace what an account learned; a given MAC address wins over
    // another account's learned one.
    writeGiven("device-a mac=00:00:00:00:00:0a id=alpha mac=00:00:00:00:00:0b\ndevice-c\n");
    bindings->refresh(true);
    EXPECT_EQ(bindings->accountOf("00:00:00:00:00:0b"), "device-a");
    EXPECT_EQ(bindings->announce("device-a", "00:00:00:00:00:0b", nullptr).verdict,
              Verdict::Allowed);
    EXPECT_EQ(bindings->announce("device-c", "00:00:00:00:00:0b", nullptr).verdict,
              Verdict::OtherAccount);
    EXPECT_EQ(bindings->learned().at("device-c").macs.size(), 0u);

    // A bindings file that disappears frees nothing.
    std::filesystem::remove(given_);
    bindings->refresh(true);
    EXPECT_EQ(bindings->accountOf("00:00:00:00:00:0a"), "device-a");
}

TEST_F(RemoteLogBindingsTest, DeviceTextRoundTripsThroughTheFileAndBadLinesAreSkipped) {
    std::map<std::string, RemoteLogBindings::Sources> bindings;
    bindings["device-q"].ids = {"a b%c", std::string("nul\0\n", 5), "\xff\x01"};
    bindings["device-q"].macs = {"00:11"};
    bindings["device-empty"] = {};
    const std::string text = RemoteLogBindings::format(bindings);
    EXPECT_EQ(text.find('\0'), std::string::npos);
    int skipped = -1;
    const auto parsed = RemoteLogBindings::parse(text, &skipped);
    EXPECT_EQ(skipped, 0);
    ASSERT_EQ(parsed.count("device-q"), 1u);
    EXPECT_EQ(parsed.at("device-q").ids, bindings["device-q"].ids);
    EXPECT_EQ(parsed.at("device-q").macs, bindings["device-q"].macs);
    EXPECT_EQ(parsed.count("device-empty"), 0u);

    skipped = 0;
    const auto bad = RemoteLogBindings::parse(
        "device-ok id=x\nbad.name id=x\ndevice-z port=1\ndevice-z id=%4\ndevice-z id=%zz\n"
        "device-z id=\n  # comment\n\n",
        &skipped);
    EXPECT_EQ(skipped, 5);
    EXPECT_EQ(bad.size(), 1u);
}

// A log id is open for one device (account) at a time: another one naming an equal id
// is refused, unless the owner is gone, whose log is then closed and taken over.
TEST(RemoteLogSourcesOwnerTest, AnotherAccountsOpenLogIsForeignUntilItsOwnerIsGone) {
    RemoteLogSources sources(16, 16);
    std::vector<CStdStr> closed;
    std::string error;
    CStdStr foreign;
    ASSERT_TRUE(sources.admit("device-a", {"00-11-x"}, 1, closed, error, &foreign));
    EXPECT_EQ(sources.touch("00-11-x", "device-b"), RemoteLogSources::State::Foreign);
    EXPECT_EQ(sources.touch("00-11-x", "device-a"), RemoteLogSources::State::Open);
    EXPECT_FALSE(sources.admit("device-b", {"00-11-x"}, 1, closed, error, &foreign));
    EXPECT_EQ(foreign, "00-11-x");
    EXPECT_TRUE(error.empty());
    const auto gone = [](const CStdStr& owner) { return owner == "device-a"; };
    ASSERT_TRUE(sources.admit("device-b", {"00-11-x"}, 1, closed, error, &foreign, gone));
    EXPECT_EQ(closed, std::vector<CStdStr>{"00-11-x"});
    EXPECT_EQ(sources.touch("00-11-x", "device-b"), RemoteLogSources::State::Open);
    EXPECT_EQ(sources.openCount(), 1u);
}

}  // namespace
