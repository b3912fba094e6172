// SPDX-License-Identifier: MIT
// Syslog ingest benchmark, run by hand (see docs/syslog.md): senders push lines over TCP
// into the real collector and, in the same run, into Debian's rsyslog (imtcp, one file
// per host; started by bench/reference/rsyslog.sh, a reference only). For each receiver:
// lines per second from the first byte sent until every line is in its file, and the
// receiver's CPU time per line (user + system, all its threads, from /proc).
//
//   syslog_bench [SENDERS [LINES [ROUNDS]]]   default 8 senders x 100000 lines of 120
//                                            bytes, 3 rounds (the receivers take turns
//                                            going first; totals over all rounds)
//   SYSLOG_BENCH_KEEP=1 syslog_bench     keeps the files (the folder is printed)
//
// Each sender is one connection, one host name, and spreads its lines over 32
// applications, so that no file of the collector reaches its rotation size (a second
// rotation would drop lines and the count could never complete). Stamps are the
// senders' current local time, as from hosts with good clocks.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "NatsServer.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t kLineBytes = 120;  // newline included
constexpr int kApps = 32;
constexpr const char* kMarker = "x-bench-";

struct Result {
    double seconds = 0;
    double cpuSeconds = 0;
    std::size_t lines = 0;
    bool complete = false;
};

double cpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const std::size_t close = text.rfind(')');
    if (close == std::string::npos) return 0;
    // Fields after the name: state is field 3; utime and stime are fields 14 and 15.
    std::vector<std::string> fields;
    std::size_t pos = close + 2;
    while (pos < text.size()) {
        const std::size_t end = text.find(' ', pos);
        fields.push_back(text.substr(pos, end - pos));
        if (end == std::string::npos) break;
        pos = end + 1;
    }
    if (fields.size() < 13) return 0;
    const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    return (std::stod(fields[11]) + std::stod(fields[12])) / ticks;
}

// One sender's lines, "<13>Mmm dd hh:mm:ss host appNN[4242]: x-bench-... xxx\n", each
// kLineBytes long, written in chunks of about 64 KiB.
void sendLines(int port, int round, int sender, int lines, std::atomic<int>& failures) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, "127.0.0.1", &peer.sin_addr);
    if (connect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)) != 0) {
        ++failures;
        close(fd);
        return;
    }
    std::string chunk;
    for (int i = 0; i < lines;) {
        chunk.clear();
        const time_t now = time(nullptr);
        tm local{};
        localtime_r(&now, &local);
        char stamp[32];
        strftime(stamp, sizeof(stamp), "%b %e %H:%M:%S", &local);
        for (; i < lines && chunk.size() < 65536 - kLineBytes; ++i) {
            char head[128];
            const int length =
                std::snprintf(head, sizeof(head), "<13>%s r%dbench%d app%02d[4242]: %s%d-%d-%d ",
                              stamp, round, sender, i % kApps, kMarker, round, sender, i);
            chunk.append(head, static_cast<std::size_t>(length));
            chunk.append(kLineBytes - 1 - static_cast<std::size_t>(length), 'x');
            chunk += '\n';
        }
        for (std::size_t sent = 0; sent < chunk.size();) {
            const ssize_t n = send(fd, chunk.data() + sent, chunk.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) {
                ++failures;
                close(fd);
                return;
            }
            sent += static_cast<std::size_t>(n);
        }
    }
    close(fd);
}

// Bytes in the folder's files (dot folders and the collector's own logs left out).
std::size_t folderBytes(const fs::path& folder) {
    std::size_t total = 0;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        if (entry.is_regular_file(error)) total += entry.file_size(error);
    }
    return total;
}

std::size_t countLines(const fs::path& folder, int round) {
    const std::string marker = kMarker + std::to_string(round) + "-";
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (!entry.is_regular_file()) continue;
        std::ifstream in(entry.path(), std::ios::binary);
        std::string line;
        while (std::getline(in, line)) {
            if (line.find(marker) != std::string::npos) ++count;
        }
    }
    return count;
}

// Sends every sender's lines to `port` and waits until they are all in `folder`: the
// end time is the last growth of the folder, seen every 5 ms, once it stood still for
// 300 ms with every line there.
Result runPhase(int port, pid_t receiver, const fs::path& folder, int round, int senders,
                int lines) {
    Result result;
    const std::size_t expected =
        static_cast<std::size_t>(senders) * static_cast<std::size_t>(lines);
    const double cpuBefore = cpuSeconds(receiver);
    std::atomic<int> failures{0};
    const Clock::time_point start = Clock::now();
    std::vector<std::thread> threads;
    for (int s = 0; s < senders; ++s)
        threads.emplace_back(sendLines, port, round, s, lines, std::ref(failures));
    for (auto& thread : threads) thread.join();
    std::size_t lastBytes = 0;
    Clock::time_point lastGrowth = Clock::now();
    const Clock::time_point deadline = start + std::chrono::seconds(180);
    while (Clock::now() < deadline && failures == 0) {
        const std::size_t bytes = folderBytes(folder);
        if (bytes != lastBytes) {
            lastBytes = bytes;
            lastGrowth = Clock::now();
        } else if (Clock::now() - lastGrowth > std::chrono::milliseconds(300)) {
            result.lines = countLines(folder, round);
            if (result.lines >= expected) {
                result.complete = true;
                break;
            }
            lastGrowth = Clock::now();  // still short: keep waiting for growth
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    result.seconds = std::chrono::duration<double>(lastGrowth - start).count();
    result.cpuSeconds = cpuSeconds(receiver) - cpuBefore;
    return result;
}

pid_t startCollector(const fs::path& folder) {
    const pid_t pid = fork();
    if (pid == 0) {
        // The collector echoes what it writes to standard output; like the service, the
        // run discards it.
        const int out = open("/dev/null", O_WRONLY);
        const int err = open((folder / "daemon.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        execl(NIMB_SYSLOG_DAEMON, NIMB_SYSLOG_DAEMON, static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

bool waitForPort(int port) {
    for (int i = 0; i < 500; ++i) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in peer{};
        peer.sin_family = AF_INET;
        peer.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, "127.0.0.1", &peer.sin_addr);
        const bool up = connect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)) == 0;
        close(fd);
        if (up) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

void writeText(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }

void report(const char* name, const Result& result) {
    std::printf("%-10s %9.0f lines/s  %6.3f s  %7.3f us CPU/line  %zu lines%s\n", name,
                static_cast<double>(result.lines) / result.seconds, result.seconds,
                result.cpuSeconds * 1e6 / static_cast<double>(result.lines), result.lines,
                result.complete ? "" : "  INCOMPLETE");
}

}  // namespace

int main(int argc, char** argv) {
    const int senders = argc > 1 ? std::atoi(argv[1]) : 8;
    const int lines = argc > 2 ? std::atoi(argv[2]) : 100000;
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 3;
    if (senders < 1 || lines < 1 || rounds < 1 || lines / kApps * 140 > 500000) {
        std::fprintf(stderr,
                     "usage: syslog_bench [SENDERS [LINES [ROUNDS]]] (at most %d lines a sender)\n",
                     500000 / 140 * kApps);
        return 64;
    }
    char folderTemplate[] = "/tmp/nimb-syslog-bench-XXXXXX";
    if (mkdtemp(folderTemplate) == nullptr) return 1;
    const fs::path folder = folderTemplate;
    for (const char* dir : {"config/pellix", "ours", "reference", "dumps"})
        fs::create_directories(folder / dir);

    NatsServer nats;
    const int ourPort = NatsServer::freePort();
    writeText(folder / "config/pellix/com.pellix.nimb.json",
              "{\"LogsDir\": \"" + (folder / "ours").string() + "\", \"LogLevel\": 1}\n");
    writeText(folder / "config/pellix/com.pellix.nimb.config.json",
              "{\"kibDirectory.host\": \"127.0.0.1:" + std::to_string(nats.port()) + "\"}\n");
    writeText(folder / "config/pellix/com.pellix.nimb.syslog.json",
              "{\"TcpPort\": " + std::to_string(ourPort) +
                  ", \"MaxLinesPerSecond\": 0, \"MaxAppsPerSender\": 64}\n");
    setenv("XDG_CONFIG_HOME", (folder / "config").c_str(), 1);
    setenv("TMPDIR", (folder / "dumps").c_str(), 1);
    const pid_t collector = startCollector(folder);

    const int referencePort = NatsServer::freePort();
    const std::string start = std::string(NIMB_RSYSLOG_SCRIPT) + " start " +
                              std::to_string(referencePort) + " " + (folder / "reference").string();
    FILE* script = popen(start.c_str(), "r");
    int reference = 0;
    if (script == nullptr || std::fscanf(script, "%d", &reference) != 1) reference = 0;
    if (script != nullptr) pclose(script);
    if (reference <= 0 || !waitForPort(ourPort)) {
        std::fprintf(stderr, "syslog_bench: a receiver did not start (see %s)\n", folder.c_str());
        return 1;
    }

    std::printf("%d senders x %d lines of %zu bytes over TCP, %d rounds\n", senders, lines,
                kLineBytes, rounds);
    Result ours, theirs;
    bool complete = true;
    for (int round = 0; round < rounds; ++round) {
        Result one, other;
        // The receivers take turns going first, so that neither always meets a warm disk.
        if (round % 2 == 0) {
            one = runPhase(ourPort, collector, folder / "ours", round, senders, lines);
            other = runPhase(referencePort, reference, folder / "reference", round, senders, lines);
        } else {
            other = runPhase(referencePort, reference, folder / "reference", round, senders, lines);
            one = runPhase(ourPort, collector, folder / "ours", round, senders, lines);
        }
        std::printf("round %d\n", round + 1);
        report("collector", one);
        report("rsyslog", other);
        for (auto [total, part] : {std::pair{&ours, &one}, std::pair{&theirs, &other}}) {
            total->seconds += part->seconds;
            total->cpuSeconds += part->cpuSeconds;
            total->lines += part->lines;
            complete = complete && part->complete;
        }
    }
    ours.complete = theirs.complete = complete;
    std::printf("all rounds\n");
    report("collector", ours);
    report("rsyslog", theirs);
    const double rateRatio = (static_cast<double>(ours.lines) / ours.seconds) /
                             (static_cast<double>(theirs.lines) / theirs.seconds);
    const double cpuRatio = (ours.cpuSeconds / static_cast<double>(ours.lines)) /
                            (theirs.cpuSeconds / static_cast<double>(theirs.lines));
    std::printf("ratio      %9.2fx lines/s      %7.2fx CPU/line (collector / rsyslog)\n", rateRatio,
                cpuRatio);

    kill(collector, SIGTERM);
    waitpid(collector, nullptr, 0);
    const std::string stop =
        std::string(NIMB_RSYSLOG_SCRIPT) + " stop " + std::to_string(reference);
    if (std::system(stop.c_str()) != 0) std::fprintf(stderr, "syslog_bench: rsyslog stop failed\n");
    if (getenv("SYSLOG_BENCH_KEEP") != nullptr) {
        std::printf("files kept in %s\n", folder.c_str());
    } else {
        fs::remove_all(folder);
    }
    return complete ? 0 : 1;
}
