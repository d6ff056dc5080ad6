// blockSink: where a writer's blocks go. Each is deflated, written and recorded in the order in which it comes: on the
// caller's thread, on one thread of the sink's own, or on several.
//
// Owner:   partWriter. File and index outlive the sink, which alone touches them until end().
// Threads: the caller's. In a forked child a sink may only be destroyed.
// Failure: the first failure of a block is put's or room's, or what end() gives; the blocks behind it are dropped.
#pragma once

#include "part/roads.h"

#include <cstdint>
#include <exception>
#include <memory>

class ORVA_File;
class filePosInfo;

namespace orva {

class blockSink {
public:
    virtual ~blockSink() = default;
    // Memory of the sink's own for the rows of the next block, until the next put; null where it has none.
    virtual unsigned char* room() { return nullptr; }
    // Takes the next block. `rows` is free again at return; what stands in room() is not copied.
    virtual void put(const unsigned char* rows, std::uint32_t size) = 0;
    // Once, and nothing after it. When it returns, every block is in the file and in the index, or, with `drop`, what
    // had not begun is given up. Gives a failure that no call has thrown.
    virtual std::exception_ptr end(bool drop) = 0;
    virtual atWork threads() const { return atWork::none; }
};

// Where the next block goes.
struct sinkPlace {
    ORVA_File& file;
    filePosInfo& index;
    std::uint32_t blockLength;
    std::int64_t pos;    // logical
    std::int64_t place;  // file offset
};

// Starts the one thread at once, several with the first block. `begun`: the setting came after the writer's beginning,
// when no thread is made for setMultiThread any more.
std::unique_ptr<blockSink> makeSink(const sinkPlace& at, const roads& taken, bool begun);

}  // namespace orva
