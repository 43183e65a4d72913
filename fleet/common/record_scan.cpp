#include "common/record_scan.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>

namespace fleet {

std::optional<am::RecordKind> kindOfFile(std::string_view name) {
    if (name.find(".csv") == std::string_view::npos || name.ends_with(".md5")) return std::nullopt;
    for (size_t i = 0; i < am::kRecordKinds; i++)
        if (const auto kind = static_cast<am::RecordKind>(i); name.starts_with(am::recordName(kind)))
            return kind;
    return std::nullopt;
}

uint32_t RecordScan::countOf(std::string_view line) {
    return seen_[XXH3_64bits(line.data(), line.size())]++;
}

uint64_t flowOf(const am::RecordLine &line) {
    uint8_t key[2 * sizeof line.ipA + 13];
    uint8_t *at = std::copy_n(line.ipA.bytes, sizeof line.ipA, key);
    at = std::copy_n(line.ipB.bytes, sizeof line.ipB, at);
    const auto put = [&at](uint64_t number, int bytes) {
        for (; bytes > 0; bytes--, number >>= 8) *at++ = static_cast<uint8_t>(number);
    };
    put(line.portA, 2);
    put(line.portB, 2);
    put(line.proto, 1);
    put(static_cast<uint64_t>(line.start), 8);
    return XXH3_64bits(key, sizeof key);
}

}  // namespace fleet
