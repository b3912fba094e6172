// SPDX-License-Identifier: MIT
// The list of senders allowed with a client certificate: what a line must be, that a
// changed file is read again, and that an unusable file allows nobody.

#include "SyslogClientList.h"

#include <string>

#include <gtest/gtest.h>

#include "NimbTestSupport.h"

namespace {

using namespace nimbtest;

const std::string kPrint(64, 'a');
const std::string kOther(64, 'b');

TEST(SyslogClientListTest, OnlyWellFormedLinesCount) {
    const auto entries = SyslogClientList::parse(
        "# comment " + kPrint + "\n\nkitchen " + kPrint + "\r\ngarage " + std::string(64, 'B') +
        "\nshort abcdef\nextra " + kPrint + " word\nbad " + std::string(63, 'a') +
        "g\nlone\n  spaced   " + kOther);
    EXPECT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries.at("kitchen"), kPrint);  // the CR of a CRLF line is a blank
    EXPECT_EQ(entries.at("garage"), kOther);   // upper-case hex is taken as lower
    EXPECT_EQ(entries.at("spaced"), kOther);
}

TEST(SyslogClientListTest, NameAndFingerprintMustBothMatchAsTheFileIsNow) {
    TempDir dir;
    const fs::path path = fs::path(dir.path()) / "clients";
    SyslogClientList list(path.string());
    std::string reason;
    EXPECT_FALSE(list.allows("kitchen", kPrint, reason));
    EXPECT_NE(reason.find("cannot read"), std::string::npos) << reason;
    writeFile(path, "kitchen " + kPrint + "\n");
    EXPECT_TRUE(list.allows("kitchen", kPrint, reason));
    EXPECT_FALSE(list.allows("kitchen", kOther, reason));
    EXPECT_NE(reason.find("other than the one listed"), std::string::npos) << reason;
    EXPECT_FALSE(list.allows("garage", kPrint, reason));
    EXPECT_NE(reason.find("not on the list"), std::string::npos) << reason;
    // Rewritten as the set-up tool does (a new file moved into place): read again.
    const std::uint64_t before = list.generation();
    writeFile(fs::path(dir.path()) / "new", "garage " + kOther + "\n");
    fs::rename(fs::path(dir.path()) / "new", path);
    EXPECT_FALSE(list.allows("kitchen", kPrint, reason));
    EXPECT_TRUE(list.allows("garage", kOther, reason));
    EXPECT_GT(list.generation(), before);
    EXPECT_TRUE(list.isListed("garage"));
    EXPECT_FALSE(list.isListed("kitchen"));
    // Too large to be a list: nobody.
    writeFile(path, std::string(SyslogClientList::kMaxFileSize + 1, '#'));
    EXPECT_FALSE(list.allows("garage", kOther, reason));
    EXPECT_NE(reason.find("at most 1 MiB"), std::string::npos) << reason;
}

TEST(SyslogClientListTest, RefreshLooksAtTheFileAtMostOnceASecond) {
    TempDir dir;
    const fs::path path = fs::path(dir.path()) / "clients";
    writeFile(path, "kitchen " + kPrint + "\n");
    SyslogClientList list(path.string());
    const std::uint64_t first = list.refresh(10000);
    EXPECT_TRUE(list.isListed("kitchen"));
    fs::remove(path);
    EXPECT_EQ(list.refresh(10500), first);  // not looked at yet
    EXPECT_TRUE(list.isListed("kitchen"));
    EXPECT_GT(list.refresh(11000), first);
    EXPECT_FALSE(list.isListed("kitchen"));
    EXPECT_EQ(list.refresh(12000), list.generation());  // still missing: no change
}

}  // namespace
