// SPDX-License-Identifier: MIT
#include "DeviceLogNames.h"

#include <cctype>

namespace DeviceLogNames {

CStdStr logId(const CStdStr& macAddr, const CStdStr& logName) {
    CStdStr id = macAddr;
    id.Replace(":", "");
    const size_t separator = logName.find_last_of("/\\");
    id += '-';
    if (separator == CStdStr::npos)
        id += logName;
    else
        id.append(logName, separator + 1);
    return id;
}

CStdStr fileName(const CStdStr& deviceId, const CStdStr& logId) { return deviceId + logId; }

bool hasSeparator(const CStdStr& text) { return text.find_first_of("/\\") != CStdStr::npos; }

bool hasControlCharacter(const CStdStr& text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) return true;
    }
    return false;
}

bool isPlainFileName(const CStdStr& name) {
    return !name.empty() && name[0] != '.' && !hasSeparator(name) && !hasControlCharacter(name) &&
           name.size() <= kMaxFileName;
}

std::string deviceOfFile(const std::string& fileName) {
    constexpr std::size_t kMacDigits = 12;
    std::size_t run = 0;  // hex digits just before the byte looked at
    for (std::size_t at = 0; at < fileName.size(); ++at) {
        const char c = fileName[at];
        if (c == '-' && run >= kMacDigits) return fileName.substr(0, at);
        run = std::isxdigit(static_cast<unsigned char>(c)) ? run + 1 : 0;
    }
    const std::size_t dash = fileName.find('-');
    return dash == std::string::npos || dash == 0 ? fileName : fileName.substr(0, dash);
}

}  // namespace DeviceLogNames
