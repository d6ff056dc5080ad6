// Rebuilding a finished file from a damaged or unfinished one.
#include "base/fileError.h"
#include "file/namedFile.h"
#include "part/partWriter.h"
#include "recovery/partSurvey.h"
#include "recovery/zlibStreams.h"

#include <orva/errors.h>
#include <orva/inspect.h>
#include <orva/platform.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <limits>
#include <span>
#include <utility>

namespace orva {

namespace {

// Called with what is done of going through the file twice.
using progress = std::function<void(std::int64_t)>;

// Its holes stay holes.
void copyDictionary(ORVA_File& from, ORVA_File& to, std::int64_t size) {
    constexpr std::int64_t most = 1 << 16;
    for (std::int64_t at = from.nextStored(0); at < size; at = from.nextStored(at)) {
        const std::int64_t piece = std::min(size - at, most);
        if (to.CopyFrom(from, at, piece, at) < piece)
            throw DamagedFileError(from.GetNameStr().GetGeneric(), "ret == size", "it ends too soon");
        at += piece;
    }
}

void writeZeros(const surveySegment& lost, partWriter& output, const progress& tell) {
    for (std::int64_t left = lost.size; left > 0;) {
        tell(lost.place);
        const std::span<unsigned char> room = output.room();
        const auto count = std::min(std::ssize(room), left);
        std::fill_n(room.begin(), count, '\0');
        output.wrote(static_cast<std::uint32_t>(count));
        left -= count;
    }
}

// Writes the rows that were found, one after the other, and keeps the account of them.
void writeRows(partFindings& found, zlibStreams& streams, partWriter& output, bool dropLost, const progress& tell) {
    recoverReport& report = found.report;
    std::int64_t pos = report.part.row0Pos;
    for (const surveySegment& segment : found.segments) {
        tell(segment.place);
        const unsigned char* rows =
            segment.isLost() ? nullptr : streams.rowsAt(segment.place, segment.length, segment.size);
        if (rows != nullptr) {
            output.write(rows, static_cast<std::uint64_t>(segment.size));
            ++report.blocks;
            report.rows += segment.size;
        } else {
            const std::string why = segment.why == nullptr ? "its block could not be read again" : segment.why;
            report.lost.push_back({pos, pos + segment.size, segment.place, segment.estimated, why});
            // Where no rows come behind it, a guess at its size would move no position, and is not filled in.
            const bool trailing = &segment == &found.segments.back();
            if (!dropLost && !(trailing && segment.estimated)) writeZeros(segment, output, tell);
        }
        pos += segment.size;
    }
}

}  // namespace

// Never in place: opening the output for writing would empty the input.
recoverReport recover(const std::string& name, const std::string& output, const recoverOptions& options) {
    ORVA_File input;
    openOrThrow(input, name, "rb", kReadFailed);
    const std::int64_t size = std::min(input.Size(), std::numeric_limits<std::int64_t>::max() / 2);
    std::int64_t done = 0;
    // An index may send the walk back, which takes nothing from what was done.
    const progress tell = [&](std::int64_t now) {
        done = std::clamp(now, done, 2 * size);
        if (options.tell) options.tell(done, 2 * size);
    };
    zlibStreams streams(input);
    std::optional<partFindings> found = surveyed(streams, options, tell);
    if (!found) {
        throw DamagedFileError(name, "a complete block",
                               options.onlyCommitted ? "it holds no rows that were ever finished"
                                                     : "no block of compressed rows can be found in it");
    }
    if (platform::sameFile(name.c_str(), output.c_str())) {
        throwFileError(EINVAL, kWriteFailed, output, "recovered rows go to another file than the damaged one");
    }
    ORVA_File file;
    openOrThrow(file, output, "w+b", kWriteFailed);
    copyDictionary(input, file, found->report.part.row0Pos);
    partWriter rows(file, found->report.part.row0Pos, roads());
    writeRows(*found, streams, rows, options.dropLost, [&](std::int64_t place) { tell(size + std::min(place, size)); });
    tell(2 * size);
    rows.finish(false);
    return std::move(found->report);
}

}  // namespace orva
