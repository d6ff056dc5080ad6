// blockwise: reads of any length, some blocks at a time, so that signals act between them, a lost block costs only its
// own rows, and many small wishes take memory for those of some blocks.
//
// Units:   bytes of rows.
// Owner:   the memory that is read into outlives the object; it keeps a copy of the Reader.
// Threads: one, without the GIL. No block is inflated twice, since no request goes beyond its block.
// Failure: the Reader's, and what a signal handler raises.
#pragma once

#include <orva/reader.h>

#include <vector>

class blockwise {
public:
    // `blocks`: at a time. `lost`: takes the blocks that are damaged, whose rows are then zeros; null: they are errors.
    blockwise(const orva::Reader& reader, int blocks, std::vector<orva::Range>* lost)
        : fReader(reader), fBlocks(blocks), fLost(lost) {}

    // Wishes for these rows, which begin where those of before do, or behind. They exist.
    void want(orva::i64 offset, orva::Bytes to);
    // Reads what is still wished for. Needed at the end.
    void finish();

private:
    void readAroundDamage();

    const orva::Reader fReader;
    const int fBlocks;
    std::vector<orva::Range>* const fLost;
    std::vector<orva::ReadRequest> fRequests;
    orva::i64 fBlockFirst = 0;  // wished for in the last block, which ends at
    orva::i64 fBlockEnd = 0;
    int fBegun = 0;  // blocks that fRequests lie in
};
