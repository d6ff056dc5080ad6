// What an interrupted safe append has left: undone, taken for what it has become, or refused. Rows that anybody has
// finished are never undone; docs/recovery.md, "Roll-back", has the rules.
#include "base/fileError.h"
#include "file/namedFile.h"
#include "format/blockTransfer.h"
#include "format/indexTransfer.h"
#include "part/heldSideFile.h"
#include "part/keptTail.h"
#include "recovery/zlibStreams.h"

#include <orva/blockSize.h>
#include <orva/errors.h>
#include <orva/inspect.h>

#include <algorithm>
#include <bit>

namespace orva {

namespace {

class interruptedAppend {
public:
    explicit interruptedAppend(const std::string& name) : fName(name), fSide(name) {
        openOrThrow(fFile, name, "r+b", kWriteFailed);
    }

    rollBackResult end() {
        if (!fSide.open()) return rollBackResult::nothingToDo;
        fSide.requireTrusted();
        fSize = lengthOf(fFile);
        const fileBytes sideFile = fSide.read(fSize + kSideFileOverhead);
        if (isForeign(sideFile)) fSide.refuseForeign();
        fKept = parse(sideFile);
        const rollBackResult result = fKept ? settle() : settleTorn();
        fSide.remove();
        fFile.Close();
        return result;
    }

private:
    // A part that is whole by its heading is history: of this append, of a later one, or of another file.
    rollBackResult settle() {
        const rawHeading heading = rawHeadingAt(fFile, fKept->row0Pos);
        const bool isSaved = heading == fKept->heading;
        const std::optional<soundIndex> index = indexOf(heading, fKept->row0Pos);
        // Every block that the append can have touched, and the one before them.
        if (index && (!isSaved || tailInflates(*index, fKept->untouchedEnd))) return rollBackResult::sideFileStale;
        const bool untouched = untouchedSum(fFile, fKept->row0Pos, fKept->untouchedEnd) == fKept->untouchedSum;
        if (!untouched) refuse("neither whole nor what the append has found");
        if (isSaved) {
            restoreTail(fFile, *fKept, true);
            return rollBackResult::rolledBack;
        }
        if (!mayBeTorn(heading) || !completeHeading()) refuse("neither whole nor what the append has left");
        return rollBackResult::completed;
    }

    // An append begins only once its side file is whole and durable, so beside one cut short the data stand as they
    // stood. Where they don't, the side file was damaged later, and must not be taken for one cut short.
    rollBackResult settleTorn() {
        if (const std::optional<foundPart> part = findPart(fName)) {
            const std::optional<soundIndex> index = indexOf(rawHeadingAt(fFile, part->row0Pos), part->row0Pos);
            const bool hasBlocks = index && !index->records.empty();
            const std::int64_t lastBlock = hasBlocks ? index->records.back().translatePos : 0;
            if (index && tailInflates(*index, lastBlock + 1)) return rollBackResult::sideFileStale;
        }
        refuse("not whole, and neither is the side file");
    }

    std::optional<soundIndex> indexOf(const rawHeading& heading, std::int64_t row0Pos) {
        return soundIndexOf(heading, row0Pos, fSize,
                            [&](std::int64_t place, std::int64_t size) { return bytesAt(fFile, place, size); });
    }

    // Every block that ends there or behind it.
    bool tailInflates(const soundIndex& index, std::int64_t from) {
        return std::ranges::all_of(index.records, [&](const filePosRecord& r) {
            const auto length = static_cast<std::uint32_t>(r.translateSize);
            return r.translatePos + r.translateSize < from ||
                   fStreams.rowsAt(r.translatePos, length, r.orginalSize) != nullptr;
        });
    }

    // The bytes that say where the heading stands are the same in every heading at this place.
    bool mayBeTorn(const rawHeading& heading) const {
        const auto place = std::bit_cast<std::array<unsigned char, sizeof(std::int64_t)>>(fKept->row0Pos);
        for (std::size_t i = 0; i < place.size(); ++i) {
            if (heading[i] != place[i] && heading[i] != place[place.size() - 1 - i]) return false;
        }
        return true;
    }

    // A heading is written once blocks and index are durable, so what it was to point to stands behind the last of the
    // whole streams.
    bool completeHeading() {
        const std::int64_t end = streamsEnd();
        filePosRecord first;
        if (fFile.Read(&first, sizeof first, end) != sizeof first) return false;
        const bool swap = first.orginalPos != kFirstRecordMark;
        if (swap) swapRecord(first);
        compressionHeading heading{fKept->row0Pos, end, (first.translateSize + std::int64_t{1}) * kRecordSize};
        if (swap) swapHeading(heading);
        const rawHeading raw = std::bit_cast<rawHeading>(heading);
        const std::optional<soundIndex> index = indexOf(raw, fKept->row0Pos);
        if (!index || !tailInflates(*index, fKept->untouchedEnd)) return false;
        writeAll(fFile, raw.data(), raw.size(), fKept->row0Pos);
        fFile.Sync();
        return true;
    }

    std::int64_t streamsEnd() {
        for (std::int64_t at = fKept->untouchedEnd;;) {
            const blockOutcome outcome = fStreams.at(at, kBlockSize);
            if (outcome.end != blockOutcome::complete) return at;
            at += outcome.consumed;
        }
    }

    [[noreturn]] void refuse(const std::string& why) const {
        throw DamagedFileError(fSide.name(), "a state that an append leaves",
                               "\"" + fName + "\" is " + why + "; nothing was changed: 'orva recover " +
                                   shellWord(fName) + " -o OUT' gets what it holds");
    }

    const std::string fName;
    ORVA_File fFile;  // with the writer's lock
    zlibStreams fStreams{fFile};
    heldSideFile fSide;
    std::int64_t fSize = 0;
    std::optional<keptTail> fKept;
};

}  // namespace

rollBackResult rollBack(const std::string& name) {
    return interruptedAppend(name).end();
}

}  // namespace orva
