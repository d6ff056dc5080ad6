#include "api/partSnapshot.h"

#include "api/translated.h"
#include "base/fileError.h"
#include "format/filePosInfo.h"
#include "format/indexTransfer.h"
#include "format/storedBytes.h"
#include "part/heldSideFile.h"
#include "part/undoRecord.h"

#include <orva/errors.h>
#include <orva/errtext.h>
#include <orva/sideFile.h>

#include <algorithm>
#include <atomic>
#include <utility>

namespace orva {

namespace {

// The old tail that an append, at work or interrupted, has saved of the file of `bytes`; none if no side file can be
// read and believed. FileError if that could not be found out.
std::optional<undoRecord> undoRecordBeside(const std::string& place, const storedBytes& bytes,
                                           const foundHeading& found) {
    if (place.empty() || !hasSideFile(place)) return {};
    try {
        heldSideFile side(place);
        std::optional<undoRecord> kept = readUndoRecord(side, bytes);
        if (kept && kept->row0Pos == found.heading._caseStartPos && kept->heading == found.raw) return kept;
    } catch (const FileError& failure) {
        if (!isAbsentOrForbidden(failure.code().value())) throw;
    }
    return {};
}

// The result of one look at a file that may be changing; no records if they could not be believed.
struct seen {
    rawHeading heading;
    std::vector<filePosRecord> records;
    bool operator==(const seen&) const = default;
};

std::string stateText(const std::string& name, bool alive) {
    if (alive) return "an append, or another writer, is at work on it: try again when it has ended";
    return "an append to it was interrupted and left \"" + sideFileName(name) + "\": run 'orva recover --roll-back " +
           shellWord(name) + "' to roll it back without loss";
}

}  // namespace

UnfinishedFileError unfinished(const Path& path, bool alive) {
    return {"unfinished: " + stateText(path.string(), alive), path};
}

std::string append_state(const Path& path) {
    const std::string name = path.string();
    return translated(path, [&] {
        const openedFile file(name, name);
        const bool alive = file.isBeingWritten();
        if (!alive && !hasSideFile(name)) return std::string();
        return stateText(name, alive || file.isBeingWritten());  // an append may have begun between the two looks
    });
}

partSnapshot::partSnapshot(const Path& path, const Path& place, std::optional<i64> row0, bool locked,
                           const Progress& progress)
    : fPath(path), fPlace(place.string()) {
    auto file = std::make_unique<openedFile>(path.string(), fPlace);
    fFile = file.get();
    fBytes = std::move(file);
    const auto alive = [&] { return !locked && fFile->isBeingWritten(); };
    for (std::optional<seen> before;;) {
        fFound = findHeading(*fBytes, row0, fPath, fPlace, progress);
        if (undoRecordBeside(fPlace, *fBytes, fFound)) {
            const bool atWork = alive();
            // A side file now may be the next append's; if it is gone, that append is over.
            if (atWork || hasSideFile(fPlace)) throw unfinished(fPath, atWork || alive());
            continue;
        }
        std::optional<::DamagedFileError> damage;
        fRecords.clear();
        try {
            load();
            if (isOfOneMoment()) return;
        } catch (const ::DamagedFileError& met) {
            damage = met;
        }
        if (alive()) throw unfinished(fPath, true);
        // An append that has just ended may have overwritten the old index, even between two reads. What two looks
        // agree on is the file's own content.
        const std::optional<seen> earlier = std::exchange(before, seen{fFound.raw, fRecords});
        if (earlier != before) continue;
        if (!damage) return;
        if (hasSideFile(fPlace)) throw unfinished(fPath, alive());
        throw ::DamagedFileError(*damage);
    }
}

partSnapshot::partSnapshot(std::shared_ptr<const ByteSource> source, const std::string& name, std::optional<i64> row0)
    : fBytes(std::make_unique<sourceBytes>(std::move(source), name)),
      fFound(findHeading(*fBytes, row0, fPath, fPlace)) {
    load();
}

std::uint64_t partSnapshot::nextId() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
}

// A source is read once: it may be far away.
void partSnapshot::load() {
    fFileSize = fBytes->length();
    fRecords = readIndex(*fBytes, fFound.heading, fFound.swapped, fFile == nullptr);
    fBlockSize = static_cast<std::uint32_t>(fRecords.front().orginalSize);
    fRecords.erase(fRecords.begin());
    fLongestStored = longest(fRecords, &filePosRecord::translateSize);
    fLongestRows = longest(fRecords, &filePosRecord::orginalSize);
}

// A mixture of two indexes seldom covers the rows without gaps; if it does, the heading has changed.
bool partSnapshot::isOfOneMoment() const {
    return rawHeadingAt(*fBytes, row0()) == fFound.raw && !firstGap(fFound.heading, fRecords);
}

std::int64_t partSnapshot::begin(std::uint32_t number) const {
    if (number < blockCount()) return fRecords[number].orginalPos - row0();
    return fRecords.empty() ? 0 : rowsEnd(fRecords.back()) - row0();
}

std::uint32_t partSnapshot::blockAt(std::int64_t offset) const {
    const auto behind = std::ranges::upper_bound(fRecords, offset + row0(), {}, &filePosRecord::orginalPos);
    return static_cast<std::uint32_t>(behind - fRecords.begin()) - 1;
}

Block partSnapshot::block(std::uint32_t number) const {
    const filePosRecord& r = fRecords[number];
    return {{begin(number), begin(number + 1) - begin(number)}, r.translatePos, r.translateSize};
}

std::vector<std::byte> partSnapshot::dictionary() const {
    std::vector<std::byte> all(sizeInMemory(row0()));
    const bool whole = translated(fPath, [&] { return fBytes->read(all.data(), all.size(), 0); });
    if (!whole)
        throw FileChangedError(withName(fBytes->name(), fPath, "has become shorter since it was opened"), fPath);
    return all;
}

std::vector<Block> partSnapshot::blocks() const {
    std::vector<Block> all(blockCount());
    for (std::uint32_t i = 0; i < blockCount(); ++i) all[i] = block(i);
    return all;
}

void partSnapshot::read(std::uint32_t number, unsigned char* compressed, unsigned char* to) const {
    try {
        readRechecked([&] { readOld(number, compressed, to); }, [&] { return hasChanged(number); });
    } catch (...) {
        rethrowTranslated(fPath, {}, begin(number));
    }
}

// Reads from the file, or the block that an append under way has saved.
void partSnapshot::readOld(std::uint32_t number, unsigned char* compressed, unsigned char* to) const {
    zlibCompressBlock codec;
    const readContext context{*fBytes, codec, compressed};
    try {
        readBlock(context, placeOf(fRecords, number, fFileSize), to);
    } catch (const ::DamagedFileError&) {
        if (!readKept(number, context, to)) throw;
    }
}

// Reads the last block from the side file of an append under way.
bool partSnapshot::readKept(std::uint32_t number, const readContext& context, unsigned char* to) const {
    if (number + 1 != blockCount()) return false;
    const std::optional<undoRecord> kept = undoRecordBeside(fPlace, *fBytes, fFound);
    const blockPlace block = placeOf(fRecords, number, fFileSize);
    if (!kept || kept->untouchedEnd != block.record.translatePos) return false;
    if (std::ssize(kept->block) != block.record.translateSize) return false;
    try {
        if (untouchedSum(*fBytes, row0(), kept->untouchedEnd) != kept->untouchedSum) return false;
        std::copy(kept->block.begin(), kept->block.end(), context.compressed);
        inflateBlock(context, block, to);
        return true;
    } catch (const std::runtime_error&) {  // whatever fails here, the block itself is damaged
        return false;
    }
}

// An append overwrites the last block before index and heading show it.
bool partSnapshot::hasChanged(std::uint32_t number) const {
    if (fFile != nullptr && number + 1 == blockCount() && fFile->isBeingWritten()) return true;
    return changedSince(*fBytes, fFound.heading, fFound.swapped, fRecords, number);
}

}  // namespace orva
