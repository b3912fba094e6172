// SPDX-License-Identifier: MIT
#include "DeviceLogHeader.h"

namespace DeviceLogHeader {

std::string line(const std::string& name, const std::string& source, const std::string& sourceTime,
                 const std::string& serverTime) {
    std::string header;
    header.reserve(name.size() + source.size() + sourceTime.size() + serverTime.size() + 32);
    header += "\n===== ";
    header += name;
    header += " - ";
    header += source;
    header += " === ";
    header += sourceTime;
    header += " <-> ";
    header += serverTime;
    header += " =====\n";
    return header;
}

}  // namespace DeviceLogHeader
