// appendUndo: keeps a copy of what one append overwrites, from before its first write until its new heading is durable.
// If the append fails while its process lives, undo restores the file from this copy. After a crash, a roll-back
// restores it from the side file, if the append was safe.
//
// Units:   file offsets, in bytes.
// Owner:   the writer that appends. The file must live until undo or commit returns.
// Threads: none of its own; nobody writes to the file while an operation runs.
// Failure: FileError from either file; DamagedFileError if the file ends before its index does. undo throws nothing.
#pragma once

#include "part/heldSideFile.h"
#include "part/undoRecord.h"

#include <orva/compressedLayout.h>
#include <orva/file.h>

#include <cstdint>
#include <exception>

namespace orva {

// How an append is going to change a finished part.
struct appendPlan {
    std::int64_t untouchedEnd;     // where the first new block goes
    std::uint32_t rewrittenBlock;  // length of the old last block there, which is rewritten; 0 if none is
    compressionHeading heading;    // the old one, in host order
    bool cutsRows;                 // the append drops rows of the old last block
};

class appendUndo {
public:
    // Reads what will be overwritten. `safe`: then makes the side file durable and, if the append cuts rows, erases the
    // mark of the old index, so that it never vouches for a rewritten block; a failure undoes both before it is thrown.
    appendUndo(ORVA_File& file, const appendPlan& plan, bool safe);
    appendUndo(const appendUndo&) = delete;
    appendUndo& operator=(const appendUndo&) = delete;

    bool isSafe() const { return bSafe; }
    // Restores the file, the heading first, and removes the side file. Returns `failure` with the outcome in its text;
    // if that is null, the error that kept it from restoring the file, or null. Call it once, and nothing after it.
    std::exception_ptr undo(const std::exception_ptr& failure);
    // Removes the side file once the new heading of a safe append is durable. Call it once, and nothing after it.
    void commit();

private:
    void restore(const char*& outcome);

    ORVA_File& fFile;
    const bool bSafe;
    undoRecord fKept;
    heldSideFile fSide;  // closed unless the append is safe
};

// Throws FileError with EEXIST if there is a side file, whatever its content: an append was interrupted, and must be
// rolled back first.
void refuseSideFile(const std::string& dataName);

// To be called before a new part is written to `file`. Removes its side file, durably, if the saved heading is still in
// the file: a roll-back would restore the old rows over the new ones. Leaves any other side file alone.
void dropSideFile(ORVA_File& file);

}  // namespace orva
