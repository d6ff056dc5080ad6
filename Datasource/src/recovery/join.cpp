#include "base/fileError.h"
#include "file/namedFile.h"
#include "format/blockTransfer.h"
#include "format/filePosInfo.h"
#include "part/heldSideFile.h"

#include <orva/errors.h>
#include <orva/join.h>
#include <orva/platform.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace orva {

namespace {

constexpr std::int64_t kCopyAtOnce = 1 << 26;  // bytes between two reports of progress

// Refuses any side file, whatever its content: while there is one, an append may have changed the last block and the
// index.
void refuseInterrupted(const std::string& name) {
    if (!hasSideFile(name)) return;
    throw FileChangedError(DamagedFileError(
        name, "no side file",
        "an append to it is at work or was interrupted: wait until it has ended, or undo it with 'orva "
        "recover --roll-back'"));
}

class joiner {
public:
    joiner(const std::vector<joinInput>& inputs, const joinOptions& options) : fInputs(inputs), fOptions(options) {}

    joinReport run(const std::string& output) {
        checkInputs(output);
        fReport.part = {copiesDictionary() ? fInputs[0].part.row0Pos : fOptions.row0Pos, fInputs[0].part.swapped};
        openOrThrow(fOutput, output, copiesDictionary() ? "w+b" : "r+b", kWriteFailed);
        for (const joinInput& input : fInputs) add(input);
        finish();
        return fReport;
    }

private:
    void checkInputs(const std::string& output) {
        if (fInputs.empty()) throw std::invalid_argument("no file to join");
        std::int64_t blocks = 0;
        for (const joinInput& input : fInputs) {
            if (input.part.swapped != fInputs[0].part.swapped) {
                throw std::invalid_argument("\"" + fInputs[0].name + "\" and \"" + input.name +
                                            "\" have different byte orders");
            }
            if (platform::sameFile(input.name.c_str(), output.c_str())) {
                throwFileError(EINVAL, kWriteFailed, output, "the output must not be one of the files to join");
            }
            refuseInterrupted(input.name);
            finishedPart part(input.name, input.part);
            part.verifyIndex();
            blocks += part.blockCount();
        }
        if (blocks > kMostRecords) throw std::length_error("too many blocks for one index");
    }

    bool copiesDictionary() const { return fOptions.row0Pos == 0; }

    // Verifies the index again: it may have changed since checkInputs.
    void add(const joinInput& input) {
        finishedPart part(input.name, input.part);
        part.verifyIndex();
        if (copiesDictionary() && &input == &fInputs[0]) copy(part.file(), 0, fReport.part.row0Pos, 0);
        const std::int64_t from = part.heading()._caseStartPos + kHeadingSize;
        std::int64_t stored = 0;
        for (std::uint32_t i = 0; i < part.blockCount(); ++i) {
            const filePosRecord& record = part.block(i);
            fIndex.addRecord(fReport.part.row0Pos + fReport.rows, blocksEnd() + stored, record.orginalSize,
                             record.translateSize);
            fReport.rows += record.orginalSize;
            stored += record.translateSize;
        }
        copy(part.file(), from, stored, blocksEnd());
        refuseIfChanged(input, part);
        fReport.blocks += part.blockCount();
        fReport.ends.push_back(fReport.blocks);
        fReport.stored += stored;
    }

    std::int64_t blocksEnd() const { return fReport.part.row0Pos + kHeadingSize + fReport.stored; }

    void copy(ORVA_File& from, std::int64_t at, std::int64_t size, std::int64_t place) {
        while (size > 0) {
            const std::int64_t wanted = std::min(size, kCopyAtOnce);
            const std::int64_t count = fOutput.CopyFrom(from, at, wanted, place);
            if (count < wanted) {
                const std::string& name = from.GetNameStr().GetGeneric();
                throw FileChangedError(DamagedFileError(name, "ret == size", "it became shorter"));
            }
            at += count;
            place += count;
            size -= count;
            if (fOptions.copied) fOptions.copied(count);
        }
    }

    // An append rewrites the last block before the index, so the copied block may be newer than its record.
    static void refuseIfChanged(const joinInput& input, const finishedPart& part) {
        refuseInterrupted(input.name);
        ORVA_File now;
        openOrThrow(now, input.name, "rb", kReadFailed);
        if (!part.isChangedIn(now)) return;
        throw FileChangedError(DamagedFileError(input.name, "heading and index as before", "its index has changed"));
    }

    void finish() {
        std::uint32_t size = 0;
        const unsigned char* index = fIndex.serialize(size, fReport.part.swapped);
        compressionHeading heading{fReport.part.row0Pos, blocksEnd(), size};
        if (fReport.part.swapped) swapHeading(heading);
        writeAll(fOutput, index, size, blocksEnd());
        writeAll(fOutput, &heading, sizeof heading, fReport.part.row0Pos);
        fOutput.Close();
    }

    const std::vector<joinInput>& fInputs;
    const joinOptions& fOptions;
    ORVA_File fOutput;
    filePosInfo fIndex{kBlockSize};  // the output's
    joinReport fReport;
};

}  // namespace

joinReport join(const std::vector<joinInput>& inputs, const std::string& output, const joinOptions& options) {
    return joiner(inputs, options).run(output);
}

}  // namespace orva
