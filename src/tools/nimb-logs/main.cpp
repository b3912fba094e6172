// SPDX-License-Identifier: MIT
// nimb-logs: lists the log files in the suite's logs folder (or a folder given),
// ordered by one of the file browser's sort keys, printing chosen entry fields as
// aligned columns or tab-separated values. Single-threaded.
#include <algorithm>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "CFileTools.h"
#include "NimbVersion.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFolderError = 1;
constexpr int kExitUsage = 2;

struct Options {
    CStdStr folder;
    bool folderGiven = false;
    CStdStr sortKey = "title:asc";
    std::vector<CStdStr> fields = {"title", "size", "lastModified"};
    bool tsv = false;
    bool header = true;
    bool help = false;
};

void printHelp() {
    std::cout << "Usage: nimb-logs [--dir PATH] [--sort KEY] [--fields F1,F2,...] [--tsv]\n"
                 "                 [--no-header] [--help]\n"
                 "Lists the collected logs in the logs folder (or PATH), one line per entry.\n"
                 "Names starting with \".\" are left out; folders come first.\n\n"
                 "  --dir PATH      list PATH instead of the logs folder\n"
                 "  --sort KEY      order of the lines (default title:asc)\n"
                 "  --fields LIST   comma-separated fields to print (default "
                 "title,size,lastModified)\n"
                 "  --tsv           tab-separated values instead of aligned columns\n"
                 "  --no-header     leave out the line naming the fields\n"
                 "  --help          this text\n\n"
                 "Sort keys:\n";
    for (const char* key : CFileTools::sortKeyNames()) std::cout << "  " << key << '\n';
    std::cout << "\nFields:\n";
    for (const char* field : CFileTools::fieldNames()) std::cout << "  " << field << '\n';
    std::cout << "\nExit status: 0 listed, 1 folder unreadable, 2 usage error.\n";
}

std::vector<CStdStr> splitFields(const CStdStr& list) {
    std::vector<CStdStr> fields;
    size_t start = 0;
    while (start <= list.size()) {
        const size_t comma = std::min(list.find(',', start), list.size());
        fields.emplace_back(list.substr(start, comma - start));
        start = comma + 1;
    }
    return fields;
}

bool isKnownField(const CStdStr& field) {
    for (const char* name : CFileTools::fieldNames()) {
        if (field == name) return true;
    }
    return false;
}

// Takes the value of an option written "--name VALUE" or "--name=VALUE".
bool optionValue(int argc, char** argv, int& index, const char* name, CStdStr& value) {
    const size_t length = std::strlen(name);
    const char* argument = argv[index];
    if (std::strncmp(argument, name, length) != 0) return false;
    if (argument[length] == '=') {
        value = argument + length + 1;
        return true;
    }
    if (argument[length] != '\0') return false;
    if (index + 1 >= argc) throw std::invalid_argument(CStdStr(name) + " needs a value");
    value = argv[++index];
    return true;
}

// Reads the command line into `options`; throws std::invalid_argument with the
// reason on a usage error.
void parseArguments(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        CStdStr value;
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            options.help = true;
        } else if (std::strcmp(argv[i], "--tsv") == 0) {
            options.tsv = true;
        } else if (std::strcmp(argv[i], "--no-header") == 0) {
            options.header = false;
        } else if (optionValue(argc, argv, i, "--dir", value)) {
            options.folder = value;
            options.folderGiven = true;
        } else if (optionValue(argc, argv, i, "--sort", value)) {
            options.sortKey = value;
        } else if (optionValue(argc, argv, i, "--fields", value)) {
            options.fields = splitFields(value);
        } else {
            throw std::invalid_argument(CStdStr("unknown argument \"") + argv[i] + "\"");
        }
    }
}

// Checks the sort key and the field names; throws std::invalid_argument naming the
// first unknown one.
void checkOptions(const Options& options) {
    std::vector<CFileTools*> none;
    if (!CFileTools::SortFiles(none, options.sortKey)) {
        throw std::invalid_argument("unknown sort key \"" + options.sortKey + "\"");
    }
    for (const CStdStr& field : options.fields) {
        if (!isKnownField(field)) throw std::invalid_argument("unknown field \"" + field + "\"");
    }
}

// Writes control characters and "\" as escapes so that every entry stays on one line
// and tab-separated output keeps its columns.
CStdStr escapeValue(const CStdStr& value) {
    CStdStr escaped;
    for (const char c : value) {
        if (c == '\\') {
            escaped += "\\\\";
        } else if (c == '\t') {
            escaped += "\\t";
        } else if (c == '\n') {
            escaped += "\\n";
        } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            escaped.AppendFormat("\\x%02x", static_cast<unsigned char>(c));
        } else {
            escaped += c;
        }
    }
    return escaped;
}

// Display width: UTF-8 continuation bytes take no column.
size_t displayWidth(const CStdStr& text) {
    size_t width = 0;
    for (const char c : text) {
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++width;
    }
    return width;
}

void printRows(const std::vector<std::vector<CStdStr>>& rows, bool tsv) {
    std::vector<size_t> widths;
    if (!tsv && !rows.empty()) {
        widths.assign(rows.front().size(), 0);
        for (const auto& row : rows) {
            for (size_t i = 0; i < row.size(); ++i) {
                widths[i] = std::max(widths[i], displayWidth(row[i]));
            }
        }
    }
    for (const auto& row : rows) {
        CStdStr line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 == row.size()) break;
            if (tsv) {
                line += '\t';
            } else {
                line.append(widths[i] - displayWidth(row[i]) + 2, ' ');
            }
        }
        std::cout << line << '\n';
    }
}

int listFolder(const Options& options) {
    const CStdStr folder = options.folderGiven ? options.folder : CFileTools::GetLogsDirectory();
    CFileTools::EntryList entries;
    int error = 0;
    if (!CFileTools::EnumerateFolder(folder, entries, &error)) {
        std::cerr << "nimb-logs: cannot read folder " << folder << ": " << std::strerror(error)
                  << '\n';
        return kExitFolderError;
    }
    std::vector<CFileTools*> shown;
    for (CFileTools* entry : CFileTools::borrowEntries(entries)) {
        if (entry->getDisplayName().rfind('.', 0) != 0) shown.push_back(entry);
    }
    CFileTools::SortFiles(shown, options.sortKey);

    std::vector<std::vector<CStdStr>> rows;
    if (options.header) rows.emplace_back(options.fields.begin(), options.fields.end());
    for (CFileTools* entry : shown) {
        std::vector<CStdStr>& row = rows.emplace_back();
        for (const CStdStr& field : options.fields) {
            row.push_back(escapeValue(entry->getFieldValue(field)));
        }
    }
    printRows(rows, options.tsv);
    return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    if (nimbPrintVersionIfAsked(argc, argv, "nimb-logs")) return 0;
    Options options;
    try {
        parseArguments(argc, argv, options);
        if (!options.help) checkOptions(options);
    } catch (const std::invalid_argument& e) {
        std::cerr << "nimb-logs: " << e.what() << " (see nimb-logs --help)\n";
        return kExitUsage;
    }
    if (options.help) {
        printHelp();
        return kExitOk;
    }
    try {
        return listFolder(options);
    } catch (const std::exception& e) {
        std::cerr << "nimb-logs: " << e.what() << '\n';
        return kExitFolderError;
    }
}
