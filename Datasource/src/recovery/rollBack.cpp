// Ends an interrupted safe append: undoes it, accepts or completes the file, or refuses. Never undoes finished rows,
// whoever finished them. Rules: docs/recovery.md, "Roll-back".
#include "base/fileError.h"
#include "file/namedFile.h"
#include "format/blockTransfer.h"
#include "format/indexTransfer.h"
#include "part/heldSideFile.h"
#include "part/undoRecord.h"
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
        const fileBytes sideFile = fSide.read(bytesFrom(fFile).length() + kSideFileOverhead);
        if (isForeign(sideFile)) fSide.refuseForeign();
        const std::optional<undoRecord> kept = parse(sideFile);
        const rollBackResult result = kept ? settle(*kept) : settleTorn();
        fFile.Sync();  // even if it is intact: its writer may have been killed before its own sync
        fSide.remove();
        fFile.Close();
        return result;
    }

private:
    // A finished part stays as it is, whether this append, a later one, or the writer of another file finished it.
    rollBackResult settle(const undoRecord& kept) {
        const rawHeading heading = rawHeadingAt(fFile, kept.row0Pos);
        const bool isSaved = heading == kept.heading;
        const std::optional<partIndex> index = soundIndexOf(fFile, heading, kept.row0Pos);
        // Inflates every block that the append can have touched, and the one before them.
        if (index && (!isSaved || tailInflates(*index, kept.untouchedEnd))) return rollBackResult::sideFileStale;
        if (untouchedSum(fFile, kept.row0Pos, kept.untouchedEnd) != kept.untouchedSum)
            refuse("neither intact nor as the append found it");
        if (isSaved) {
            restoreTail(fFile, kept, true);
            return rollBackResult::rolledBack;
        }
        if (!mayBeTorn(heading, kept.row0Pos) || !completeHeading(kept))
            refuse("neither intact nor as the append left it");
        return rollBackResult::completed;
    }

    // An append begins only once its side file is complete and durable, so beside an incomplete one the data file is
    // intact. If it is not, the side file was damaged later, and must not pass for one that was cut short.
    rollBackResult settleTorn() {
        if (const std::optional<foundPart> part = findPart(fName)) {
            const auto index = soundIndexOf(fFile, rawHeadingAt(fFile, part->row0Pos), part->row0Pos);
            if (index && (index->records.empty() || tailInflates(*index, index->records.back().translatePos + 1)))
                return rollBackResult::sideFileStale;
        }
        refuse("not intact, and neither is the side file");
    }

    // True if every block that ends at or after `from` inflates as recorded.
    bool tailInflates(const partIndex& index, std::int64_t from) {
        return std::ranges::all_of(index.records, [&](const filePosRecord& r) {
            const auto length = static_cast<std::uint32_t>(r.translateSize);
            return storedEnd(r) < from || fStreams.rowsAt(r.translatePos, length, r.orginalSize) != nullptr;
        });
    }

    // Every heading at this place begins with row0Pos, in one byte order or the other. In a torn mix of two,
    // each of the first 8 bytes still comes from one of them.
    static bool mayBeTorn(const rawHeading& heading, std::int64_t row0Pos) {
        const auto place = std::bit_cast<std::array<unsigned char, sizeof row0Pos>>(row0Pos);
        for (std::size_t i = 0; i < place.size(); ++i) {
            if (heading[i] != place[i] && heading[i] != place[place.size() - 1 - i]) return false;
        }
        return true;
    }

    // A heading is written once blocks and index are durable, so its index directly follows the last complete
    // stream.
    bool completeHeading(const undoRecord& kept) {
        std::int64_t end = kept.untouchedEnd;
        for (blockOutcome found{}; (found = fStreams.at(end, kBlockSize)).end == blockOutcome::complete;)
            end += found.consumed;
        const std::optional<partIndex> index = indexAt(fFile, kept.row0Pos, end);
        if (!index || firstGap(index->heading, index->records) || !tailInflates(*index, kept.untouchedEnd))
            return false;
        compressionHeading heading = index->heading;
        if (index->swapped) swapHeading(heading);
        writeAll(fFile, &heading, sizeof heading, kept.row0Pos);
        return true;
    }

    [[noreturn]] void refuse(const std::string& why) const {
        throw DamagedFileError(fSide.name(), "a state that an append leaves",
                               "\"" + fName + "\" is " + why + "; nothing was changed: run 'orva recover " +
                                   shellWord(fName) + " -o OUT' to save the rows that it holds");
    }

    const std::string fName;
    ORVA_File fFile;  // holds the writer's lock
    zlibStreams fStreams{fFile};
    heldSideFile fSide;
};

}  // namespace

rollBackResult rollBack(const std::string& name) {
    return interruptedAppend(name).end();
}

}  // namespace orva
