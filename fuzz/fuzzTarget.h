// What the fuzz targets share: a promise that ends the run when it is broken, an input taken apart into a file and the
// numbers that steer what is done to it, files in a directory of memory, and a second reader to hold the library
// against.
//
#pragma once

#include <orva/blockSize.h>
#include <orva/compressedLayout.h>
#include <orva/errors.h>
#include <orva/filestr.h>
#include <orva/inspect.h>
#include <orva/zcmpsFilestr.h>

#include <fuzzer/FuzzedDataProvider.h>
#include <stdlib.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace fuzz {

using Bytes = std::vector<unsigned char>;

constexpr std::int64_t kRow0 = 64;  // of every file of the corpora
constexpr std::size_t kSteps = 40;  // bytes of steering
constexpr std::size_t kLongestInput = 1 << 15;

inline void require(bool held, const char* promise) {
    if (held) return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    __builtin_trap();
}

// True when `body` came to its end, false when it threw DamagedFileError. Nothing else may leave.
template <class Body>
bool soundFor(Body body) {
    try {
        body();
        return true;
    } catch (const DamagedFileError&) {
        return false;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
    } catch (const SystemFileException& error) {
        std::fprintf(stderr, "%s\n", error.fExpression.c_str());
    }
    require(false, "bytes of a file throw DamagedFileError and nothing else");
    return false;
}

inline const std::string& directory() {
    static const std::string made = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "orva-fuzz-XXXXXX").string();
        require(mkdtemp(pattern.data()) != nullptr, "a directory for files can be made");
        return pattern;
    }();
    return made;
}

inline std::string pathOf(const char* name) {
    return directory() + '/' + name;
}

inline void putFile(const std::string& name, const Bytes& bytes) {
    std::FILE* file = std::fopen(name.c_str(), "wb");
    require(file != nullptr, "a file can be made");
    require(bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size(), "a file can be written");
    std::fclose(file);
}

// Empty where there is none.
inline Bytes getFile(const std::string& name) {
    Bytes bytes;
    std::FILE* file = std::fopen(name.c_str(), "rb");
    if (file == nullptr) return bytes;
    unsigned char piece[8192];
    for (std::size_t count = 0; (count = std::fread(piece, 1, sizeof piece, file)) != 0;) {
        bytes.insert(bytes.end(), piece, piece + count);
    }
    std::fclose(file);
    return bytes;
}

inline Bytes slice(const Bytes& bytes, std::int64_t at, std::int64_t size) {
    return {bytes.begin() + at, bytes.begin() + at + size};
}

// The zlib stream at `at`: its rows and its length, if it is whole and ends within `most` bytes.
struct Stream {
    Bytes rows;
    std::size_t length;
};
inline std::optional<Stream> streamAt(const Bytes& file, std::size_t at, std::size_t most = kBlockSize) {
    z_stream z{};
    Bytes rows(kBlockSize);
    inflateInit(&z);
    z.next_in = const_cast<unsigned char*>(file.data() + at);
    z.avail_in = static_cast<uInt>(std::min(most, file.size() - at));
    z.next_out = rows.data();
    z.avail_out = static_cast<uInt>(rows.size());
    const int answer = inflate(&z, Z_FINISH);
    rows.resize(z.total_out);
    const std::size_t length = z.total_in;
    inflateEnd(&z);
    if (answer != Z_STREAM_END || rows.empty()) return std::nullopt;
    return Stream{std::move(rows), length};
}

// A reader of the format made from docs/format.md alone, over zlib alone.
class ReferencePart {
public:
    struct Block {
        filePosRecord record;
        std::optional<Bytes> rows;  // none: it is damaged
    };

    ReferencePart(const Bytes& file, std::int64_t row0, bool swap) : fFile(file), fRow0(row0), fSwap(swap) {
        fOpens = takeHeading() && takeIndex();
        if (!fOpens) fBlocks.clear();
        for (std::size_t i = 0; i < fBlocks.size(); ++i) inflateBlock(i);
    }

    bool opens() const { return fOpens; }
    const compressionHeading& heading() const { return fHeading; }
    const std::vector<Block>& blocks() const { return fBlocks; }
    std::int64_t end() const {
        return fBlocks.empty() ? fRow0 : fBlocks.back().record.orginalPos + fBlocks.back().record.orginalSize;
    }
    // The blocks follow each other without gaps, from the heading to the index at the latest (F4 to F7, F10).
    bool contiguous() const {
        std::int64_t pos = fRow0;
        std::int64_t place = fRow0 + kHeadingSize;
        for (const auto& [r, rows] : fBlocks) {
            if (r.orginalPos != pos || r.translatePos != place || !fits(r.orginalSize) || !fits(r.translateSize)) {
                return false;
            }
            pos += r.orginalSize;
            place += r.translateSize;
        }
        return fBlocks.empty() || fHeading._indexPos >= place;
    }
    bool sound() const {
        return fOpens && contiguous() &&
               std::all_of(fBlocks.begin(), fBlocks.end(), [](const Block& b) { return b.rows.has_value(); });
    }
    Bytes allRows() const {
        Bytes all;
        for (const Block& block : fBlocks) all.insert(all.end(), block.rows->begin(), block.rows->end());
        return all;
    }
    // What a read gives: rows, or none where it meets damage.
    std::optional<Bytes> read(std::int64_t pos, std::size_t size) const {
        Bytes rows;
        while (rows.size() < size && pos >= fRow0 && pos < end()) {
            const Block* block = blockOf(pos);
            if (block == nullptr || !block->rows) return std::nullopt;
            const std::int64_t skip = pos - block->record.orginalPos;
            const std::int64_t count =
                std::min<std::int64_t>(block->record.orginalSize - skip, std::int64_t(size) - std::ssize(rows));
            rows.insert(rows.end(), block->rows->begin() + skip, block->rows->begin() + skip + count);
            pos += count;
        }
        return rows;
    }

private:
    static bool fits(std::int64_t size) { return size >= 1 && size <= kBlockSize; }
    std::int64_t fileSize() const { return std::ssize(fFile); }
    bool inside(std::int64_t at, std::int64_t size) const { return at >= 0 && size >= 0 && at <= fileSize() - size; }

    bool takeHeading() {
        if (fRow0 <= 0 || !inside(fRow0, kHeadingSize)) return false;
        std::memcpy(&fHeading, fFile.data() + fRow0, sizeof fHeading);
        if (fSwap) orva::swapHeading(fHeading);
        const compressionHeading& h = fHeading;
        return h._caseStartPos == fRow0 && h._size >= kRecordSize && h._size % kRecordSize == 0 &&
               h._indexPos >= fRow0 + kHeadingSize && inside(h._indexPos, h._size);
    }
    filePosRecord record(std::int64_t number) const {
        filePosRecord taken;
        std::memcpy(&taken, fFile.data() + fHeading._indexPos + number * kRecordSize, sizeof taken);
        if (fSwap) orva::swapRecord(taken);
        return taken;
    }
    bool takeIndex() {
        const filePosRecord first = record(0);
        if (first.orginalPos != kFirstRecordMark || first.orginalSize < 1) return false;
        if (first.translateSize != fHeading._size / kRecordSize - 1) return false;
        std::int64_t before = std::numeric_limits<std::int64_t>::min();
        for (std::int64_t i = 0; i < first.translateSize; ++i) {
            const filePosRecord r = record(i + 1);
            if (r.orginalSize < 1 || (i == 0 && r.orginalPos != fRow0) || (i != 0 && r.orginalPos <= before) ||
                r.orginalPos > std::numeric_limits<std::int64_t>::max() - r.orginalSize) {
                return false;
            }
            before = r.orginalPos;
            fBlocks.push_back({r, {}});
        }
        return true;
    }
    void inflateBlock(std::size_t i) {
        Block& block = fBlocks[i];
        const filePosRecord& r = block.record;
        if (!fits(r.orginalSize) || !fits(r.translateSize) || !inside(r.translatePos, r.translateSize)) return;
        if (i + 1 < fBlocks.size() && fBlocks[i + 1].record.orginalPos != r.orginalPos + r.orginalSize) return;
        const auto length = static_cast<std::size_t>(r.translateSize);
        const auto found = streamAt(fFile, static_cast<std::size_t>(r.translatePos), length);
        if (!found || found->length != length || std::ssize(found->rows) != r.orginalSize) return;
        block.rows = found->rows;
    }
    const Block* blockOf(std::int64_t pos) const {
        const auto behind = std::upper_bound(fBlocks.begin(), fBlocks.end(), pos,
                                             [](std::int64_t p, const Block& b) { return p < b.record.orginalPos; });
        const Block& block = *std::prev(behind);  // pos is not before the first
        return pos - block.record.orginalPos < block.record.orginalSize ? &block : nullptr;
    }

    const Bytes& fFile;
    const std::int64_t fRow0;
    const bool fSwap;
    bool fOpens = false;
    compressionHeading fHeading{};
    std::vector<Block> fBlocks;
};

// An input: a file, and behind it the numbers that steer what is done to it.
struct Input {
    Input(const std::uint8_t* data, std::size_t size)
        : file(data, data + (size - std::min(size, kSteps))), steps(data + file.size(), size - file.size()) {}
    Bytes file;
    FuzzedDataProvider steps;
};

// Rows that compress well and differ from block to block.
inline Bytes rowsOf(std::size_t size, unsigned seed) {
    Bytes rows(size);
    for (std::size_t i = 0; i < size; ++i) {
        rows[i] = static_cast<unsigned char>(seed + i / (3 + seed % 7) % (5 + seed % 11));
    }
    return rows;
}

}  // namespace fuzz
