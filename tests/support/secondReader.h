// A second reader of compressed parts, with which the library is compared; made from docs/format.md and zlib alone.
// Needs no test framework, so that fuzz targets use it too.
#pragma once

#include "support/bytes.h"

namespace support {

// The bytes that zlib alone makes of others, and how many of them it takes.
struct Inflated {
    bool whole;
    std::int64_t taken;
    Bytes rows;
};
inline Inflated byZlib(std::span<const unsigned char> from, std::uint32_t room = kBlockSize) {
    Bytes rows(room);
    uLong taken = from.size(), produced = room;
    const bool whole = uncompress2(rows.data(), &produced, from.data(), &taken) == Z_OK;
    rows.resize(produced);
    return {whole, static_cast<std::int64_t>(taken), std::move(rows)};
}

// The rows of all whole streams from `at` on, each directly after the one before.
inline Bytes standingRows(const Bytes& file, std::int64_t at) {
    Bytes rows;
    while (at < std::ssize(file)) {
        const Inflated stream = byZlib(std::span(file).subspan(static_cast<std::size_t>(at)));
        if (!stream.whole) break;
        rows = std::move(rows) + stream.rows;
        at += stream.taken;
    }
    return rows;
}

// Heading and index as stored in a file; nothing if they cannot be.
struct Layout {
    Layout() = default;
    explicit Layout(const Bytes& file, std::int64_t row0 = 1'000, bool swap = false) {
        const auto inside = [&](std::int64_t at, std::int64_t size) {
            return at > 0 && size >= kRecordSize && at <= std::ssize(file) - size;
        };
        if (!inside(row0, kHeadingSize)) return;
        std::memcpy(&heading, file.data() + row0, sizeof heading);
        if (swap) orva::swapHeading(heading);
        if (!inside(heading._indexPos, heading._size) || heading._size % kRecordSize != 0) return;
        records.resize(static_cast<std::size_t>(heading._size / kRecordSize));
        std::memcpy(records.data(), file.data() + heading._indexPos, records.size() * sizeof first);
        if (swap) std::for_each(records.begin(), records.end(), orva::swapRecord);
        first = records.front();
        records.erase(records.begin());
        for (const filePosRecord& record : records) sizes.push_back(record.orginalSize);
    }

    compressionHeading heading{};
    filePosRecord first{};
    std::vector<filePosRecord> records;
    std::vector<std::int32_t> sizes;  // bytes of each block's rows
};

// A reader made from docs/format.md and the codec alone.
struct secondReader {
    using Inflate = Inflated (*)(std::span<const unsigned char> from, std::uint32_t room);
    const Bytes& file;
    const std::int64_t row0;
    const Layout layout;
    std::vector<std::optional<Bytes>> blocks{};    // the rows of each; none if it is damaged
    std::int64_t end = row0;                       // end of the rows
    std::int64_t blocksEnd = row0 + kHeadingSize;  // end of the contiguous blocks in the file
    bool opens;
    bool contiguous = true;  // from the heading to the index at most, the blocks follow each other without gaps
    bool sound;              // contiguous, and every block is whole

    // `from` is the caller's, and must outlive this.
    secondReader(const Bytes& from, std::int64_t at, bool swap, Inflate inflate = byZlib)
        : file(from), row0(at), layout(from, at, swap), opens(takeIndex()) {
        for (std::size_t i = 0; i < blocks.size(); ++i) takeBlock(i, inflate);
        contiguous = opens && contiguous && (blocks.empty() || layout.heading._indexPos >= blocksEnd);
        sound = contiguous && std::all_of(blocks.begin(), blocks.end(), [](auto& rows) { return !!rows; });
    }

    bool takeIndex() {
        const auto& [heading, first, records, sizes] = layout;
        if (heading._caseStartPos != row0 || heading._indexPos < row0 + kHeadingSize) return false;
        if (first.orginalPos != kFirstRecordMark || first.orginalSize < 1) return false;
        if (first.translateSize != std::ssize(records)) return false;
        for (const filePosRecord& r : records) {
            const bool ascends = &r == &records.front() ? r.orginalPos == row0 : r.orginalPos > (&r - 1)->orginalPos;
            if (!ascends || r.orginalSize < 1 || r.orginalPos > INT64_MAX - r.orginalSize) return false;
        }
        blocks.resize(records.size());
        return true;
    }

    void takeBlock(std::size_t number, Inflate inflate) {
        const filePosRecord& r = layout.records[number];
        const auto i = static_cast<std::ptrdiff_t>(number);
        const bool fits = r.orginalSize <= std::int64_t{kBlockSize} && placed(i);
        contiguous = contiguous && fits && r.orginalPos == end && r.translatePos == blocksEnd;
        if (contiguous) blocksEnd += r.translateSize;
        end = r.orginalPos + r.orginalSize;
        const bool touches = number + 1 == blocks.size() || end == layout.records[number + 1].orginalPos;
        if (!fits || !touches || yields(i, i - 1) || yields(i, i + 1)) return;
        const Inflated made = inflate({file.data() + r.translatePos, file.data() + endOf(r)}, kBlockSize);
        const bool asRecorded = std::ssize(made.rows) == r.orginalSize && made.taken == r.translateSize;
        if (made.whole && asRecorded) blocks[number] = made.rows;
    }

    // The record of block `i`, if there is one whose bytes can be in the file.
    const filePosRecord* placed(std::ptrdiff_t i) const {
        if (i < 0 || i >= std::ssize(blocks)) return nullptr;
        const filePosRecord& r = layout.records[static_cast<std::size_t>(i)];
        const bool fits = r.translateSize >= 1 && r.translateSize <= std::int64_t{kBlockSize};
        return fits && r.translatePos >= 0 && r.translatePos <= std::ssize(file) - r.translateSize ? &r : nullptr;
    }
    static std::int64_t endOf(const filePosRecord& r) { return r.translatePos + r.translateSize; }
    int looseEnds(std::ptrdiff_t i) const {
        const filePosRecord *const before = placed(i - 1), *const own = placed(i), *const next = placed(i + 1);
        const std::int64_t begin = i == 0 ? row0 + kHeadingSize : before ? endOf(*before) : own->translatePos;
        return (own->translatePos != begin ? 1 : 0) + (next && endOf(*own) != next->translatePos ? 1 : 0);
    }
    // True if this one of two overlapping neighbours is refused.
    bool yields(std::ptrdiff_t i, std::ptrdiff_t other) const {
        const filePosRecord *const own = placed(i), *const its = placed(other);
        if (!own || !its || own->translatePos >= endOf(*its) || its->translatePos >= endOf(*own)) return false;
        const int more = looseEnds(i) - looseEnds(other);
        return more != 0 ? more > 0 : own->translatePos <= its->translatePos;
    }

    // The rows that a read must give; none if it meets damage.
    std::optional<Bytes> read(std::int64_t pos, std::int64_t size) const {
        Bytes rows;
        while (std::ssize(rows) < size && pos >= row0 && pos < end) {
            const auto next = std::ranges::upper_bound(layout.records, pos, {}, &filePosRecord::orginalPos);
            const auto& block = blocks[static_cast<std::size_t>(next - layout.records.begin() - 1)];
            const std::int64_t left = next[-1].orginalPos + next[-1].orginalSize - pos;
            if (left <= 0 || !block) return std::nullopt;
            const std::int64_t count = std::min(left, size - std::ssize(rows));
            rows = std::move(rows) + slice(*block, std::ssize(*block) - left, count);
            pos += count;
        }
        return rows;
    }
    std::optional<Bytes> allRows() const { return read(row0, end - row0); }
};

}  // namespace support
