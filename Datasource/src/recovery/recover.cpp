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
#include <memory>

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

// Writes the rows of a survey, one after the other, and keeps the account of them.
class rowWriter {
public:
    rowWriter(partSurvey& survey, partWriter& output, bool dropLost)
        : fSurvey(survey), fOutput(output), bDropLost(dropLost), fPos(survey.report.part.row0Pos) {}

    // `trailing`: no rows come behind it, so a guess at its size would move no position, and is not filled in.
    void take(const surveySegment& segment, bool trailing) {
        fSurvey.tell(segment.place, true);
        const unsigned char* rows = segment.length == 0 ? nullptr : fSurvey.rowsOf(segment);
        if (rows != nullptr) {
            fOutput.write(rows, static_cast<std::uint64_t>(segment.size));
            ++fSurvey.report.blocks;
            fSurvey.report.rows += segment.size;
        } else {
            lose(segment, bDropLost || (trailing && segment.estimated));
        }
        fPos += segment.size;
    }

private:
    void lose(const surveySegment& segment, bool drop) {
        const std::string why = segment.why == nullptr ? "its block could not be read again" : segment.why;
        fSurvey.report.lost.push_back({fPos, fPos + segment.size, segment.place, segment.estimated, why});
        if (drop) return;
        if (!fZeros) fZeros = std::make_unique<unsigned char[]>(kBlockSize);
        for (std::int64_t left = segment.size; left > 0;) {
            fSurvey.tell(segment.place, true);
            const std::int64_t piece = std::min<std::int64_t>(left, kBlockSize);
            fOutput.write(fZeros.get(), static_cast<std::uint64_t>(piece));
            left -= piece;
        }
    }

    partSurvey& fSurvey;
    partWriter& fOutput;
    const bool bDropLost;
    std::int64_t fPos;
    std::unique_ptr<unsigned char[]> fZeros;
};

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
    rowWriter writer(survey, rows, dropLost);
    for (const surveySegment& segment : survey.segments) writer.take(segment, &segment == &survey.segments.back());
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
