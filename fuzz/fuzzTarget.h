// Shared by the fuzz targets: a check that ends the run when it fails, files, and the parts of an input.
#pragma once

#include "support/partModel.h"

#include <arpa/inet.h>
#include <fuzzer/FuzzedDataProvider.h>

inline void support::require(bool held, const char* promise) {
    if (held) return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    __builtin_trap();
}

namespace support {

constexpr std::int64_t kPlace = 64;  // the row-0 position in every file of the corpora
constexpr std::size_t kSteps = 48;   // bytes that steer

inline std::string pathOf(const char* name) {
    return (std::filesystem::temp_directory_path() / (std::to_string(getpid()) + '-' + name)).string();
}

// An input: a file, followed by numbers that steer what is done to it.
struct Input : Choices {
    Input(const std::uint8_t* data, std::size_t size)
        : file(data, data + (size - std::min(size, kSteps))), steps(data + file.size(), size - file.size()) {
        writeBytes(name, file);
    }
    std::uint64_t number(std::uint64_t bound) override {
        return steps.ConsumeIntegralInRange<std::uint64_t>(0, bound - 1);
    }
    const std::string name = pathOf("file");
    const Bytes file;
    FuzzedDataProvider steps;
    const bool swap = steps.ConsumeBool();  // heading and index are read in the other byte order
};

// The bytes that `codec` writes into a room of this size, as many as it returns. Sanitizers do not see into the
// engines, so the bytes after the room are checked.
inline Bytes filled(std::uint32_t room, auto codec) {
    constexpr std::ptrdiff_t guard = 64;
    constexpr unsigned char untouched = 0xA5;
    Bytes bytes(room + guard, untouched);
    const std::uint32_t count = codec(bytes.data());
    const bool held = std::count(bytes.end() - guard, bytes.end(), untouched) == guard;
    require(held && count <= room, "no more is written than there is room");
    bytes.resize(count);
    return bytes;
}

inline Bytes checksumOf(const Bytes& rows) {
    const uLong sum = adler32_z(adler32(0, nullptr, 0), rows.data(), rows.size());
    return bytesOf(htonl(static_cast<std::uint32_t>(sum)));
}

// The output of the library's codec, which must be zlib's, with one exception: the fast engine accepts some streams
// that zlib refuses, such as those with the unassigned code 286, but only with the right checksum.
inline Inflated inflated(std::span<const unsigned char> from, std::uint32_t room = kBlockSize) {
    blockOutcome ours{};
    Bytes rows = filled(room, [&](unsigned char* to) {
        ours = zlibCompressBlock().inflateWhole(from.data(), static_cast<std::uint32_t>(from.size()), to, room);
        return ours.produced;
    });
    const bool whole = ours.end == blockOutcome::complete;
    const Inflated theirs = byZlib(from, room);
    if (whole && !theirs.whole) {
        require(ours.consumed >= 6, "a stream that ends whole has a header and a checksum");
        require(std::memcmp(&from[ours.consumed - 4], checksumOf(rows).data(), 4) == 0, "and the checksum is right");
    } else {
        require(whole == theirs.whole, "a stream ends whole as for zlib");
        require(ours.consumed == theirs.taken && rows == theirs.rows, "counts and bytes are zlib's");
    }
    return {whole, ours.consumed, std::move(rows)};
}

}  // namespace support
