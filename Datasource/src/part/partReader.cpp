#include "part/partReader.h"

#include "format/indexTransfer.h"

#include <orva/errors.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

namespace orva {

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

std::uint64_t partReader::read(std::int64_t& pos, unsigned char* to, std::uint64_t size) {
    try {
        std::uint64_t done = 0;
        while (done < size) {
            const std::uint64_t count = readOn(pos, to + done, size - done);
            if (count == 0) break;
            done += count;
            pos += static_cast<std::int64_t>(count);
        }
        return done;
    } catch (const DamagedFileError& damage) {
        if (changedSince(fFile, fHeading, bSwap, fIndex)) throw FileChangedError(damage);
        throw;
    }
}

// What the block at `pos` has of them, 0 where there is none.
std::uint64_t partReader::readOn(std::int64_t pos, unsigned char* to, std::uint64_t size) {
    if (!holds(pos)) {
        fBuffer = nullptr;
        if (fSource == nullptr) remake(fTaken, fCachedBlocks);
        const std::optional<std::uint32_t> number = numberAt(pos);
        if (!number) return 0;
        const filePosRecord& record = fIndex.parsed(*number);
        const auto whole = static_cast<std::uint64_t>(record.orginalSize);
        // Blocks that the request covers go straight into the caller's memory. Its last one does not: it stays in
        // hand, so that a small step back costs no file access.
        if (record.orginalPos == pos && whole < size) {
            fSource->read(*number, to);
            return whole;
        }
        fBuffer = fSource->lend(*number);
        fpos = record.orginalPos;
        fSize = record.orginalSize;
    }
    const std::uint64_t count = std::min(size, static_cast<std::uint64_t>(fpos + fSize - pos));
    std::memcpy(to, fBuffer + (pos - fpos), count);
    return count;
}

std::optional<std::uint32_t> partReader::numberAt(std::int64_t pos) const {
    const std::optional<std::uint32_t> number = fIndex.find(pos);
    if (number || pos < fHeading._caseStartPos || pos >= end()) return number;
    throw DamagedFileError(fFile.GetNameStr().GetGeneric(), "bInfo.orginalPos != -200",
                           "no block of its index holds the logical position " + std::to_string(pos));
}

}  // namespace orva
