// SPDX-License-Identifier: MIT
#include "DeviceLogNames.h"

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

}  // namespace DeviceLogNames
