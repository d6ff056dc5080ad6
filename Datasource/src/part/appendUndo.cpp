#include "part/appendUndo.h"

#include "base/fileError.h"
#include "format/blockTransfer.h"
#include "format/indexTransfer.h"

#include <orva/errors.h>
#include <orva/errtext.h>
#include <orva/sideFile.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <string>
#include <system_error>

namespace orva {

namespace {

constexpr const char* kAsBefore = "the file holds the rows that it held before";
constexpr const char* kSideFileLeft =
    "the file holds the rows that it held before; remove its side file with 'orva recover --roll-back'";
constexpr const char* kRollBack =
    "the file could not be restored: run 'orva recover --roll-back' to get back the rows that it held before";
constexpr const char* kRecover =
    "the rows that the file held before could not be restored: use 'orva recover' to save them";

// A failure with the outcome appended to its text. Allocates nothing: memory may be what has run out.
template <class Error>
class withText : public Error {
public:
    withText(const Error& error, const char* outcome) : Error(error) {
        std::snprintf(fText, sizeof fText, "%s; %s", error.what(), outcome);
    }
    const char* what() const noexcept override { return fText; }

private:
    char fText[256];
};

// The failure with the outcome in its text; null if there is none, or its type takes no text.
std::exception_ptr withOutcome(const std::exception_ptr& failure, const char* outcome) {
    if (failure == nullptr) return nullptr;
    try {
        std::rethrow_exception(failure);
    } catch (const FileError& error) {
        return std::make_exception_ptr(error.withOutcome(outcome));
    } catch (const std::system_error& error) {  // a thread could not be started
        return std::make_exception_ptr(withText(error, outcome));
    } catch (const std::bad_alloc& error) {
        return std::make_exception_ptr(withText(error, outcome));
    } catch (...) {
        return nullptr;
    }
}

undoRecord recordOf(ORVA_File& file, const appendPlan& plan) {
    const auto& [row0Pos, indexPos, indexSize] = plan.heading;
    undoRecord kept{{.row0Pos = row0Pos,
                     .fileSize = bytesFrom(file).length(),
                     .untouchedEnd = plan.untouchedEnd,
                     .untouchedSum = untouchedSum(file, row0Pos, plan.untouchedEnd).value_or(0),
                     .heading = rawHeadingAt(file, row0Pos)},
                    indexPos,
                    bytesAt(file, indexPos, indexSize),
                    bytesAt(file, plan.untouchedEnd, plan.rewrittenBlock)};
    if (std::ssize(kept.index) == indexSize && kept.block.size() == plan.rewrittenBlock) return kept;
    throw DamagedFileError(file.GetNameStr().GetGeneric(), "ret == size",
                           "it ends before offset " + std::to_string(indexPos + indexSize));
}

}  // namespace

appendUndo::appendUndo(ORVA_File& file, const appendPlan& plan, bool safe)
    : fFile(file), bSafe(safe), fKept(recordOf(file, plan)), fSide(file.GetNameStr().GetGeneric()) {
    if (!safe) return;
    fSide.make(serialize(fKept));
    try {
        if (!plan.cutsRows) return;
        constexpr std::int64_t noMark = 0;
        writeAll(file, &noMark, sizeof noMark, fKept.indexPos);
        file.Sync();
    } catch (...) {
        std::rethrow_exception(undo(std::current_exception()));
    }
}

std::exception_ptr appendUndo::undo(const std::exception_ptr& failure) {
    const char* outcome = bSafe ? kRollBack : kRecover;
    std::exception_ptr undoFailure;
    try {
        restore(outcome);
    } catch (...) {
        undoFailure = std::current_exception();
    }
    for (const std::exception_ptr& reported : {failure, undoFailure}) {
        if (std::exception_ptr extended = withOutcome(reported, outcome)) return extended;
    }
    return failure != nullptr ? failure : undoFailure;
}

// The heading first: with it in place, a roll-back can finish what is interrupted here.
void appendUndo::restore(const char*& outcome) {
    putBack(fFile, fKept.heading, fKept.row0Pos);
    if (bSafe) fFile.Sync();
    restoreTail(fFile, fKept, bSafe);
    if (bSafe) {
        outcome = kSideFileLeft;
        fSide.remove();
    }
    outcome = kAsBefore;
}

void appendUndo::commit() {
    try {
        fSide.remove();
    } catch (const FileError& error) {
        throw error.withOutcome(
            "the append itself is complete: remove this file, or let 'orva recover --roll-back' do it");
    }
}

void refuseSideFile(const std::string& dataName) {
    if (!hasSideFile(dataName)) return;
    throwFileError(
        EEXIST, kWriteFailed, sideFileName(dataName),
        "an append to \"" + dataName + "\" was interrupted: roll it back first with 'orva recover --roll-back'");
}

void dropSideFile(ORVA_File& file) {
    const std::string& name = file.GetNameStr().GetGeneric();
    if (!hasSideFile(name)) return;
    heldSideFile side(name);
    const std::optional<undoRecord> kept = readUndoRecord(side, file);
    if (kept && rawHeadingAt(file, kept->row0Pos) == kept->heading) side.remove();
}

}  // namespace orva
