// SPDX-License-Identifier: MIT
#include "AlertSecrets.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "NimbTestSupport.h"

namespace {

unsigned modeOf(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

}  // namespace

TEST(AlertSecrets, StoresPrivatelyAndRefusesALooseFile) {
    nimbtest::TempDir dir;
    AlertSecrets secrets(dir / "alert-secrets.json");
    std::string error;
    EXPECT_FALSE(secrets.get("ntfy", error).has_value());  // no file yet: empty
    EXPECT_EQ(error, "");

    ASSERT_TRUE(secrets.set("ntfy", "tk_91xQ", error)) << error;
    ASSERT_TRUE(secrets.set("mail \"home\" ü", "pa ss\"wörd\n", error)) << error;
    EXPECT_EQ(modeOf(secrets.path()), 0600u);
    EXPECT_EQ(AlertSecrets(secrets.path()).get("mail \"home\" ü", error), "pa ss\"wörd\n");
    EXPECT_EQ(secrets.names(error), (std::vector<std::string>{"mail \"home\" ü", "ntfy"}));
    ASSERT_TRUE(secrets.remove("mail \"home\" ü", error));
    ASSERT_TRUE(secrets.remove("never there", error));
    EXPECT_EQ(secrets.names(error), std::vector<std::string>{"ntfy"});
    EXPECT_EQ(modeOf(secrets.path()), 0600u);
    EXPECT_EQ(std::filesystem::directory_iterator(dir.path())->path(), secrets.path());

    EXPECT_FALSE(secrets.set("", "x", error));
    EXPECT_FALSE(secrets.set("two\nlines", "x", error));
    EXPECT_FALSE(secrets.set("bytes", "\xFF\xFE", error));

    // Readable by others: refused for reading and writing, the secret never shown.
    ASSERT_EQ(::chmod(secrets.path().c_str(), 0644), 0);
    EXPECT_FALSE(secrets.get("ntfy", error).has_value());
    EXPECT_NE(error.find("mode 0644"), std::string::npos) << error;
    EXPECT_FALSE(secrets.set("ntfy", "new", error));
    EXPECT_EQ(modeOf(secrets.path()), 0644u);
    EXPECT_EQ(error.find("tk_91xQ"), std::string::npos) << error;

    nimbtest::writeFile(secrets.path(), "{\"ntfy\": tk_91xQ");
    ASSERT_EQ(::chmod(secrets.path().c_str(), 0600), 0);
    EXPECT_FALSE(secrets.get("ntfy", error).has_value());
    EXPECT_NE(error.find("not a JSON object"), std::string::npos) << error;
    EXPECT_EQ(error.find("tk_91xQ"), std::string::npos) << error;
}
