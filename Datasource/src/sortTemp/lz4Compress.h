// lz4CompressBlock: one memory block into LZ4's own block form and back. No header is added: the caller keeps the
// sizes. The compressed stream does not use it.
//
// Threads: no state; any number at once.
// Failure: by result. A null pointer or a count of 0 is a caller's breach and ends in an assertion.
#pragma once

#include <orva/orvaApi.h>

#include <cstdint>

class ORVA_API lz4CompressBlock {
public:
    // The bytes written to `dest`, which has room for `outCount`; 0 when they don't fit. Level 0 compresses fast, any
    // other level well: the level's value says nothing more.
    static std::uint32_t compressBlock(char* souce, std::uint32_t inCount, char* dest, std::uint32_t outCount,
                                       int level);
    // The bytes written to `dest`; above 2,147,483,647 for damaged input or too little room.
    static std::uint32_t decompressBlock(char* souce, std::uint32_t inCount, char* dest, std::uint32_t outCount);
};
