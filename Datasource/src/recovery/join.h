// The rows of finished parts, one behind the other, as one finished part: their compressed blocks are copied as they
// are, and only the records are written anew. A block is short wherever an input ended (docs/format.md, "Short
// blocks").
//
// Units:   bytes.
// Threads: no state.
// Failure: FileError, 1003 from an input and 1002 from the output; DamagedFileError for an input whose index cannot be
//          true as a whole, FileChangedError for one that was written to meanwhile; invalid_argument for no input, or
//          for inputs of two byte orders; length_error for more blocks than an index takes.
#pragma once

#include <orva/inspect.h>
#include <orva/orvaApi.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace orva {

struct joinInput {
    std::string name;
    foundPart part;
};

struct joinOptions {
    // Where the part begins in an output that exists and holds its dictionary part already. 0: the output is made, or
    // emptied, and begins with a copy of the first input's dictionary part.
    std::int64_t row0Pos = 0;
    // Called now and then with the bytes copied since the call before. What it throws ends the work.
    std::function<void(std::int64_t)> copied;
};

struct joinReport {
    foundPart part{};  // of the output
    std::uint32_t blocks = 0;
    std::vector<std::uint32_t> ends{};  // of each input, the blocks up to its last one
    std::int64_t rows = 0;              // bytes
    std::int64_t stored = 0;            // bytes of blocks
};

// Inputs have one byte order, which the output gets, whatever this machine's is. Each index is held to account
// (finishedPart::verifyIndex) before anything is written; blocks are not inflated (finishedPart::verifyBlock does). The
// output may be no input. Until the heading, which is written last, it is an unfinished file; it is not synced.
ORVA_API joinReport join(const std::vector<joinInput>& inputs, const std::string& output, const joinOptions& options);

}  // namespace orva
