// SPDX-License-Identifier: MIT
// DeviceLogHeader: the header line that opens a device log's text whenever its source
// announces itself, tying the source's clock to the server's:
//   "\n===== <name> - <source> === <source time> <-> <server time> =====\n"
// The bus collector writes it per announced log (source: the caller's satellite name),
// the syslog listener per sender file (source: "syslog <address> clock ..."). Pure
// functions, any thread.
#pragma once

#include <string>

namespace DeviceLogHeader {

// Times in a header read "yyyy/MM/dd hh:mm:ss".
constexpr const char* kTimeFormat = "yyyy/MM/dd hh:mm:ss";

// The header line from its parts, which the caller has made safe to show (no line
// breaks or other control characters from remote input).
std::string line(const std::string& name, const std::string& source, const std::string& sourceTime,
                 const std::string& serverTime);

}  // namespace DeviceLogHeader
