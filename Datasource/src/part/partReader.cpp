#include "part/partReader.h"

#include "format/blockTransfer.h"
#include "format/indexTransfer.h"

#include <orva/blockSize.h>
#include <orva/errors.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace orva {

partReader::partReader(ORVA_File& file, std::int64_t row0Pos, bool swap, const threadSettings& threads,
                       std::uint32_t cachedBlocks)
    : fFile(file),
      fHeading(
          readHeading(file, row0Pos, swap, "posofpos == chInfo._caseStartPos && \"Analyze dictionary part error!\"")),
      bSwap(swap),
      fIndex(kBlockSize, file.GetNameStr().GetGeneric()) {
    const std::vector<filePosRecord> index = readIndex(file, fHeading, swap);
    fIndex.parseForRead(reinterpret_cast<const unsigned char*>(index.data()), false);
    fIndex.limitPlaces(bytesFrom(file).length());
    makeSource(threads, cachedBlocks);
}

void partReader::endThreads() noexcept {
    fBuffer = nullptr;
    fSource.reset();
    fThreadSettings = {};
}

void partReader::makeSource(const threadSettings& threads, std::uint32_t cachedBlocks) {
    std::unique_ptr<blockSource> source = orva::makeSource(fFile, fIndex, threads, cachedBlocks);
    fBuffer = nullptr;
    fSource = std::move(source);
    fThreadSettings = threads;
    fCachedBlocks = cachedBlocks;
}

// If a block is not what its record says, checks whether another process has changed the file. The caller has not asked
// for that read, so if it fails, the file's Good() stays.
std::uint64_t partReader::read(std::int64_t& pos, unsigned char* to, std::uint64_t size) {
    const bytesFrom unasked(fFile, true);
    std::uint64_t done = 0;
    while (done < size) {
        const auto changed = [&] {
            return changedSince(unasked, fHeading, bSwap, fIndex.records(), fIndex.find(pos).value_or(0));
        };
        const std::uint64_t count = readRechecked([&] { return readOn(pos, to + done, size - done); }, changed);
        if (count == 0) break;
        done += count;
        pos += static_cast<std::int64_t>(count);
    }
    return done;
}

// Copies the rows that the block at `pos` has, and returns their number: 0 if there is no block. Blocks that the
// request covers go straight into the caller's memory, except its last one: that becomes the current block, so that a
// small step back costs no file access.
std::uint64_t partReader::readOn(std::int64_t pos, unsigned char* to, std::uint64_t size) {
    if (const std::optional<std::uint32_t> number = blockToLoad(pos)) {
        const filePosRecord& record = fIndex.parsed(*number);
        const auto whole = static_cast<std::uint64_t>(record.orginalSize);
        if (record.orginalPos == pos && whole < size) {
            if (const std::uint64_t several = loadSeveral(*number, to, size)) return several;
            fSource->load(*number, to);
            return whole;
        }
        fBuffer = fSource->lend(*number);
        fpos = record.orginalPos;
        fSize = record.orginalSize;
    }
    if (!holds(pos)) return 0;
    const std::uint64_t count = std::min(size, static_cast<std::uint64_t>(fpos + fSize - pos));
    std::copy_n(fBuffer + (pos - fpos), count, to);
    return count;
}

// Loads at once the blocks from `first` on that the request covers, except its last one. Returns the bytes that came; 0
// if there are fewer than two blocks, or no threads for them: then it must not look at all blocks before each one.
std::uint64_t partReader::loadSeveral(std::uint32_t first, unsigned char* to, std::uint64_t size) {
    if (!fSource->loadsSeveral()) return 0;
    const std::span<const filePosRecord> records = fIndex.records().subspan(first);
    std::int64_t end = records.front().orginalPos;
    std::uint64_t left = size;
    std::uint32_t count = 0;
    for (const filePosRecord& record : records) {
        const auto rows = static_cast<std::uint64_t>(record.orginalSize);
        if (record.orginalPos != end || !isBlockSize(record.orginalSize) || rows >= left) break;
        end += record.orginalSize;
        left -= rows;
        ++count;
    }
    if (count < 2) return 0;
    const std::uint32_t came = fSource->loadSeveral(first, count, to);
    if (came == 0) return 0;
    const filePosRecord& last = records[came - 1];
    return static_cast<std::uint64_t>(rowsEnd(last) - records.front().orginalPos);
}

// The block to load for `pos`: none if the current one has it, or if it lies outside the rows.
std::optional<std::uint32_t> partReader::blockToLoad(std::int64_t pos) {
    if (holds(pos)) return std::nullopt;
    fBuffer = nullptr;
    if (fSource == nullptr) makeSource(fThreadSettings, fCachedBlocks);
    const std::optional<std::uint32_t> number = fIndex.find(pos);
    if (number || pos < fHeading._caseStartPos || pos >= end()) return number;
    throw DamagedFileError(fFile.GetNameStr().GetGeneric(), "bInfo.orginalPos != -200",
                           "no block of its index holds the logical position " + std::to_string(pos));
}

}  // namespace orva
