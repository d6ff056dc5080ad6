// lz4CompressBlock: turns one block of memory into LZ4's own block format and back, without a header: the caller keeps
// the sizes. The compressed stream does not use it.
//
// Threads: no state; any number of threads at once.
// Failure: by the result. A null pointer or a count of 0 breaks the contract and ends in an assertion.
#pragma once

#include <orva/orvaApi.h>

#include <cstdint>

class ORVA_API lz4CompressBlock {
public:
    // Returns the number of bytes written to `dest`, which has room for `outCount`; 0 if they do not fit. Level 0
    // compresses fast; all other levels compress well, and alike.
    static std::uint32_t compressBlock(char* souce, std::uint32_t inCount, char* dest, std::uint32_t outCount,
                                       int level);
    // Returns the number of bytes written to `dest`; above 2,147,483,647 for damaged input or too little room.
    static std::uint32_t decompressBlock(char* souce, std::uint32_t inCount, char* dest, std::uint32_t outCount);
};
