#include "api/foundHeading.h"

#include "api/translated.h"
#include "base/fileError.h"
#include "file/namedFile.h"

#include <orva/errors.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <string_view>

namespace orva {

namespace {

// Covers most dictionary parts with the heading after them, so that one read is enough.
constexpr std::int64_t kFirstRead = 4096;

class headingSearch {
public:
    headingSearch(const storedBytes& bytes, const Path& path, const std::string& place, const Progress& progress)
        : fBytes(bytes), fPath(path), fPlace(place), fProgress(progress) {
        for (std::int64_t before = INT64_MAX; !takeFirst(); before = fLength) {
            if (fLength >= before) refuse("became shorter while it was being opened: try again");
        }
        fText = parseDictionaryText(fFirst);
    }

    foundHeading at(i64 row0) const {
        if (row0 < 1) throw UsageError(named("row0 must be 1 or more, got " + std::to_string(row0)), fPath);
        if (fLength > 0 && row0 >= fLength && !isStated(row0)) {
            refuse("has no heading at offset " + std::to_string(row0) + ", because it ends at offset " +
                   std::to_string(fLength) + ": check row0, or leave it out to search for the rows");
        }
        return headingAt(FileInfo::FoundBy::option, row0);
    }

    foundHeading find() const {
        if (!fText && fPlace.empty()) refuse("does not say where its rows begin: specify row0");
        foundHeading found = fText ? headingAt(FileInfo::FoundBy::dictionary, fText->row0Pos)
                                   : headingAt(FileInfo::FoundBy::search, searched());
        if (!fPlace.empty()) refuseSecond(found);
        return found;
    }

private:
    // False if the file has become shorter meanwhile: undoing an append cuts off what it added.
    bool takeFirst() {
        fLength = fBytes.length();
        fFirst.resize(static_cast<std::size_t>(std::min(kFirstRead, fLength)));
        return fBytes.read(fFirst.data(), fFirst.size(), 0);
    }

    std::string named(const std::string& reason) const { return withName(fBytes.name(), fPath, reason); }
    [[noreturn]] void refuse(const std::string& reason) const { throw DamagedFileError(named(reason), fPath); }

    std::optional<foundPart> partFrom(std::int64_t from) const {
        return findPart(fPlace, from, [this](std::int64_t at) { reportProgress(fProgress, at, fLength); });
    }

    std::int64_t searched() const {
        if (const auto part = partFrom(1)) return part->row0Pos;
        if (fLength == 0) refuse("file is empty: check that it is the right one");
        refuse(
            "has no finished compressed part: check that it is the right file and that its writer has finished, or "
            "specify row0");
    }

    // The heading repeats its own offset, which shows its byte order.
    foundHeading headingAt(FileInfo::FoundBy by, std::int64_t place) const {
        foundHeading found{by, {}, {}, false, isStated(place) ? fText : std::nullopt};
        if (!readRaw(place, found.raw)) refuseNone(place);
        found.heading = std::bit_cast<compressionHeading>(found.raw);
        if (found.heading._caseStartPos == place && !looksSwapped(found.heading)) return found;
        swapHeading(found.heading);
        found.swapped = true;
        if (found.heading._caseStartPos != place) refuseNone(place);
        return found;
    }

    // An offset that reads the same in both orders does not show it. The place of the index then does.
    bool looksSwapped(compressionHeading heading) const {
        if (swapBytes(heading._caseStartPos) != heading._caseStartPos) return false;
        const auto fits = [&] { return heading._indexPos > heading._caseStartPos && heading._indexPos < fLength; };
        const bool own = fits();
        swapHeading(heading);
        return !own && fits();
    }

    bool readRaw(std::int64_t place, rawHeading& raw) const {
        if (place > fLength - kHeadingSize) return false;
        if (place > std::ssize(fFirst) - kHeadingSize) return fBytes.read(raw.data(), raw.size(), place);
        std::memcpy(raw.data(), fFirst.data() + place, raw.size());
        return true;
    }

    bool isStated(std::int64_t place) const { return fText && fText->row0Pos == place; }

    [[noreturn]] void refuseNone(std::int64_t place) const {
        const std::string where = "offset " + std::to_string(place);
        if (isStated(place)) {
            throw UnfinishedFileError(
                named("unfinished: there is no heading at " + where + ", where its rows begin"), fPath, {}, {},
                fPath.empty() ? ""
                              : "if its writer has ended, run 'orva recover " + shellWord(fPath.string()) +
                                    " -o OUT' to save the complete blocks");
        }
        refuse("has no heading at " + where + ": check row0, and that its writer has finished");
    }

    // Nothing needs to follow the index of a part. A part there may be the one that was meant: a finished file
    // can serve as the dictionary part of another, and would be found first.
    void refuseSecond(const foundHeading& found) const {
        const foundPart first{found.heading._caseStartPos, found.swapped};
        const auto& [row0, indexPos, size] = found.heading;
        if (indexPos <= row0 || indexPos > fLength || size < 0 || size > fLength - kHeadingSize - indexPos) return;
        const auto second = partFrom(indexPos + size);
        if (!second || !isSound(fPlace, *second) || !isSound(fPlace, first)) return;
        throw UsageError("has two compressed parts, at offsets " + std::to_string(first.row0Pos) + " and " +
                             std::to_string(second->row0Pos) + ": specify row0 to choose one",
                         fPath);
    }

    const storedBytes& fBytes;
    const Path& fPath;
    const std::string& fPlace;
    const Progress& fProgress;
    std::int64_t fLength = 0;
    std::string fFirst;
    std::optional<dictionaryText> fText;
};

}  // namespace

bool isSound(const std::string& name, const foundPart& part) {
    ORVA_File file;
    openOrThrow(file, name, "rb", kReadFailed);
    const auto heading = headingOf(rawHeadingAt(file, part.row0Pos).data(), part.row0Pos, part.swapped);
    return heading && indexOf(file, *heading, part.swapped);
}

foundHeading findHeading(const storedBytes& bytes, std::optional<i64> row0, const Path& path, const std::string& place,
                         const Progress& progress) {
    const headingSearch search(bytes, path, place, progress);
    return row0 ? search.at(*row0) : search.find();
}

}  // namespace orva
