// SPDX-License-Identifier: MIT
// DeviceLogTrigrams: a small summary of a text that tells a search which texts cannot
// hold a word, so that history is read only where a hit is possible. The summary is a
// Bloom filter of every three-byte sequence of the text that lies inside one line, with
// ASCII letters folded to lower case: a text holding a string of three or more bytes
// holds each of its sequences, so a string one of whose sequences is missing from the
// filter is not in the text (never a false "absent"); a string all of whose sequences
// the filter seems to hold may still be absent (a false "may hold", rare for a word of
// several sequences). Built on the history's compression thread; tested on any thread.
// The encoded form: one byte, the number of probes per sequence (1 to 16), then the
// filter's bits (bit i is bit i % 8 of byte i / 8). An empty encoding holds everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class DeviceLogTrigrams {
public:
    // A filter is at most this share of its text (1 / kMaxShare): up to kBitsPerSequence
    // bits per distinct sequence (about 2 % false "may hold" per sequence), fewer when
    // the text holds many, and no filter when fewer than kMinBitsPerSequence would fit
    // (about 15 % false "may hold" per sequence): text that varied would not pay for one.
    static constexpr std::size_t kMaxShare = 64;
    static constexpr std::uint64_t kBitsPerSequence = 8;
    static constexpr std::uint64_t kMinBitsPerSequence = 4;

    DeviceLogTrigrams();

    // Adds the sequences of `text`, which continues the text added before (a sequence
    // may span two calls).
    void add(std::string_view text);
    // The encoded filter of everything added ("" when the text was too varied or held
    // no sequence), and starts over.
    std::string finish();

    // Whether the text that `encoded` summarizes may hold `needle`. True for a needle
    // shorter than three bytes, one holding a newline, or an empty or damaged encoding.
    static bool mayHold(std::string_view encoded, std::string_view needle);

private:
    std::vector<std::uint64_t> seen_;  // one bit per possible sequence (2^24)
    std::vector<std::uint32_t> distinct_;
    std::uint32_t window_ = 0;  // the last two bytes added, folded
    int held_ = 0;              // how many of them (0 to 2)
    std::uint64_t bytes_ = 0;
};
