#include "api/shownPart.h"

#include "api/translated.h"
#include "format/indexTransfer.h"
#include "part/heldSideFile.h"
#include "part/keptTail.h"

#include <orva/errors.h>
#include <orva/errtext.h>
#include <orva/platformOwner.h>
#include <orva/sideFile.h>

#include <algorithm>
#include <atomic>
#include <utility>

namespace orva {

namespace {

// What an append at work, or interrupted, has kept of the file that `bytes` are of; nothing where there is none that
// can be read and believed.
std::optional<keptTail> keptBeside(const std::string& place, const storedBytes& bytes, const foundHeading& found) {
    if (place.empty() || !platform::isNameTaken(sideFileName(place).c_str())) return {};
    try {
        heldSideFile side(place);
        keptTail kept;
        if (!side.open() || !side.isTrusted()) return {};
        if (parse(side.read(bytes.length() + kSideFileOverhead), kept) != sideFileState::whole) return {};
        if (kept.row0Pos != found.heading._caseStartPos || kept.heading != found.raw) return {};
        return kept;
    } catch (const ::DamagedFileError&) {
        return {};
    } catch (const FileError&) {
        return {};
    }
}

}  // namespace

std::string interruptedText(const Path& path) {
    return '"' + path.string() +
           "\" is not finished: an append to it is at work or was interrupted. Wait for it, or have it undone by 'orva "
           "recover --roll-back " +
           path.string() + '\'';
}

shownPart::shownPart(const Path& path, const Path& place, std::optional<i64> row0, bool locked)
    : fPath(path), fPlace(place.string()) {
    auto file = std::make_unique<openedFile>(path.string(), fPlace);
    fFile = file.get();
    fBytes = std::move(file);
    fFound = findHeading(*fBytes, row0, fPath, fPlace);
    if (keptBeside(fPlace, *fBytes, fFound)) throw UnfinishedFileError(interruptedText(fPath), fPath);
    try {
        load();
    } catch (const ::DamagedFileError&) {
        const bool interrupted = platform::isNameTaken(sideFileName(fPlace).c_str());
        if (!interrupted && (locked || !fFile->isBeingWritten())) throw;
        throw UnfinishedFileError(interruptedText(fPath), fPath);
    }
}

shownPart::shownPart(std::shared_ptr<const ByteSource> source, std::optional<i64> row0)
    : fBytes(std::make_unique<sourceBytes>(std::move(source))), fFound(findHeading(*fBytes, row0, fPath, fPlace)) {
    load();
}

std::uint64_t shownPart::nextId() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
}

// A source is asked once: it may be far away.
void shownPart::load() {
    fFileSize = fBytes->length();
    indexContent content = readRecords(*fBytes, fFound.heading, fFound.swapped, fFile == nullptr);
    fBlockSize = content.blockSize;
    fRecords = std::move(content.records);
}

std::int64_t shownPart::begin(std::uint32_t number) const {
    if (number < blockCount()) return fRecords[number].orginalPos - row0();
    return fRecords.empty() ? 0 : fRecords.back().orginalPos + fRecords.back().orginalSize - row0();
}

std::uint32_t shownPart::blockAt(std::int64_t offset) const {
    const auto behind = std::upper_bound(fRecords.begin(), fRecords.end(), offset + row0(),
                                         [](std::int64_t pos, const filePosRecord& r) { return pos < r.orginalPos; });
    return static_cast<std::uint32_t>(behind - fRecords.begin()) - 1;
}

Block shownPart::block(std::uint32_t number) const {
    const filePosRecord& r = fRecords[number];
    return {{r.orginalPos - row0(), r.orginalSize}, r.translatePos, r.translateSize};
}

void shownPart::read(std::uint32_t number, unsigned char* compressed, unsigned char* to) const {
    zlibCompressBlock codec;
    const readRoad road{*fBytes, codec, compressed};
    try {
        readBlock(road, placeOf(fRecords, number, fFileSize), to);
    } catch (const ::DamagedFileError& damage) {
        if (!readKept(number, road, to)) fail(number, damage);
    } catch (...) {
        rethrowTranslated(fPath);
    }
}

// The last block as an append under way has found it.
bool shownPart::readKept(std::uint32_t number, const readRoad& road, unsigned char* to) const {
    if (number + 1 != blockCount()) return false;
    const std::optional<keptTail> kept = keptBeside(fPlace, *fBytes, fFound);
    const blockPlace block = placeOf(fRecords, number, fFileSize);
    if (!kept || kept->untouchedEnd != block.record.translatePos) return false;
    if (std::ssize(kept->block) != block.record.translateSize) return false;
    try {
        if (untouchedSum(*fBytes, row0(), kept->untouchedEnd) != kept->untouchedSum) return false;
        std::copy(kept->block.begin(), kept->block.end(), road.compressed);
        inflateBlock(road, block, to);
        return true;
    } catch (const ::DamagedFileError&) {
        return false;
    }
}

void shownPart::fail(std::uint32_t number, const ::DamagedFileError& damage) const {
    if (hasChanged(number)) throw FileChangedError(::FileChangedError(damage).what(), fPath, begin(number), number);
    throw DamagedFileError(textOf(damage, fPath), fPath, begin(number), number);
}

// An append writes over the last block before index and heading tell of it.
bool shownPart::hasChanged(std::uint32_t number) const {
    if (fFile != nullptr && number + 1 == blockCount() && fFile->isBeingWritten()) return true;
    return changedSince(*fBytes, fFound.heading, fFound.swapped, fRecords);
}

}  // namespace orva
