// SPDX-License-Identifier: MIT
#include "LogsTable.h"

#include <algorithm>
#include <iostream>
#include <set>

#include "DeviceLogIndex.h"
#include "LogsHistory.h"
#include "LogsTime.h"

namespace {

// Display width: UTF-8 continuation bytes take no column.
size_t displayWidth(const CStdStr& text) {
    size_t width = 0;
    for (const char c : text) {
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++width;
    }
    return width;
}

// The logs of `device`: those whose name starts with it, and those the index knows the
// device announced itself in (by display name, id or MAC).
bool isLogOf(const std::string& file, const std::string& device, std::set<std::string>& known,
             bool& asked, const std::string& logsDir) {
    if (file.compare(0, device.size(), device) == 0) return true;
    if (!asked) {
        asked = true;
        std::string error;
        if (const auto index = DeviceLogIndex::openForReading(logsDir, error)) {
            DeviceLogIndex::Query headers;
            headers.device = device;
            headers.headersOnly = true;
            for (const DeviceLogIndex::Piece& piece : index->query(headers))
                known.insert(piece.file);
        }
    }
    return known.count(file) != 0;
}

}  // namespace

namespace LogsTable {

int printHistory(const std::string& logsDir, const std::string& device, bool tsv, bool header) {
    std::vector<LogsHistory::Generation> generations;
    std::vector<std::string> problems;
    std::string error;
    if (!LogsHistory::list(logsDir, generations, problems, error)) {
        std::cerr << "nimb-logs: " << error << '\n';
        return 1;
    }
    for (const std::string& problem : problems) std::cerr << "nimb-logs: " << problem << '\n';
    std::vector<std::vector<CStdStr>> rows;
    if (header) rows.push_back({"log", "moved", "raw", "compressed", "path"});
    std::set<std::string> known;
    bool asked = false;
    for (const LogsHistory::Generation& generation : generations) {
        if (!device.empty() && !isLogOf(generation.fileName, device, known, asked, logsDir)) {
            continue;
        }
        rows.push_back({escapeValue(generation.fileName), LogsTime::local(generation.movedAt),
                        std::to_string(generation.rawBytes),
                        generation.compressedBytes != 0 ? std::to_string(generation.compressedBytes)
                                                        : CStdStr("-"),
                        escapeValue(generation.path.substr(logsDir.size() + 1))});
    }
    printRows(rows, tsv);
    return 0;
}

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

}  // namespace LogsTable
