// SPDX-License-Identifier: MIT
// CFileTools as a file entry: accessors on real files, folder listing, ordering by
// every sort key and the named field values.
#include <ctime>
#include <map>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "CFileTools.h"
#include "NimbTestSupport.h"

namespace {

using namespace nimbtest;

// An entry whose name, kind, size and times are set by the test; the path does not
// exist, so the no-attributes flag is cleared by hand.
class FakeEntry : public CFileTools {
public:
    FakeEntry(const std::string& name, bool folder, uint64_t size = 0, int32_t time = 0)
        : CFileTools("/nonexistent-fake", name), folder_(folder), size_(size), time_(time) {
        setNoAttributes(false);
    }
    bool isFolder() const override { return folder_; }
    uint64_t getFileSize() const override { return size_; }
    int32_t getDateCreated() const override { return time_; }
    int32_t getLastModified() const override { return time_; }
    int32_t getLastAccessed() const override { return time_; }

private:
    bool folder_ = false;
    uint64_t size_ = 0;
    int32_t time_ = 0;
};

std::string titles(const std::vector<CFileTools*>& entries) {
    std::string joined;
    for (const CFileTools* entry : entries) {
        if (!joined.empty()) joined += ' ';
        joined += entry->getDisplayName();
    }
    return joined;
}

// Seconds since 1970 of a local date and time.
int32_t localTime(int year, int month, int day, int hour, int minute, int second) {
    tm fields = nimbtest::dateTime(year, month, day, hour, minute, second);
    return static_cast<int32_t>(std::mktime(&fields));
}

class EntryTest : public ConfigHomeTest {
protected:
    // A file of `size` bytes with its access and modification times set.
    std::string makeFile(const std::string& name, size_t size, int32_t modified, int32_t accessed) {
        const std::string path = dir_ / name;
        writeFile(path, std::string(size, 'x'));
        const timespec times[2] = {{accessed, 0}, {modified, 0}};
        EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
        return path;
    }

    // Lists dir_ and returns the entries sorted by `key`.
    std::string sortedListing(const std::string& key) {
        CFileTools::EntryList entries;
        EXPECT_TRUE(CFileTools::EnumerateFolder(dir_.path(), entries));
        std::vector<CFileTools*> borrowed = CFileTools::borrowEntries(entries);
        EXPECT_TRUE(CFileTools::SortFiles(borrowed, key)) << key;
        return titles(borrowed);
    }
};

TEST_F(EntryTest, FieldsOfARealFileAndFolder) {
    const int32_t modified = localTime(2021, 3, 14, 15, 9, 26);
    const std::string path = makeFile("Song.Final.MP3", 1234, modified, modified + 60);
    const CFileTools entry(dir_.path(), "Song.Final.MP3");
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    const std::string medium =
        std::to_string(major(info.st_dev)) + ":" + std::to_string(minor(info.st_dev));
    const std::pair<const char*, std::string> fields[] = {
        {"title", "Song.Final.MP3"},
        {"path", path},
        {"path.extension", "MP3"},
        {"path.directory", dir_.path()},
        {"mediumId", medium},
        {"type", "file"},
        {"mediaType", "audio.file"},
        {"size", "1234"},
        {"lastModified", "2021-03-14 15:09:26"},
        {"lastAccessTime", "2021-03-14 15:10:26"},
        {"Title", ""},
    };
    for (const auto& [field, value] : fields) EXPECT_EQ(entry.getFieldValue(field), value) << field;
    EXPECT_GE(entry.getDateCreated(), static_cast<int32_t>(info.st_ctime) - 5);

    ASSERT_TRUE(fs::create_directory(dir_ / "folder.d"));
    const CFileTools folder(dir_ / "folder.d/");
    EXPECT_EQ(folder.getDisplayName(), "folder.d");
    EXPECT_EQ(folder.getFieldValue("type"), "folder");
    EXPECT_EQ(folder.getFileSize(), 0u);
    EXPECT_EQ(CFileTools(".profile").getExtension(), "");
    EXPECT_EQ(CFileTools("/x//y.tar.gz").getDirectory(), "/x");
}

TEST_F(EntryTest, MissingEntryHasNoAttributesAndEmptySizeAndDates) {
    CFileTools missing(dir_ / "gone.txt");
    EXPECT_TRUE(missing.hasNoAttributes());
    EXPECT_EQ(missing.getMediumId(), "");
    EXPECT_EQ(missing.getFieldValue("title"), "gone.txt");
    EXPECT_EQ(missing.getFieldValue("mediaType"), "text.file");
    for (const char* field : {"size", "lastModified", "lastAccessTime", "creationDate.year"}) {
        EXPECT_EQ(missing.getFieldValue(field), "") << field;
    }

    int error = 0;
    CFileTools::EntryList none;
    EXPECT_FALSE(CFileTools::EnumerateFolder(dir_ / "absent", none, &error));
    EXPECT_EQ(error, ENOENT);
}

TEST_F(EntryTest, CreationMonthKeepsFourDigitsAndUnknownMediaTypeIsFile) {
    FakeEntry march("clip.MKV", false, 0, localTime(2019, 3, 2, 8, 7, 6));
    EXPECT_EQ(march.getFieldValue("creationDate"), "2019-03-02 08:07:06");
    EXPECT_EQ(march.getFieldValue("creationDate.year"), "2019");
    EXPECT_EQ(march.getFieldValue("creationDate.month"), "0003");
    EXPECT_EQ(march.getFieldValue("mediaType"), "video.file");

    EXPECT_EQ(FakeEntry("README", false).getFieldValue("mediaType"), "file");
    EXPECT_EQ(FakeEntry("a.QQZZ", false).getFieldValue("mediaType"), "file");
}

// Real files with set sizes and times, plus two folders that must lead every order.
TEST_F(EntryTest, EveryKeyOrdersRealFilesWithFoldersFirst) {
    ASSERT_TRUE(fs::create_directory(dir_ / "zeta"));
    // "config" (the settings home of the fixture) is the second folder.
    const int32_t base = localTime(2020, 6, 1, 12, 0, 0);
    makeFile("b.txt", 30, base + 20, base + 100);
    makeFile("A.mp3", 10, base + 30, base + 300);
    makeFile("c.jpg", 20, base + 10, base + 200);

    const std::map<std::string, std::string> expected = {
        {"title:asc", "config zeta A.mp3 b.txt c.jpg"},
        {"title:desc", "zeta config c.jpg b.txt A.mp3"},
        {"path:asc", "config zeta A.mp3 b.txt c.jpg"},  // the path keys order by title
        {"path:desc", "zeta config c.jpg b.txt A.mp3"},
        {"path.extension:asc", "c.jpg A.mp3 b.txt"},
        {"path.extension:desc", "b.txt A.mp3 c.jpg"},
        {"size:asc", "A.mp3 c.jpg b.txt"},
        {"size:desc", "b.txt c.jpg A.mp3"},
        {"lastModified:asc", "c.jpg b.txt A.mp3"},
        {"lastModified:desc", "A.mp3 b.txt c.jpg"},
        {"lastAccessTime:asc", "b.txt c.jpg A.mp3"},
        {"lastAccessTime:desc", "A.mp3 c.jpg b.txt"},
    };
    for (const auto& [key, files] : expected) {
        const std::string listing = sortedListing(key);
        // Folders compare equal under the non-title keys, so only their place is fixed.
        if (key.rfind("title", 0) == 0 || key.rfind("path:", 0) == 0) {
            EXPECT_EQ(listing, files) << key;
        } else {
            EXPECT_TRUE(listing.rfind("config zeta ", 0) == 0 ||
                        listing.rfind("zeta config ", 0) == 0)
                << key << ": " << listing;
            EXPECT_EQ(listing.substr(12), files) << key;
        }
    }
}

// Creation times cannot be set on real files; sizes past 2^63 and times before 1970
// cannot be made either. Titles ignore case and non-ASCII bytes sort first.
TEST_F(EntryTest, FakeEntriesSortBySignedTimesUnsignedSizesAndCaselessTitles) {
    FakeEntry old("old", false, UINT64_MAX, -100), mid("mid", false, 5, 200),
        young("young", false, 1, 300), folder("dir", true, 0, 400);
    FakeEntry apple("apple", false), banana("Banana", false), elan("\xC3\x89lan", false),
        cherry("cherry", false), app("app", false);
    const struct {
        std::vector<CFileTools*> entries;
        const char* key;
        const char* order;
    } cases[] = {
        {{&young, &old, &folder, &mid}, "creationDate:asc", "dir old mid young"},
        {{&young, &old, &folder, &mid}, "creationDate:desc", "dir young mid old"},
        {{&young, &old, &folder, &mid}, "size:desc", "dir old mid young"},
        {{&cherry, &banana, &apple, &elan, &app},
         "title:asc",
         "\xC3\x89lan app apple Banana cherry"},
    };
    for (auto c : cases) {
        ASSERT_TRUE(CFileTools::SortFiles(c.entries, c.key)) << c.key;
        EXPECT_EQ(titles(c.entries), c.order) << c.key;
    }
}

TEST_F(EntryTest, OnlyTheTextBeforeACommaPastTheStartIsTheKey) {
    FakeEntry big("a-big", false, 300), small("b-small", false, 100), folder("z-dir", true, 0);
    std::vector<CFileTools*> entries = {&big, &small, &folder};
    EXPECT_TRUE(CFileTools::SortFiles(entries, "size:asc,title:asc"));
    EXPECT_EQ(titles(entries), "z-dir b-small a-big");

    // Unknown keys still sort, by title ascending.
    for (const char* key : {",size:asc", "Path:asc", "size:asc "}) {
        std::vector<CFileTools*> shuffled = {&small, &folder, &big};
        EXPECT_FALSE(CFileTools::SortFiles(shuffled, key)) << key;
        EXPECT_EQ(titles(shuffled), "z-dir a-big b-small") << key;
    }

    std::vector<CFileTools*> empty;
    EXPECT_TRUE(CFileTools::SortFiles(empty, "size:asc"));
    EXPECT_FALSE(CFileTools::SortFiles(empty, "Size:asc"));
}

}  // namespace
