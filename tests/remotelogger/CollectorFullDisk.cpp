// SPDX-License-Identifier: MIT
// collector_fulldisk <root folder> <bus host>
// The full-disk scenario of the collector, run by its test under `unshare -rm` (or -m as
// root), so that the tmpfs it mounts lives and dies with this process's mount namespace;
// the collector it starts inherits the namespace. Mounts 2 MiB at <root>/disk, fills it
// up, lets simulated devices push far more than fits, frees space and checks that every
// acknowledged line is in its file, whole. Exit 0: all held; 3: a check failed (each on
// standard output); 77: no file system could be mounted (the reason on standard output).
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include "CollectorProcess.h"
#include "DeviceSimulator.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Mounts a tmpfs of `bytes` at `folder`, the mounts of this namespace made private first.
// Empty on success, else why it could not.
std::string mountSmallDisk(const fs::path& folder, std::size_t bytes) {
    const auto failed = [](const std::string& what) { return what + ": " + std::strerror(errno); };
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return failed("cannot make the mounts private");
    const std::string size = "size=" + std::to_string(bytes);
    if (::mount("tmpfs", folder.c_str(), "tmpfs", 0, size.c_str()) != 0)
        return failed("cannot mount a tmpfs");
    return {};
}

// Fills the file system of `file` up to `spare` free bytes.
void fillUpTo(const fs::path& file, std::size_t spare) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const std::vector<char> block(4096, 'f');
    off_t size = 0;
    for (int i = 0; i < 1 << 16; ++i, size += static_cast<off_t>(block.size())) {
        if (::write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) break;
    }
    (void)::ftruncate(fd, size > static_cast<off_t>(spare) ? size - static_cast<off_t>(spare) : 0);
    ::close(fd);
}

// The scenario on the mounted `disk`; the failures found.
std::vector<std::string> fullDisk(CollectorProcess& collector, const std::string& host,
                                  const fs::path& disk) {
    // Room for the index and the first lines; the devices bring far more.
    fillUpTo(disk / "filler", 256 * 1024);
    collector.setLogsFolder(disk);
    std::vector<std::string> failures;
    const auto expect = [&](bool condition, const std::string& what) {
        if (!condition) failures.push_back(what);
    };
    if (!collector.start()) return {"collector did not start"};
    nimbtest::DeviceSimulator::Options options;
    options.host = host;
    options.linesPerLog = 400;  // about 700 KB in all, far more than the free space
    nimbtest::DeviceSimulator devices(options);
    expect(devices.start(), "devices did not connect");
    expect(nimbtest::waitUntil([&] { return devices.errorReplies() > 40; }, 30s),
           "no error replies while the disk was full");
    const std::string error = devices.firstError();
    expect(error.find("AppendLog: cannot write '" + disk.string() + "/") == 0 &&
               error.find("': No space left on device") != std::string::npos,
           "error reply: " + error);
    std::this_thread::sleep_for(300ms);
    const long before = devices.acknowledged();
    fs::remove(disk / "filler");
    const auto freed = std::chrono::steady_clock::now();
    expect(devices.waitForAcknowledged(before + 40, 2s), "service not back within 2 s");
    const auto back = std::chrono::steady_clock::now() - freed;
    expect(devices.waitUntilDone(60s), "not every line was acknowledged");
    devices.stop();
    expect(collector.stop(SIGTERM) == 0, "the collector did not exit with 0");
    const nimbtest::DeviceSimulator::Report report = devices.check(disk);
    expect(report.clean() && report.acknowledged == devices.total(), report.text());
    std::printf("full disk: %ld error replies, back %lld ms after space returned\n",
                devices.errorReplies(),
                static_cast<long long>(
                    std::chrono::duration_cast<std::chrono::milliseconds>(back).count()));
    return failures;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <root folder> <bus host>\n", argv[0]);
        return 2;
    }
    const fs::path root = argv[1];
    const fs::path disk = root / "disk";
    fs::create_directories(disk);
    const std::string why = mountSmallDisk(disk, 2 * 1024 * 1024);
    if (!why.empty()) {
        std::printf("%s\n", why.c_str());
        return 77;
    }
    std::vector<std::string> failures;
    {
        CollectorProcess collector(root, argv[2]);
        failures = fullDisk(collector, argv[2], disk);
    }  // a collector still running is killed here, before the disk goes
    for (const std::string& failure : failures) std::printf("%s\n", failure.c_str());
    return failures.empty() ? 0 : 3;
}
