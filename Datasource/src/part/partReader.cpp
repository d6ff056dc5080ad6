#include "part/partReader.h"

#include "format/blockTransfer.h"
#include "format/indexTransfer.h"

#include <orva/blockSize.h>
#include <orva/errors.h>

#include <algorithm>
#include <string>
#include <utility>

namespace orva {

namespace {

// A file that is looked at though nobody has asked: what fails there is no failure of the caller's.
class lookedAt final : public storedBytes {
public:
    explicit lookedAt(ORVA_File& file) : fFile(file) {}
    const std::string& name() const override { return fFile.name(); }
    std::int64_t length() const override { return fFile.length(); }
    bool read(void* to, std::uint64_t size, std::int64_t place) const override {
        return fFile.read(to, size, place, true);
    }

private:
    const bytesFrom fFile;
};

}  // namespace

partReader::partReader(ORVA_File& file, std::int64_t row0Pos, bool swap, const roads& taken, std::uint32_t cachedBlocks)
    : fFile(file),
      fHeading(
          readHeading(file, row0Pos, swap, "posofpos == chInfo._caseStartPos && \"Analyze dictionary part error!\"")),
      bSwap(swap),
      fIndex(kBlockSize, file.GetNameStr().GetGeneric()) {
    loadIndex(file, fHeading, swap, fIndex);
    remake(taken, cachedBlocks);
}

void partReader::endThreads() noexcept {
    fBuffer = nullptr;
    fSource.reset();
    fTaken = {};
}

void partReader::remake(const roads& taken, std::uint32_t cachedBlocks) {
    std::unique_ptr<blockSource> source = makeSource(fFile, fIndex, taken, cachedBlocks);
    fBuffer = nullptr;
    fSource = std::move(source);
    fTaken = taken;
    fCachedBlocks = cachedBlocks;
}

// A block that is not what its record says may be another process's doing.
std::uint64_t partReader::read(std::int64_t& pos, unsigned char* to, std::uint64_t size) {
    const lookedAt look(fFile);
    std::uint64_t done = 0;
    while (done < size) {
        const std::uint64_t count = readSurely([&] { return readOn(pos, to + done, size - done); },
                                               [&] { return changedSince(look, fHeading, bSwap, fIndex.records()); });
        if (count == 0) break;
        done += count;
        pos += static_cast<std::int64_t>(count);
    }
    return done;
}

// What the block at `pos` has of them, 0 where there is none. Blocks that the request covers go straight into the
// caller's memory. Its last one does not: it stays in hand, so that a small step back costs no file access.
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

// The bytes of the blocks from there on that the request covers, less its last one, as far as they came at once.
std::uint64_t partReader::loadSeveral(std::uint32_t first, unsigned char* to, std::uint64_t size) {
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
    const filePosRecord& lastOne = records[came - 1];
    return static_cast<std::uint64_t>(lastOne.orginalPos + lastOne.orginalSize - records.front().orginalPos);
}

// None if the one in hand has the position, or no block has.
std::optional<std::uint32_t> partReader::blockToLoad(std::int64_t pos) {
    if (holds(pos)) return std::nullopt;
    fBuffer = nullptr;
    if (fSource == nullptr) remake(fTaken, fCachedBlocks);
    const std::optional<std::uint32_t> number = fIndex.find(pos);
    if (number || pos < fHeading._caseStartPos || pos >= end()) return number;
    throw DamagedFileError(fFile.GetNameStr().GetGeneric(), "bInfo.orginalPos != -200",
                           "no block of its index holds the logical position " + std::to_string(pos));
}

}  // namespace orva
