// SPDX-License-Identifier: MIT
#include "DeviceLogTrigrams.h"

#include <algorithm>

namespace {

constexpr std::uint32_t kSequences = 1u << 24;

inline std::uint32_t fold(unsigned char byte) {
    return byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte;
}

inline std::uint64_t mix(std::uint64_t value) {
    value += 0x9E3779B97F4A7C15ull;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ull;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBull;
    return value ^ (value >> 31);
}

// Calls `probe(bit)` for the filter bits of `sequence` in a filter of `bits` bits
// until it returns false; false then.
template <typename Probe>
bool forProbes(std::uint32_t sequence, std::uint64_t bits, int probes, Probe probe) {
    const std::uint64_t hash = mix(sequence);
    const std::uint64_t step = (hash >> 32) | 1;
    std::uint64_t at = hash & 0xFFFFFFFFu;
    for (int i = 0; i < probes; ++i, at += step) {
        if (!probe(at % bits)) return false;
    }
    return true;
}

}  // namespace

DeviceLogTrigrams::DeviceLogTrigrams() : seen_(kSequences / 64) {}

void DeviceLogTrigrams::add(std::string_view text) {
    bytes_ += text.size();
    for (const char c : text) {
        if (c == '\n') {
            held_ = 0;
            continue;
        }
        window_ = ((window_ << 8) | fold(static_cast<unsigned char>(c))) & 0xFFFFFF;
        if (held_ < 2) {
            ++held_;
            continue;
        }
        std::uint64_t& word = seen_[window_ >> 6];
        const std::uint64_t bit = 1ull << (window_ & 63);
        if ((word & bit) == 0) {
            word |= bit;
            distinct_.push_back(window_);
        }
    }
}

std::string DeviceLogTrigrams::finish() {
    std::string encoded;
    // As many bits per sequence as the size bound allows, up to kBitsPerSequence; with
    // fewer than kMinBitsPerSequence a filter rules out too little to pay.
    const std::uint64_t room = bytes_ / kMaxShare * 8;
    const std::uint64_t perSequence =
        distinct_.empty() ? 0 : std::min<std::uint64_t>(kBitsPerSequence, room / distinct_.size());
    if (perSequence >= kMinBitsPerSequence) {
        const std::uint64_t bits = (distinct_.size() * perSequence + 7) / 8 * 8;
        // The number of probes that gives the fewest false "may hold": bits per sequence
        // times ln 2, rounded.
        const int probes = static_cast<int>((perSequence * 693 + 500) / 1000);
        encoded.assign(1 + bits / 8, '\0');
        encoded[0] = static_cast<char>(probes);
        unsigned char* filter = reinterpret_cast<unsigned char*>(&encoded[1]);
        for (const std::uint32_t sequence : distinct_) {
            forProbes(sequence, bits, probes, [&](std::uint64_t bit) {
                filter[bit / 8] |= static_cast<unsigned char>(1u << (bit % 8));
                return true;
            });
        }
    }
    for (const std::uint32_t sequence : distinct_) seen_[sequence >> 6] = 0;
    distinct_.clear();
    held_ = 0;
    bytes_ = 0;
    return encoded;
}

bool DeviceLogTrigrams::mayHold(std::string_view encoded, std::string_view needle) {
    if (encoded.size() < 2 || needle.size() < 3 || needle.find('\n') != std::string_view::npos) {
        return true;
    }
    const int probes = static_cast<unsigned char>(encoded[0]);
    if (probes < 1 || probes > 16) return true;
    const unsigned char* filter = reinterpret_cast<const unsigned char*>(encoded.data() + 1);
    const std::uint64_t bits = (encoded.size() - 1) * 8;
    std::uint32_t window = 0;
    for (std::size_t i = 0; i < needle.size(); ++i) {
        window = ((window << 8) | fold(static_cast<unsigned char>(needle[i]))) & 0xFFFFFF;
        if (i < 2) continue;
        const bool held = forProbes(window, bits, probes, [&](std::uint64_t bit) {
            return (filter[bit / 8] & (1u << (bit % 8))) != 0;
        });
        if (!held) return false;
    }
    return true;
}
