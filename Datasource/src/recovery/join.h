// Joins the rows of finished parts, in order, into one finished part: copies their compressed blocks unchanged and
// writes new records. A block may be short wherever an input ended (docs/format.md, "Short blocks").
//
// Units:   bytes.
// Threads: no state.
// Failure: FileError, 1003 from an input and 1002 from the output, with EINVAL if the output is an input;
//          DamagedFileError for an input with a damaged heading or index; FileChangedError for one with a side file, or
//          written to meanwhile; invalid_argument for no input, or inputs of different byte orders; length_error for
//          more blocks than an index can hold.
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
    // Where the part begins in an output that exists and already holds its dictionary part. 0: creates or empties the
    // output, and begins it with a copy of the first input's dictionary part.
    std::int64_t row0Pos = 0;
    // Called from time to time with the bytes copied since the last call. An exception from it ends the work.
    std::function<void(std::int64_t)> copied;
};

struct joinReport {
    foundPart part{};  // of the output
    std::uint32_t blocks = 0;
    std::vector<std::uint32_t> ends{};  // for each input, the blocks of the output up to and including its last one
    std::int64_t rows = 0;              // bytes of rows
    std::int64_t stored = 0;            // bytes of compressed blocks
};

// All inputs have the same byte order, which the output gets, whatever the machine's is. Verifies every index
// (finishedPart::verifyIndex) before it writes anything, but inflates no block (finishedPart::verifyBlock does). The
// output must not be an input. It is an unfinished file until the heading, which is written last, and is not synced.
ORVA_API joinReport join(const std::vector<joinInput>& inputs, const std::string& output, const joinOptions& options);

}  // namespace orva
