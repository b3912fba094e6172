// SPDX-License-Identifier: MIT
// libFuzzer target for the syslog parser and the stream framing. Every input is parsed
// as one message (with a small maximum size, so that the cut is exercised too) and fed
// as a TCP stream in uneven pieces; nothing may crash, and the parser's promises must
// hold: the stamp lies inside the text, and the text is free of control characters
// other than TAB.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "SyslogFramer.h"
#include "SyslogParser.h"

namespace {

void check(std::string_view bytes, std::size_t maxSize) {
    const SyslogMessage message = SyslogParser::parse(bytes, maxSize);
    if (message.stampLength > message.text.size()) std::abort();
    for (const char c : message.text) {
        if ((static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    check(bytes, 8192);
    check(bytes, 64);
    SyslogFramer framer(128);
    const SyslogFramer::Deliver deliver = [](std::string_view message, std::size_t) {
        if (message.size() > 128) std::abort();
        check(message, 128);
    };
    // Piece sizes taken from the input itself, so the fuzzer explores the splits.
    std::size_t pos = 0;
    while (pos < size) {
        const std::size_t piece = 1 + data[pos] % 17;
        if (!framer.feed(bytes.substr(pos, piece), deliver)) return 0;
        pos += piece;
    }
    framer.finish(deliver);
    return 0;
}
