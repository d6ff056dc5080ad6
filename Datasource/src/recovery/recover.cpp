// Rebuilding a finished file from a damaged or unfinished one.
#include "base/fileError.h"
#include "file/namedFile.h"
#include "part/partWriter.h"
#include "recovery/partSurvey.h"

#include <orva/blockSize.h>
#include <orva/errors.h>
#include <orva/inspect.h>
#include <orva/platform.h>

#include <algorithm>
#include <cerrno>
#include <span>

namespace orva {

namespace {

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

void writeZeros(partSurvey& survey, const surveySegment& lost, partWriter& output) {
    for (std::int64_t left = lost.size; left > 0;) {
        survey.tell(lost.place, true);
        const std::span<unsigned char> room = output.room();
        const auto count = std::min(std::ssize(room), left);
        std::fill_n(room.begin(), count, '\0');
        output.wrote(static_cast<std::uint32_t>(count));
        left -= count;
    }
}

// Writes the rows of a survey, one after the other, and keeps the account of them.
void writeRows(partSurvey& survey, partWriter& output, bool dropLost) {
    recoverReport& report = survey.report;
    std::int64_t pos = report.part.row0Pos;
    for (const surveySegment& segment : survey.segments) {
        survey.tell(segment.place, true);
        const unsigned char* rows = segment.length == 0 ? nullptr : survey.rowsOf(segment);
        if (rows != nullptr) {
            output.write(rows, static_cast<std::uint64_t>(segment.size));
            ++report.blocks;
            report.rows += segment.size;
        } else {
            const std::string why = segment.why == nullptr ? "its block could not be read again" : segment.why;
            report.lost.push_back({pos, pos + segment.size, segment.place, segment.estimated, why});
            // Where no rows come behind it, a guess at its size would move no position, and is not filled in.
            const bool trailing = &segment == &survey.segments.back();
            if (!dropLost && !(trailing && segment.estimated)) writeZeros(survey, segment, output);
        }
        pos += segment.size;
    }
}

// Never in place: opening the output for writing would empty the input.
void writeRecovered(partSurvey& survey, ORVA_File& input, const std::string& output, bool dropLost) {
    if (platform::sameFile(input.GetNameStr().GetGeneric().c_str(), output.c_str())) {
        throwFileError(EINVAL, kWriteFailed, output, "recovered rows go to another file than the damaged one");
    }
    ORVA_File file;
    openOrThrow(file, output, "w+b", kWriteFailed);
    const std::int64_t row0Pos = survey.report.part.row0Pos;
    copyDictionary(input, file, row0Pos);
    partWriter rows(file, row0Pos, roads());
    writeRows(survey, rows, dropLost);
    survey.tell(input.Size(), true);
    rows.finish(false);
}

}  // namespace

recoverReport recover(const std::string& name, const std::string& output, const recoverOptions& options) {
    ORVA_File input;
    openOrThrow(input, name, "rb", kReadFailed);
    partSurvey survey(input);
    if (!survey.run(options)) {
        throw DamagedFileError(name, "a complete block",
                               options.onlyCommitted ? "it holds no rows that were ever finished"
                                                     : "no block of compressed rows can be found in it");
    }
    writeRecovered(survey, input, output, options.dropLost);
    return survey.report;
}

}  // namespace orva
