// SPDX-License-Identifier: MIT
// Ordering of entry lists by the browser's sort keys, and the named field values of
// an entry.
#include <algorithm>
#include <ctime>
#include <locale>
#include <mutex>

#include "CFileTools.h"

std::map<CStdStr, CStdStr> CFileTools::s_extensionMediaTypeMap = {
    // Audio
    {".aac", "audio"},
    {".ac3", "audio"},
    {".aif", "audio"},
    {".aiff", "audio"},
    {".ape", "audio"},
    {".flac", "audio"},
    {".m4a", "audio"},
    {".mid", "audio"},
    {".midi", "audio"},
    {".mka", "audio"},
    {".mp2", "audio"},
    {".mp3", "audio"},
    {".oga", "audio"},
    {".ogg", "audio"},
    {".opus", "audio"},
    {".wav", "audio"},
    {".wma", "audio"},
    // Video
    {".3gp", "video"},
    {".avi", "video"},
    {".divx", "video"},
    {".flv", "video"},
    {".m2ts", "video"},
    {".m4v", "video"},
    {".mkv", "video"},
    {".mov", "video"},
    {".mp4", "video"},
    {".mpeg", "video"},
    {".mpg", "video"},
    {".mts", "video"},
    {".ogv", "video"},
    {".ts", "video"},
    {".vob", "video"},
    {".webm", "video"},
    {".wmv", "video"},
    // Images
    {".bmp", "image"},
    {".gif", "image"},
    {".heic", "image"},
    {".ico", "image"},
    {".jpeg", "image"},
    {".jpg", "image"},
    {".png", "image"},
    {".svg", "image"},
    {".tif", "image"},
    {".tiff", "image"},
    {".webp", "image"},
    // Text
    {".csv", "text"},
    {".htm", "text"},
    {".html", "text"},
    {".json", "text"},
    {".log", "text"},
    {".md", "text"},
    {".nfo", "text"},
    {".srt", "text"},
    {".txt", "text"},
    {".xml", "text"},
};

namespace {

// Guards the inserts that "mediaType" makes into the media-type map.
std::mutex g_mediaTypeMapMutex;

enum class SortField { kTitle, kExtension, kSize, kCreated, kModified, kAccessed };

struct SortOrder {
    SortField field = SortField::kTitle;
    bool descending = false;
};

const std::map<CStdStr, SortOrder>& sortOrders() {
    static const std::map<CStdStr, SortOrder> kOrders = {
        {"title:asc", {SortField::kTitle, false}},
        {"title:desc", {SortField::kTitle, true}},
        {"path:asc", {SortField::kTitle, false}},
        {"path:desc", {SortField::kTitle, true}},
        {"path.extension:asc", {SortField::kExtension, false}},
        {"path.extension:desc", {SortField::kExtension, true}},
        {"size:asc", {SortField::kSize, false}},
        {"size:desc", {SortField::kSize, true}},
        {"creationDate:asc", {SortField::kCreated, false}},
        {"creationDate:desc", {SortField::kCreated, true}},
        {"lastModified:asc", {SortField::kModified, false}},
        {"lastModified:desc", {SortField::kModified, true}},
        {"lastAccessTime:asc", {SortField::kAccessed, false}},
        {"lastAccessTime:desc", {SortField::kAccessed, true}},
    };
    return kOrders;
}

// Compares two texts character by character after lower-casing each with the classic
// locale, up to the first difference or the end of `a`. The last two characters
// decide as signed 8-bit values, so bytes of 0x80 and above (all non-ASCII UTF-8)
// sort before every ASCII character. Negative when `a` is smaller.
int compareNoCase(const CStdStr& a, const CStdStr& b) {
    static const std::ctype<char>& ctype = std::use_facet<std::ctype<char>>(std::locale::classic());
    const char* pa = a.c_str();
    const char* pb = b.c_str();
    signed char ca = 0;
    signed char cb = 0;
    for (;; ++pa, ++pb) {
        ca = static_cast<signed char>(ctype.tolower(*pa));
        cb = static_cast<signed char>(ctype.tolower(*pb));
        if (ca == 0 || ca != cb) break;
    }
    return ca - cb;
}

template <typename T>
int compareValues(T a, T b) {
    return a < b ? -1 : (a > b ? 1 : 0);
}

int compareByField(const CFileTools& a, const CFileTools& b, SortField field) {
    switch (field) {
        case SortField::kTitle:
            return compareNoCase(a.getDisplayName(), b.getDisplayName());
        case SortField::kExtension:
            return compareNoCase(a.getExtension(), b.getExtension());
        case SortField::kSize:
            return compareValues(a.getFileSize(), b.getFileSize());
        case SortField::kCreated:
            return compareValues(a.getDateCreated(), b.getDateCreated());
        case SortField::kModified:
            return compareValues(a.getLastModified(), b.getLastModified());
        case SortField::kAccessed:
            return compareValues(a.getLastAccessed(), b.getLastAccessed());
    }
    return 0;
}

}  // namespace

bool CFileTools::SortFiles(std::vector<CFileTools*>& entries, const CStdStr& sortKey) {
    const size_t comma = sortKey.find(',');
    const CStdStr key =
        (comma != std::string::npos && comma > 0) ? CStdStr(sortKey.substr(0, comma)) : sortKey;
    const auto found = sortOrders().find(key);
    const bool known = found != sortOrders().end();
    const SortOrder order = known ? found->second : SortOrder{};
    std::sort(entries.begin(), entries.end(), [order](CFileTools* a, CFileTools* b) {
        const bool aFolder = a->isFolder();
        if (aFolder != b->isFolder()) return aFolder;
        const int difference = compareByField(*a, *b, order.field);
        return order.descending ? difference > 0 : difference < 0;
    });
    return known;
}

const std::vector<const char*>& CFileTools::sortKeyNames() {
    static const std::vector<const char*> kNames = {
        "title:asc",          "title:desc",          "path:asc",         "path:desc",
        "path.extension:asc", "path.extension:desc", "size:asc",         "size:desc",
        "creationDate:asc",   "creationDate:desc",   "lastModified:asc", "lastModified:desc",
        "lastAccessTime:asc", "lastAccessTime:desc",
    };
    return kNames;
}

const std::vector<const char*>& CFileTools::fieldNames() {
    static const std::vector<const char*> kNames = {
        "title",          "mediumId",       "nimbMediumId",      "path",
        "path.extension", "path.directory", "path.filename",     "type",
        "mediaType",      "size",           "dateModified",      "lastModified",
        "lastAccessTime", "creationDate",   "creationDate.year", "creationDate.month",
    };
    return kNames;
}

CStdStr CFileTools::getFieldValue(const CStdStr& field) const {
    if (field == "title" || field == "path.filename") return getDisplayName();
    if (field == "mediumId" || field == "nimbMediumId") return getMediumId();
    if (field == "path") return getPath();
    if (field == "path.extension") return getExtension();
    if (field == "path.directory") return getDirectory();
    if (field == "type") return isFolder() ? "folder" : "file";
    if (field == "mediaType") return mediaTypeField();

    CStdStr value;
    if (noAttributes_) return value;
    if (field == "size") {
        value.Format("%lld", static_cast<long long>(getFileSize()));
    } else if (field == "dateModified" || field == "lastModified") {
        value = dateField(getLastModified());
    } else if (field == "lastAccessTime") {
        value = dateField(getLastAccessed());
    } else if (field == "creationDate") {
        value = dateField(getDateCreated());
    } else if (field == "creationDate.year" || field == "creationDate.month") {
        const time_t seconds = getDateCreated();
        struct tm local {};
        if (::localtime_r(&seconds, &local)) {
            // The month keeps the year's four-digit format ("0003" for March).
            value.Format("%04d",
                         field == "creationDate.year" ? local.tm_year + 1900 : local.tm_mon + 1);
        }
    }
    return value;
}

CStdStr CFileTools::dateField(int32_t seconds) const {
    const time_t time = seconds;
    struct tm local {};
    CStdStr value;
    if (::localtime_r(&time, &local)) {
        value.Format("%04d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1,
                     local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    }
    return value;
}

CStdStr CFileTools::mediaTypeField() const {
    static const std::ctype<char>& ctype = std::use_facet<std::ctype<char>>(std::locale::classic());
    CStdStr extension(".");
    extension += getExtension();
    ctype.tolower(extension.data(), extension.data() + extension.size());
    CStdStr mediaType;
    {
        std::lock_guard<std::mutex> lock(g_mediaTypeMapMutex);
        mediaType = s_extensionMediaTypeMap[extension];
    }
    return mediaType.empty() ? CStdStr("file") : mediaType + ".file";
}
