// savedTail: what one append overwrites, from before its first write until its new heading is durable. A failure that
// the process lives to see is undone from here; a crash by the side file, if the append is safe.
//
// Units:   file offsets, in bytes.
// Owner:   the writer that appends. Holds copies of the old tail; the file outlives it, or is at least left alone after
//          undo or commit.
// Threads: none of its own; nobody writes to the file while an operation runs.
// Failure: FileError from either file; DamagedFileError for a file that ends before its index does. undo throws
// nothing.
#pragma once

#include "part/heldSideFile.h"
#include "part/keptTail.h"

#include <orva/compressedLayout.h>
#include <orva/file.h>

#include <cstdint>
#include <exception>

namespace orva {

// What an append is about to do to a finished part.
struct tailPlan {
    std::int64_t untouchedEnd;     // where the first new block goes
    std::uint32_t rewrittenBlock;  // bytes of the old last block that stands there and is written anew, or 0
    compressionHeading heading;    // the old one, in host order
    bool cutsRows;                 // rows of the old last block are dropped
};

class savedTail {
public:
    // Reads what will be overwritten. `safe`: the side file is durable on return, and where rows are cut the old index
    // has lost its mark, so that it never vouches for a block that was rewritten. Throws with the file as it was.
    savedTail(ORVA_File& file, const tailPlan& plan, bool safe);
    savedTail(const savedTail&) = delete;
    savedTail& operator=(const savedTail&) = delete;

    bool isSafe() const { return bSafe; }
    // Makes the file what it was, the heading first, and removes the side file. Gives `failure` with the outcome in its
    // text, or where that could not be done and there was none, why; null for a null failure and a success. Once, and
    // nothing after it.
    std::exception_ptr undo(const std::exception_ptr& failure);
    // The new heading of a safe append is durable: the side file goes. Once, and nothing after it.
    void commit();

private:
    void putBack(const char*& outcome);

    ORVA_File& fFile;
    const bool bSafe;
    keptTail fKept;
    heldSideFile fSide;  // closed unless the append is safe
};

// EEXIST if there is a side file, whatever it is: an append was interrupted, and its roll-back comes first.
void refuseSideFile(const std::string& dataName);

// For a new part that begins in `file`: removes its side file, durably, if that would bring rows back over it, which is
// while the saved heading stands in the file. Every other one is left alone.
void dropSideFile(ORVA_File& file);

}  // namespace orva
