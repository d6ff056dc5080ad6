#include "part/savedTail.h"

#include "format/indexTransfer.h"

#include <orva/errtext.h>

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
    "the rows that the file held before could not be put back: 'orva recover --roll-back' does so";
constexpr const char* kRecover = "the rows that the file held before could not be put back: 'orva recover' gets them";

// A failure with the outcome behind its text. It asks for no memory: that may be what there is none of.
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

// The first of the two that can say more than it does, with the outcome in its text.
std::exception_ptr withOutcome(const std::exception_ptr& failure, const std::exception_ptr& otherwise,
                               const char* outcome) {
    try {
        std::rethrow_exception(failure != nullptr ? failure : otherwise);
    } catch (const FileError& error) {
        return std::make_exception_ptr(error.withOutcome(outcome));
    } catch (const std::system_error& error) {  // of a thread that could not be started
        return std::make_exception_ptr(withText(error, outcome));
    } catch (const std::bad_alloc& error) {
        return std::make_exception_ptr(withText(error, outcome));
    } catch (...) {
        if (failure == nullptr || otherwise == nullptr) return std::current_exception();
    }
    return withOutcome(nullptr, otherwise, outcome);
}

}  // namespace

savedTail::savedTail(ORVA_File& file, const tailPlan& plan, bool safe)
    : fFile(file), bSafe(safe), fKept{plan.row0Pos, lengthOf(file), plan.untouchedEnd, {}} {
    if (plan.rewrittenBlock != 0) keepPiece(fKept, file, plan.untouchedEnd, plan.rewrittenBlock);
    keepPiece(fKept, file, plan.heading._indexPos, static_cast<std::uint32_t>(plan.heading._size));
    keepPiece(fKept, file, plan.row0Pos, kHeadingSize);
    if (safe) writeSideFile(file, fKept);
}

std::exception_ptr savedTail::undo(const std::exception_ptr& failure) {
    const char* outcome = bSafe ? kRollBack : kRecover;
    try {
        restoreTail(fFile, fKept);
        if (bSafe) {
            fFile.Sync();
            outcome = kSideFileLeft;
            removeSideFile(fFile.GetNameStr().GetGeneric());
        }
        outcome = kAsBefore;
        return failure == nullptr ? nullptr : withOutcome(failure, nullptr, outcome);
    } catch (...) {
        return withOutcome(failure, std::current_exception(), outcome);
    }
}

void savedTail::commit() {
    if (!bSafe) return;
    try {
        removeSideFile(fFile.GetNameStr().GetGeneric());
    } catch (const FileError& error) {
        throw error.withOutcome("the append itself is complete: remove this file, or a roll-back drops the new rows");
    }
}

}  // namespace orva
