// SPDX-License-Identifier: MIT
#include "DeviceIdentity.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include <unistd.h>

namespace DeviceIdentity {

namespace {

// One folder per interface, holding its "address" and "type".
const char* const kNetRoot = "/sys/class/net";
// ARPHRD_LOOPBACK, as the kernel writes it into an interface's "type" file.
const char* const kLoopbackType = "772";
const char* const kMachineIdFile = "/etc/machine-id";

std::string firstLine(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    return line;
}

bool isUsableAddress(const std::string& address) {
    return address.size() == 17 && address != kNoMacAddress;
}

// FNV-1a, 64 bits: spreads the machine's id, which is not shown as it is.
std::uint64_t hashOf(const std::string& text) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (const char c : text) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 0x100000001b3ULL;
    }
    return hash;
}

}  // namespace

std::string firstMacAddress() {
    std::vector<std::filesystem::path> interfaces;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(kNetRoot, error)) {
        interfaces.push_back(entry.path());
    }
    std::sort(interfaces.begin(), interfaces.end());
    for (const auto& interface : interfaces) {
        if (firstLine(interface / "type") == kLoopbackType) continue;
        const std::string address = firstLine(interface / "address");
        if (isUsableAddress(address)) return address;
    }
    return hostMacAddress(firstLine(kMachineIdFile), hostName());
}

std::string hostMacAddress(const std::string& machineId, const std::string& host) {
    const std::string seed = machineId.empty() ? "host:" + host : "machine-id:" + machineId;
    const std::uint64_t hash = hashOf("nimb-logpush " + seed);
    unsigned char bytes[6];
    for (int i = 0; i < 6; ++i) bytes[i] = static_cast<unsigned char>(hash >> (8 * i));
    bytes[0] = static_cast<unsigned char>((bytes[0] & 0xFC) | 0x02);  // local, unicast
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2],
                  bytes[3], bytes[4], bytes[5]);
    return text;
}

std::string hostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "localhost";
    return name;
}

}  // namespace DeviceIdentity
