// What the fuzz targets share: a promise that ends the run when it is broken, files, an input taken apart, and a second
// reader to hold the library against.
#pragma once

#include <orva/blockSize.h>
#include <orva/compressedLayout.h>
#include <orva/errors.h>
#include <orva/inspect.h>
#include <orva/zcmpsFilestr.h>
#include <orva/zlibCompress.h>

#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace fuzz {

using Bytes = std::vector<unsigned char>;

constexpr std::int64_t kRow0 = 64;  // of every file of the corpora
constexpr std::size_t kSteps = 48;  // bytes of steering

inline void require(bool held, const char* promise) {
    if (held) return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    __builtin_trap();
}

// True when `body` came to its end, false when it threw DamagedFileError. Any other exception ends the run.
template <class Body>
bool soundFor(Body body) {
    try {
        body();
        return true;
    } catch (const DamagedFileError&) {
        return false;
    }
}

inline std::string pathOf(const char* name) {
    return (std::filesystem::temp_directory_path() / (std::to_string(getpid()) + '-' + name)).string();
}

inline void putFile(const std::string& name, const Bytes& bytes) {
    std::ofstream file(name, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes)).flush();
    require(file.good(), "a file can be written");
}
// Empty where there is none.
inline Bytes getFile(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline Bytes slice(const Bytes& bytes, std::int64_t at, std::int64_t size) {
    return {bytes.begin() + at, bytes.begin() + at + size};
}

// Rows that compress well and differ from block to block.
inline Bytes rowsOf(std::size_t size, unsigned seed) {
    Bytes rows(size);
    for (std::size_t i = 0; i < size; ++i) {
        rows[i] = static_cast<unsigned char>(seed + i / (3 + seed % 7) % (5 + seed % 11));
    }
    return rows;
}

// An input: a file, and behind it the numbers that steer what is done to it.
struct Input {
    Input(const std::uint8_t* data, std::size_t size)
        : file(data, data + (size - std::min(size, kSteps))), steps(data + file.size(), size - file.size()) {
        swap = steps.ConsumeBool();
        putFile(name, file);
    }
    const std::string name = pathOf("file");
    const Bytes file;
    FuzzedDataProvider steps;
    bool swap;  // heading and index are taken in the other byte order
};

// What zlib alone makes of bytes, and how many of them it takes.
struct Inflated {
    bool whole;
    std::int64_t taken;
    Bytes rows;
};
inline Inflated byZlib(const unsigned char* from, std::size_t size, std::size_t room = kBlockSize) {
    z_stream z{};
    Inflated made{false, 0, Bytes(room)};
    inflateInit(&z);
    z.next_in = const_cast<unsigned char*>(from);
    z.avail_in = static_cast<uInt>(size);
    z.next_out = made.rows.data();
    z.avail_out = static_cast<uInt>(room);
    made.whole = inflate(&z, Z_FINISH) == Z_STREAM_END;
    made.taken = static_cast<std::int64_t>(size) - z.avail_in;
    made.rows.resize(room - z.avail_out);
    inflateEnd(&z);
    return made;
}

// What `codec` writes into a room of this size, by the count that it gives. The engines are no code that a sanitizer
// sees into, so what stands behind the room is watched.
template <class Codec>
Bytes filled(std::uint32_t room, Codec codec) {
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
    Bytes bytes;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) bytes.push_back(static_cast<unsigned char>(sum >> shift));
    return bytes;
}

// What the library's codec makes of bytes, which is what zlib makes of them, but for this: the fast engine takes some
// streams that zlib refuses, such as those with the code 286, which stands for nothing. It takes them with the right
// checksum only.
inline Inflated inflated(const unsigned char* from, std::size_t size, std::size_t room = kBlockSize) {
    blockOutcome ours{};
    Bytes rows = filled(static_cast<std::uint32_t>(room), [&](unsigned char* to) {
        ours = zlibCompressBlock().inflateWhole(from, static_cast<std::uint32_t>(size), to,
                                                static_cast<std::uint32_t>(room));
        return ours.produced;
    });
    const bool whole = ours.end == blockOutcome::complete;
    const Inflated theirs = byZlib(from, size, room);
    if (whole && !theirs.whole) {
        require(ours.consumed >= 6, "a stream that ends whole has a header and a checksum");
        require(std::memcmp(from + ours.consumed - 4, checksumOf(rows).data(), 4) == 0, "and the checksum is right");
    } else {
        require(whole == theirs.whole, "a stream ends whole as for zlib");
        require(ours.consumed == theirs.taken && rows == theirs.rows, "counts and bytes are zlib's");
    }
    return {whole, ours.consumed, std::move(rows)};
}

// A reader made from docs/format.md and the codec alone.
struct Part {
    struct Block {
        filePosRecord record;
        std::optional<Bytes> rows;  // none: it is damaged
    };
    const Bytes& file;
    const std::int64_t row0;
    compressionHeading heading{};
    std::vector<Block> blocks{};
    std::int64_t end = row0;                       // of the rows
    std::int64_t blocksEnd = row0 + kHeadingSize;  // of contiguous blocks in the file
    bool opens;
    bool contiguous = true;  // the blocks follow each other without gaps, from the heading to the index at the latest
    bool sound;              // and all of them are whole

    Part(const Bytes& from, std::int64_t at, bool swap) : file(from), row0(at), opens(takeIndex(swap)) {
        if (!opens) blocks.clear();
        for (std::size_t i = 0; i < blocks.size(); ++i) takeBlock(blocks[i], i + 1 == blocks.size());
        contiguous = opens && contiguous && (blocks.empty() || heading._indexPos >= blocksEnd);
        sound = contiguous && std::all_of(blocks.begin(), blocks.end(), [](auto& b) { return !!b.rows; });
    }

    bool inside(std::int64_t at, std::int64_t size) const {
        return at >= 0 && size >= 0 && at <= std::ssize(file) - size;
    }

    bool takeIndex(bool swap) {
        if (row0 <= 0 || !inside(row0, kHeadingSize)) return false;
        std::memcpy(&heading, file.data() + row0, sizeof heading);
        if (swap) orva::swapHeading(heading);
        if (heading._caseStartPos != row0 || heading._indexPos < row0 + 24) return false;
        if (!inside(heading._indexPos, heading._size) || heading._size < 24 || heading._size % 24 != 0) return false;
        std::vector<filePosRecord> records(static_cast<std::size_t>(heading._size / 24));
        std::memcpy(records.data(), file.data() + heading._indexPos, records.size() * 24);
        if (swap) std::for_each(records.begin(), records.end(), orva::swapRecord);
        const filePosRecord& first = records[0];
        if (first.orginalPos != kFirstRecordMark || first.orginalSize < 1) return false;
        if (first.translateSize != std::ssize(records) - 1) return false;
        for (std::size_t i = 1; i < records.size(); ++i) {
            const filePosRecord& r = records[i];
            const bool ascends = i == 1 ? r.orginalPos == row0 : r.orginalPos > records[i - 1].orginalPos;
            if (!ascends || r.orginalSize < 1) return false;
            if (r.orginalPos > std::numeric_limits<std::int64_t>::max() - r.orginalSize) return false;
            blocks.push_back({r, {}});
        }
        return true;
    }

    void takeBlock(Block& block, bool last) {
        const filePosRecord& r = block.record;
        const std::int64_t most = kBlockSize;
        const bool fits = r.orginalSize <= most && r.translateSize >= 1 && r.translateSize <= most;
        contiguous = contiguous && fits && r.orginalPos == end && r.translatePos == blocksEnd;
        if (contiguous) blocksEnd += r.translateSize;
        end = r.orginalPos + r.orginalSize;
        const bool touches = last || end == (&block + 1)->record.orginalPos;
        if (!fits || !touches || !inside(r.translatePos, r.translateSize)) return;
        const Inflated made = inflated(file.data() + r.translatePos, static_cast<std::size_t>(r.translateSize));
        const bool asRecorded = std::ssize(made.rows) == r.orginalSize && made.taken == r.translateSize;
        if (made.whole && asRecorded) block.rows = made.rows;
    }

    // What a read gives: rows, or none where it meets damage.
    std::optional<Bytes> read(std::int64_t pos, std::int64_t size) const {
        Bytes rows;
        while (std::ssize(rows) < size && pos >= row0 && pos < end) {
            const auto block =
                std::find_if(blocks.rbegin(), blocks.rend(), [&](auto& b) { return b.record.orginalPos <= pos; });
            const std::int64_t left = block->record.orginalPos + block->record.orginalSize - pos;
            if (left <= 0 || !block->rows) return std::nullopt;
            const std::int64_t count = std::min(left, size - std::ssize(rows));
            rows.insert(rows.end(), block->rows->end() - left, block->rows->end() - left + count);
            pos += count;
        }
        return rows;
    }
    std::optional<Bytes> allRows() const { return read(row0, end - row0); }
};

}  // namespace fuzz
