// SPDX-License-Identifier: MIT
#include "DeviceIdentity.h"

#include <algorithm>
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

std::string firstLine(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    return line;
}

bool isUsableAddress(const std::string& address) {
    return address.size() == 17 && address != kNoMacAddress;
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
    return kNoMacAddress;
}

std::string hostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "localhost";
    return name;
}

}  // namespace DeviceIdentity
