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

namespace orva {

namespace {

// Called with the bytes done, of twice the file's length.
using progress = std::function<void(std::int64_t)>;

// Keeps holes as holes.
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
    const rowSource zeros = [&](std::int64_t, std::span<unsigned char> to) {
        tell(lost.place);
        std::ranges::fill(to, '\0');
    };
    output.writeFrom(zeros, lost.size);
}

// Writes the rows that were found, and reports the blocks and rows recovered and the ranges lost.
void writeRows(const surveySegments& found, zlibStreams& streams, partWriter& output, bool dropLost,
               const progress& tell, recoverReport& report) {
    std::int64_t pos = report.part.row0Pos;
    for (const surveySegment& segment : found) {
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
            // An estimated gap at the end is not filled in: no rows follow whose positions it would keep.
            const bool trailing = &segment == &found.back();
            if (!dropLost && !(trailing && segment.estimated)) writeZeros(segment, output, tell);
        }
        pos += segment.size;
    }
}

}  // namespace

// Refuses the same file twice: opening the output would empty the input.
recoverReport recover(const std::string& name, const std::string& output, const recoverOptions& options) {
    ORVA_File input;
    openOrThrow(input, name, "rb", kReadFailed);
    const std::int64_t size = std::min(input.Size(), std::numeric_limits<std::int64_t>::max() / 2);
    std::int64_t done = 0;
    // The search for an index runs ahead of the walk; the progress told never goes back.
    const progress tell = [&](std::int64_t now) {
        done = std::clamp(now, done, 2 * size);
        if (options.tell) options.tell(done, 2 * size);
    };
    zlibStreams streams(input);
    recoverReport report;
    const std::optional<surveySegments> found = surveyed(streams, options, tell, report);
    if (!found) {
        throw DamagedFileError(name, "a complete block",
                               options.onlyCommitted ? "it holds no rows that were ever finished"
                                                     : "no block of compressed rows can be found in it");
    }
    if (platform::sameFile(name.c_str(), output.c_str())) {
        throwFileError(EINVAL, kWriteFailed, output, "the output must not be the file to recover");
    }
    ORVA_File file;
    openOrThrow(file, output, "w+b", kWriteFailed);
    copyDictionary(input, file, report.part.row0Pos);
    partWriter rows(file, report.part.row0Pos, threadSettings());
    const progress tellWritten = [&](std::int64_t place) { tell(size + std::min(place, size)); };
    writeRows(*found, streams, rows, options.dropLost, tellWritten, report);
    tell(2 * size);
    rows.finish(false);
    return report;
}

}  // namespace orva
