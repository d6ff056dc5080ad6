// A second reader of compressed parts to hold the library against, made from docs/format.md and zlib alone. Needs no
// test framework, so that fuzz targets use it too.
#pragma once

#include "support/bytes.h"

#include <orva/blockSize.h>
#include <orva/compressedLayout.h>

#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>

namespace support {

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

// The rows of the whole streams from `at` on, each right behind the one before.
inline Bytes standingRows(const Bytes& file, std::int64_t at) {
    Bytes rows;
    while (at < std::ssize(file)) {
        const std::int64_t size = std::min<std::int64_t>(std::ssize(file) - at, kBlockSize);
        const Inflated stream = byZlib(file.data() + at, static_cast<std::size_t>(size));
        if (!stream.whole) break;
        rows.insert(rows.end(), stream.rows.begin(), stream.rows.end());
        at += stream.taken;
    }
    return rows;
}

// A reader made from docs/format.md and the codec alone.
struct secondReader {
    using Inflate = std::function<Inflated(const unsigned char* from, std::size_t size)>;
    static Inflated byZlibInBlock(const unsigned char* from, std::size_t size) { return byZlib(from, size); }
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

    // `from` stays the caller's, and outlives this.
    secondReader(const Bytes& from, std::int64_t at, bool swap, const Inflate& inflate = byZlibInBlock)
        : file(from), row0(at), opens(takeIndex(swap)) {
        if (!opens) blocks.clear();
        for (std::size_t i = 0; i < blocks.size(); ++i) takeBlock(blocks[i], i + 1 == blocks.size(), inflate);
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

    void takeBlock(Block& block, bool last, const Inflate& inflate) {
        const filePosRecord& r = block.record;
        const std::int64_t most = kBlockSize;
        const bool fits = r.orginalSize <= most && r.translateSize >= 1 && r.translateSize <= most;
        contiguous = contiguous && fits && r.orginalPos == end && r.translatePos == blocksEnd;
        if (contiguous) blocksEnd += r.translateSize;
        end = r.orginalPos + r.orginalSize;
        const bool touches = last || end == (&block + 1)->record.orginalPos;
        if (!fits || !touches || !stands(&block) || yields(&block, -1) || yields(&block, 1)) return;
        const Inflated made = inflate(file.data() + r.translatePos, static_cast<std::size_t>(r.translateSize));
        const bool asRecorded = std::ssize(made.rows) == r.orginalSize && made.taken == r.translateSize;
        if (made.whole && asRecorded) block.rows = made.rows;
    }

    // The record that many steps behind, if there is one whose bytes can stand in the file.
    const filePosRecord* stands(const Block* block, std::ptrdiff_t step = 0) const {
        const std::ptrdiff_t at = block - blocks.data() + step;
        if (at < 0 || at >= std::ssize(blocks)) return nullptr;
        const filePosRecord& r = blocks[static_cast<std::size_t>(at)].record;
        const bool can = r.translateSize >= 1 && r.translateSize <= std::int64_t{kBlockSize} &&
                         inside(r.translatePos, r.translateSize);
        return can ? &r : nullptr;
    }
    int looseEnds(const Block* block) const {
        const filePosRecord& r = block->record;
        const filePosRecord* before = stands(block, -1);
        const filePosRecord* behind = stands(block, 1);
        const bool first = block == blocks.data();
        const std::int64_t begin =
            before != nullptr ? before->translatePos + before->translateSize : row0 + kHeadingSize;
        const bool looseBegin = (before != nullptr || first) && r.translatePos != begin;
        const bool looseEnd = behind != nullptr && r.translatePos + r.translateSize != behind->translatePos;
        return (looseBegin ? 1 : 0) + (looseEnd ? 1 : 0);
    }
    // Of two neighbours with bytes in common this one is refused.
    bool yields(const Block* block, std::ptrdiff_t step) const {
        const filePosRecord* r = stands(block);
        const filePosRecord* other = stands(block, step);
        if (r == nullptr || other == nullptr) return false;
        if (std::max(r->translatePos, other->translatePos) >=
            std::min(r->translatePos + r->translateSize, other->translatePos + other->translateSize))
            return false;
        const int more = looseEnds(block) - looseEnds(block + step);
        return more != 0 ? more > 0 : r->translatePos <= other->translatePos;
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

}  // namespace support
