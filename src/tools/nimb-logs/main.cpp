// SPDX-License-Identifier: MIT
// nimb-logs: lists the log files in the suite's logs folder (or a folder given),
// ordered by one of the file browser's sort keys, printing chosen entry fields as
// aligned columns or tab-separated values; lists the history of rotated generations;
// prints the collected lines a time range, level and device select (LogsQuery); rebuilds
// the index (LogsIndex). Single-threaded.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QStringList>

#include "CFileTools.h"
#include "LogsHistory.h"
#include "LogsIndex.h"
#include "LogsQuery.h"
#include "LogsTable.h"
#include "LogsTime.h"
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
    bool listingOptionGiven = false;  // --sort or --fields
    bool tableOptionGiven = false;    // --tsv or --no-header
    bool history = false;
    bool reindex = false;
    bool queryGiven = false;  // an option only a query takes
    CStdStr since, until, level, limit, format;
    CStdStr device, file;
    LogsQuery::Request query;
};

void printHelp() {
    std::cout << "Usage: nimb-logs [--dir PATH] [--sort KEY] [--fields F1,F2,...] [--tsv]\n"
                 "                 [--no-header] [--help]\n"
                 "       nimb-logs [--dir PATH] --history [--device NAME] [--tsv] [--no-header]\n"
                 "       nimb-logs [--dir PATH] [--since T] [--until T] [--level L] [--device "
                 "NAME]\n"
                 "                 [--file FILE] [--limit N] [--headers] [--format line|full]\n"
                 "       nimb-logs [--dir PATH] --reindex\n"
                 "Lists the collected logs in the logs folder (or PATH), one line per entry.\n"
                 "Names starting with \".\" are left out; folders come first.\n\n"
                 "  --dir PATH      the logs folder is PATH\n"
                 "  --sort KEY      order of the lines (default title:asc)\n"
                 "  --fields LIST   comma-separated fields to print (default "
                 "title,size,lastModified)\n"
                 "  --tsv           tab-separated values instead of aligned columns\n"
                 "  --no-header     leave out the line naming the fields\n"
                 "  --help          this text\n\n"
                 "History: the rotated generations kept, oldest first.\n"
                 "  --history       list them: log, time moved, raw and compressed bytes, path\n"
                 "  --device NAME   only the logs of this device (name, id, MAC or file prefix)\n\n"
                 "Query: the collected lines the index points at, sorted by time, as\n"
                 "\"<file>\\t<line>\" (any of these options asks for one):\n"
                 "  --since T       lines at or after T\n"
                 "  --until T       lines before T\n"
                 "  --level L       lines of level L or more severe (emerg alert crit error\n"
                 "                  warning notice info debug; unknown: every line)\n"
                 "  --device NAME   lines of this device (name, id, MAC or file prefix)\n"
                 "  --file FILE     lines of this log file\n"
                 "  --limit N       the first N lines only\n"
                 "  --headers       the announces' header lines too\n"
                 "  --format F      line (default) or full: time, level, device, file, line\n"
                 "Times: \"YYYY-MM-DD hh:mm[:ss]\" or \"YYYY/MM/DD hh:mm:ss\" (local time),\n"
                 "ISO 8601 with a zone (2026-11-24T12:00:00Z), -30s, -15m, -2h, -7d, now.\n\n"
                 "  --reindex       rebuild the index from the log files (stop the collector "
                 "first)\n\n"
                 "Sort keys:\n";
    for (const char* key : CFileTools::sortKeyNames()) std::cout << "  " << key << '\n';
    std::cout << "\nFields:\n";
    for (const char* field : CFileTools::fieldNames()) std::cout << "  " << field << '\n';
    std::cout << "\nExit status: 0 done, 1 folder, history or index unreadable (or the\n"
                 "collector is running, for --reindex), 2 usage error.\n";
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

// Options that take a value ("--name VALUE" or "--name=VALUE"), and those that stand alone.
const char* const kValueOptions[] = {"dir",   "sort",  "fields", "device", "since",
                                     "until", "level", "file",   "limit",  "format"};
const char* const kFlagOptions[] = {"tsv", "no-header", "history", "reindex", "headers"};

bool isFlagOption(const QString& name) {
    for (const char* flag : kFlagOptions) {
        if (name == QLatin1String(flag)) return true;
    }
    return false;
}

// The usage error for a command line the parser refused: the first argument it could
// not place (an unknown option as written, a flag given a value, a word no option takes),
// else the option at the end that lacks its value.
std::string refusal(const QCommandLineParser& parser, const QStringList& arguments) {
    const QStringList unknown = parser.unknownOptionNames();
    const QStringList words = parser.positionalArguments();
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        bool refused = argument == QLatin1String("--") || words.contains(argument);
        if (argument.startsWith(QLatin1String("--"))) {
            const QString name = argument.mid(2).section(QLatin1Char('='), 0, 0);
            refused = refused || unknown.contains(name) ||
                      (isFlagOption(name) && argument.contains(QLatin1Char('=')));
        } else if (argument.startsWith(QLatin1Char('-'))) {
            for (const QChar letter : argument.mid(1))
                refused = refused || unknown.contains(QString(letter));
        }
        if (refused) return "unknown argument \"" + argument.toStdString() + "\"";
    }
    const QString last = arguments.last();
    if (last.startsWith(QLatin1String("--"))) return last.toStdString() + " needs a value";
    return parser.errorText().toStdString();
}

// Reads the command line into `options`; throws std::invalid_argument with the
// reason on a usage error.
void parseArguments(const QStringList& arguments, Options& options) {
    QCommandLineParser parser;
    const QCommandLineOption help(QStringList{QStringLiteral("h"), QStringLiteral("help")});
    parser.addOption(help);
    for (const char* name : kFlagOptions) parser.addOption(QCommandLineOption(QLatin1String(name)));
    for (const char* name : kValueOptions)
        parser.addOption(
            QCommandLineOption(QLatin1String(name), QString(), QStringLiteral("value")));
    if (!parser.parse(arguments) || !parser.positionalArguments().isEmpty() ||
        arguments.contains(QStringLiteral("--")))
        throw std::invalid_argument(refusal(parser, arguments));

    const auto isSet = [&](const char* name) { return parser.isSet(QLatin1String(name)); };
    const auto value = [&](const char* name) {
        return CStdStr(parser.value(QLatin1String(name)).toStdString());
    };
    options.help = parser.isSet(help);
    options.tsv = isSet("tsv");
    options.header = !isSet("no-header");
    options.tableOptionGiven = options.tsv || !options.header;
    options.history = isSet("history");
    options.reindex = isSet("reindex");
    options.query.headers = isSet("headers");
    if (isSet("dir")) {
        options.folder = value("dir");
        options.folderGiven = true;
    }
    if (isSet("sort")) options.sortKey = value("sort");
    if (isSet("fields")) options.fields = splitFields(value("fields"));
    options.listingOptionGiven = isSet("sort") || isSet("fields");
    options.device = value("device");
    const std::pair<const char*, CStdStr*> query[] = {
        {"since", &options.since}, {"until", &options.until}, {"level", &options.level},
        {"file", &options.file},   {"limit", &options.limit}, {"format", &options.format}};
    options.queryGiven = options.query.headers;
    for (const auto& [name, target] : query) {
        *target = value(name);
        options.queryGiven = options.queryGiven || isSet(name);
    }
}

// Reads the query's times, level, limit and format into options.query; throws
// std::invalid_argument naming the first value that does not read.
void readQuery(Options& options) {
    LogsQuery::Request& query = options.query;
    const long long now = static_cast<long long>(std::time(nullptr));
    const auto readTime = [now](const CStdStr& text, const char* name, long long& time) {
        if (!text.empty() && !LogsTime::parse(text, now, time)) {
            throw std::invalid_argument(std::string(name) + ": cannot read the time \"" + text +
                                        "\" (YYYY-MM-DD hh:mm[:ss], YYYY/MM/DD hh:mm:ss, ISO "
                                        "8601 with a zone, -15m, -2h, -7d or now)");
        }
    };
    readTime(options.since, "--since", query.since);
    readTime(options.until, "--until", query.until);
    if (!options.since.empty() && !options.until.empty() && query.since >= query.until)
        throw std::invalid_argument("--since must be before --until");
    if (!options.level.empty()) {
        if (!DeviceLogSeverity::parse(options.level, query.level))
            throw std::invalid_argument("unknown level \"" + options.level + "\"");
        query.hasLevel = true;
    }
    if (!options.limit.empty()) {
        char* end = nullptr;
        errno = 0;
        const unsigned long long limit = std::strtoull(options.limit.c_str(), &end, 10);
        if (options.limit[0] < '1' || options.limit[0] > '9' || *end != '\0' || errno != 0)
            throw std::invalid_argument("--limit takes a count of lines, not \"" + options.limit +
                                        "\"");
        query.limit = static_cast<std::size_t>(limit);
    }
    if (options.format == "full") {
        query.format = LogsQuery::Format::Full;
    } else if (!options.format.empty() && options.format != "line") {
        throw std::invalid_argument("unknown format \"" + options.format + "\" (line or full)");
    }
    query.device = options.device;
    query.file = options.file;
}

// Checks the sort key and the field names, and that the options ask for one thing;
// throws std::invalid_argument naming the first unknown or misplaced one.
void checkOptions(Options& options) {
    const bool query = options.queryGiven || (!options.device.empty() && !options.history);
    if (int(options.history) + int(options.reindex) + int(query) > 1)
        throw std::invalid_argument("--history, --reindex and a query go one at a time");
    if (options.listingOptionGiven && (options.history || options.reindex || query))
        throw std::invalid_argument("--sort and --fields are for the folder listing only");
    if (options.tableOptionGiven && (options.reindex || query))
        throw std::invalid_argument("--tsv and --no-header are for listings only");
    if (options.reindex && !options.device.empty())
        throw std::invalid_argument("--reindex takes no --device");
    if (query) {
        options.queryGiven = true;
        readQuery(options);
    }
    std::vector<CFileTools*> none;
    if (!CFileTools::SortFiles(none, options.sortKey)) {
        throw std::invalid_argument("unknown sort key \"" + options.sortKey + "\"");
    }
    for (const CStdStr& field : options.fields) {
        if (!isKnownField(field)) throw std::invalid_argument("unknown field \"" + field + "\"");
    }
}

CStdStr logsFolder(const Options& options) {
    return options.folderGiven ? options.folder : CFileTools::GetLogsDirectory();
}

int listFolder(const Options& options) {
    const CStdStr folder = logsFolder(options);
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
            row.push_back(LogsTable::escapeValue(entry->getFieldValue(field)));
        }
    }
    LogsTable::printRows(rows, options.tsv);
    return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    if (nimbPrintVersionIfAsked(argc, argv, "nimb-logs")) return 0;
    Options options;
    try {
        QStringList arguments;
        for (int i = 0; i < argc; ++i) arguments << QString::fromLocal8Bit(argv[i]);
        parseArguments(arguments, options);
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
        if (options.history) {
            return LogsTable::printHistory(logsFolder(options), options.device, options.tsv,
                                           options.header);
        }
        if (options.reindex) return LogsIndex::reindex(logsFolder(options), std::cout, std::cerr);
        if (options.queryGiven) {
            options.query.logsDir = logsFolder(options);
            return LogsQuery::run(options.query, std::cout, std::cerr);
        }
        return listFolder(options);
    } catch (const std::exception& e) {
        std::cerr << "nimb-logs: " << e.what() << '\n';
        return kExitFolderError;
    }
}
