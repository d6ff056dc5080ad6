// blockwise: reads of any length, some blocks at a time, so that signals act in between, a lost block costs only its
// own rows, and many small requests need memory for a few blocks only.
//
// Units:   bytes of rows.
// Owner:   the memory that is read into must outlive the object, which keeps a copy of the Reader.
// Threads: one, without the GIL. No block is inflated twice, since no request crosses the border of one.
// Failure: the Reader's, and exceptions of signal handlers.
#pragma once

#include <orva/reader.h>

#include <vector>

class blockwise {
public:
    // `blocks`: how many to read at a time. `lost` receives the damaged blocks, whose rows become zeros; null: they are
    // errors.
    blockwise(const orva::Reader& reader, int blocks, std::vector<orva::Range>* lost)
        : fReader(reader), fBlocks(blocks), fLost(lost) {}

    // Requests these rows. They must exist, and begin at or past the start of the rows requested before.
    void request(orva::i64 offset, orva::Bytes to);
    // Reads what is still to be read. Must be called at the end.
    void finish();

private:
    void readAroundDamage();

    const orva::Reader fReader;
    const int fBlocks;
    std::vector<orva::Range>* const fLost;
    std::vector<orva::ReadRequest> fRequests;
    orva::i64 fBlockFirst = 0;  // start of the first request in the last block, which ends at fBlockEnd
    orva::i64 fBlockEnd = 0;
    int fBegun = 0;  // blocks in which fRequests lie
};
