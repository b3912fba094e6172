// SPDX-License-Identifier: MIT
#include "LogsQuery.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <ostream>
#include <queue>
#include <set>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "DeviceLogIndex.h"
#include "DeviceLogLines.h"
#include "LogsHistory.h"
#include "LogsIndex.h"
#include "LogsTime.h"
#include "Utf8Text.h"

namespace {

using Level = DeviceLogSeverity::Level;
using Piece = DeviceLogIndex::Piece;

// The most pieces one query takes from the index.
constexpr std::size_t kMaxPieces = 1000000;
// Every severity bit, Unknown included.
constexpr std::uint16_t kAllLevels = (1u << (static_cast<unsigned>(Level::Unknown) + 1)) - 1;

std::string errorText(int error) {
    char buffer[256];
    return strerror_r(error, buffer, sizeof(buffer));
}

struct Line {
    long long time = 0;
    std::uint64_t order = 0;  // the piece's place in the answer, then the line's in the piece
    std::size_t piece = 0;
    const char* level = "";
    std::string text;
};

struct Later {
    bool operator()(const Line& a, const Line& b) const {
        return a.time != b.time ? a.time > b.time : a.order > b.order;
    }
};

// The log files and ".back" files the pieces are in, opened at once.
class OpenFiles {
public:
    OpenFiles() = default;
    OpenFiles(const OpenFiles&) = delete;
    OpenFiles& operator=(const OpenFiles&) = delete;
    ~OpenFiles() {
        for (const auto& [path, fd] : fds_) {
            if (fd >= 0) close(fd);
        }
    }
    // -1 with errno set when it cannot be opened.
    int open(const std::string& path) {
        const auto found = fds_.find(path);
        if (found != fds_.end()) {
            errno = errors_[path];
            return found->second;
        }
        const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        errors_[path] = fd < 0 ? errno : 0;
        fds_[path] = fd;
        return fd;
    }

private:
    std::map<std::string, int> fds_;
    std::map<std::string, int> errors_;
};

// Reads [offset, offset + length) of `fd` into `out`; false with errno set on an error.
bool readAt(int fd, std::uint64_t offset, std::size_t length, std::string& out) {
    out.resize(length);
    std::size_t got = 0;
    while (got < length) {
        const ssize_t n =
            pread(fd, out.data() + got, length - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    out.resize(got);
    return true;
}

std::string escaped(std::string_view text) { return Utf8Text::escapeControls(text, true); }

std::string deviceOf(const Piece& piece) {
    const DeviceLogIndex::Identity& source = piece.source;
    for (const std::string* name : {&source.displayName, &source.deviceId, &source.peer}) {
        if (!name->empty()) return escaped(*name);
    }
    return "-";
}

class Answer {
public:
    Answer(const LogsQuery::Request& request, std::ostream& out, std::ostream& err)
        : request_(request), out_(out), err_(err), history_(request.logsDir) {
        if (request.hasLevel) levels_ = LogsQuery::levelsFrom(request.level);
    }

    int run() {
        std::string error;
        const std::unique_ptr<DeviceLogIndex> index =
            LogsIndex::openForReading(request_.logsDir, error);
        if (!index) {
            err_ << "nimb-logs: " << error << '\n';
            return 1;
        }
        DeviceLogIndex::Query query;
        query.since = request_.since;
        query.until = request_.until;
        // With headers wanted, the level is applied here, since header pieces hold none.
        query.severities = request_.hasLevel && !request_.headers ? levels_ : 0;
        query.device = request_.device;
        query.file = request_.file;
        query.limit = kMaxPieces;
        pieces_ = index->query(query);
        if (pieces_.size() == kMaxPieces) {
            err_ << "nimb-logs: more than " << kMaxPieces
                 << " pieces match; the answer stops there (narrow the range)\n";
        }
        // The log files first, before a rotation can move them.
        for (Piece& piece : pieces_) {
            piece.path = placeOf(piece);
            if (!piece.path.empty() && !history_.isHistoryPath(piece.path)) files_.open(piece.path);
        }
        // The earliest time a line of piece i or a later one can have.
        std::vector<long long> earliest(pieces_.size() + 1, LLONG_MAX);
        for (std::size_t i = pieces_.size(); i-- > 0;) {
            earliest[i] = std::min({earliest[i + 1], pieces_[i].firstTime, fallbackOf(pieces_[i])});
        }
        for (std::size_t i = 0; i < pieces_.size() && !full(); ++i) {
            printBefore(earliest[i]);
            if (!full()) addLines(i);
        }
        printBefore(LLONG_MAX);
        out_.flush();
        return failed_ ? 1 : 0;
    }

private:
    // Where the piece's bytes are: a history generation recorded under another logs
    // folder (the folder was moved) is looked for at its place in this one.
    std::string placeOf(const Piece& piece) const {
        const std::string& logsDir = request_.logsDir;
        const std::string marker = "/history/" + piece.file + "/";
        const std::size_t at = piece.path.rfind(marker);
        if (piece.path.compare(0, logsDir.size() + 1, logsDir + "/") == 0 ||
            at == std::string::npos ||
            piece.path.find('/', at + marker.size()) != std::string::npos) {
            return piece.path;
        }
        return logsDir + marker + piece.path.substr(at + marker.size());
    }

    static long long fallbackOf(const Piece& piece) { return piece.firstReceivedMs / 1000; }

    bool full() const { return request_.limit != 0 && printed_ >= request_.limit; }

    void printBefore(long long time) {
        while (!pending_.empty() && pending_.top().time < time && !full()) {
            const Line& line = pending_.top();
            const Piece& piece = pieces_[line.piece];
            if (request_.format == LogsQuery::Format::Full) {
                out_ << LogsTime::local(line.time) << '\t' << line.level << '\t' << deviceOf(piece)
                     << '\t';
            }
            out_ << escaped(piece.file) << '\t' << escaped(line.text) << '\n';
            ++printed_;
            pending_.pop();
        }
    }

    // The piece's bytes into `text`; false when they are not to be had (said on err_).
    bool read(const Piece& piece, std::string& text) {
        std::string error;
        if (piece.path.empty() || history_.isHistoryPath(piece.path)) {
            const auto result = piece.path.empty() ? LogsHistory::Reader::Result::Gone
                                                   : history_.read(piece.path, piece.offset,
                                                                   piece.length, text, error);
            if (result == LogsHistory::Reader::Result::Gone) {
                const std::string name = piece.path.empty() ? piece.file + " generation " +
                                                                  std::to_string(piece.generation)
                                                            : piece.path;
                if (gone_.insert(name).second) {
                    err_ << "nimb-logs: " << name
                         << " is no longer kept (removed from the history); its lines are left "
                            "out\n";
                }
                return false;
            }
            if (result == LogsHistory::Reader::Result::Failed) return fail(error);
        } else {
            const int fd = files_.open(piece.path);
            if (fd < 0 || !readAt(fd, piece.offset, piece.length, text))
                return fail("cannot read " + piece.path + ": " + errorText(errno));
        }
        if (text.size() < piece.length) {
            return fail(piece.path +
                        " is shorter than the index says (rotated or cut while it "
                        "was read?); run the query again");
        }
        return true;
    }

    bool fail(const std::string& message) {
        if (reported_.insert(message).second) err_ << "nimb-logs: " << message << '\n';
        failed_ = true;
        return false;
    }

    void addLines(std::size_t index) {
        const Piece& piece = pieces_[index];
        if (piece.header && !request_.headers) return;
        if (!piece.header && request_.hasLevel && (piece.severities & levels_) == 0) return;
        std::string text;
        if (!read(piece, text)) return;
        // A piece holding one severity only says it for every line (syslog priorities).
        const std::uint16_t severities = piece.severities & kAllLevels;
        const bool oneLevel = std::popcount(severities) == 1;
        const auto pieceLevel = static_cast<Level>(std::countr_zero(severities));
        // A line without a stamp of its own (a continuation, a message without one) goes
        // with the line before it; the piece's first line with the piece's receive time.
        long long previous = fallbackOf(piece);
        std::size_t start = 0;
        std::uint64_t lineNumber = 0;
        while (start < text.size()) {
            std::size_t end = text.find('\n', start);
            if (end == std::string::npos) end = text.size();
            std::string_view line(text.data() + start, end - start);
            start = end + 1;
            if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
            if (line.empty()) continue;
            const long long time = DeviceLogLines::lineTime(line, previous);
            previous = time;
            if ((request_.since != 0 && time < request_.since) ||
                (request_.until != 0 && time >= request_.until)) {
                continue;
            }
            const char* levelName = "header";
            if (!piece.header) {
                const Level level = oneLevel ? pieceLevel : DeviceLogSeverity::ofLine(line);
                if ((DeviceLogSeverity::bit(level) & levels_) == 0) continue;
                levelName = DeviceLogSeverity::name(level);
            }
            Line kept;
            kept.time = time;
            kept.order = (static_cast<std::uint64_t>(index) << 32) | lineNumber++;
            kept.piece = index;
            kept.level = levelName;
            kept.text = std::string(line);
            pending_.push(std::move(kept));
        }
    }

    const LogsQuery::Request& request_;
    std::ostream& out_;
    std::ostream& err_;
    std::uint16_t levels_ = kAllLevels;
    std::vector<Piece> pieces_;
    OpenFiles files_;
    LogsHistory::Reader history_;
    std::priority_queue<Line, std::vector<Line>, Later> pending_;
    std::size_t printed_ = 0;
    bool failed_ = false;
    std::set<std::string> gone_;
    std::set<std::string> reported_;
};

}  // namespace

namespace LogsQuery {

std::uint16_t levelsFrom(Level level) {
    return static_cast<std::uint16_t>((1u << (static_cast<unsigned>(level) + 1)) - 1);
}

int run(const Request& request, std::ostream& out, std::ostream& err) {
    return Answer(request, out, err).run();
}

}  // namespace LogsQuery
