// zlibCompressBlock: one memory block into one zlib stream (RFC 1950, level 1) and back, in one call. Built with
// ORVA_FAST_CODEC, faster engines make and read the same streams; zlib answers whatever they do not end whole.
//
// Owner:   the caller owns both blocks. An object keeps nothing between calls and can change direction at once.
// Threads: one thread at a time an object; each user has an object of its own.
// Failure: by result. 0: the codec could not start (no memory) or was misused; outCount is then as it came. Running
//          out of room and damaged input are not failures here: the bytes produced so far come back as a normal result.
#pragma once

#include <orva/orvaApi.h>

#include <cstdint>
#include <optional>

// How one run of a codec over a block ended.
struct blockOutcome {
    enum End : std::uint8_t {
        complete,    // the stream ended: compressed whole, or inflated whole with its checksum right
        incomplete,  // out of room, or out of sound input
        misused,     // the codec refused the call
        notStarted,  // no memory for the codec's state; nothing was done
        noMemory,    // memory ran out on the way
    };
    End end;
    std::uint32_t produced;  // bytes at dest
    std::uint32_t consumed;  // bytes of souce
};

class ORVA_API zlibCompressBlock {
public:
    // The bytes produced at `dest`, at most `outCount`, which then holds the same number; 0 on failure. A result equal
    // to the room may be a stream cut off: give compressRoom(inCount) to be sure of a whole one.
    std::int32_t compressBlock(unsigned char* souce, std::uint32_t inCount, unsigned char* dest,
                               std::uint32_t& outCount);
    // The same, the other way. Less room than the data needs gives exactly the room.
    std::int32_t decompressBlock(unsigned char* souce, std::uint32_t inCount, unsigned char* dest,
                                 std::uint32_t& outCount);

    // The levels of deflateWhole. The fastest is what compressBlock has.
    static constexpr std::int32_t kFastestLevel = 1;
    ORVA_LOCAL static std::int32_t bestLevel();
    // The library's own road: as above, and tells how the stream ended.
    ORVA_LOCAL blockOutcome deflateWhole(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                         std::uint32_t room, std::int32_t level = kFastestLevel);
    ORVA_LOCAL blockOutcome inflateWhole(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                         std::uint32_t room);
    // As deflateWhole, for bytes that are known not to shrink: with the fast engines no time goes into trying again.
    ORVA_LOCAL blockOutcome storeWhole(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                       std::uint32_t room);
    // storeWhole is as good as deflateWhole for these bytes, by samples. `scratch` has compressRoom(size) bytes.
    ORVA_LOCAL static bool looksLikeNoise(const unsigned char* from, std::uint32_t size, unsigned char* scratch);
    // Room in which deflateWhole always ends, at any level, for a block of `size` bytes.
    ORVA_LOCAL static std::uint32_t compressRoom(std::uint32_t size);

private:
    enum direction : std::uint8_t { deflating, inflating };
    ORVA_LOCAL std::int32_t runCall(direction way, unsigned char* from, std::uint32_t size, unsigned char* to,
                                    std::uint32_t& room);
    ORVA_LOCAL void take(const unsigned char* from, std::uint32_t size, unsigned char* to, std::uint32_t room);
    ORVA_LOCAL blockOutcome runBlock(std::int32_t level, direction way);
    ORVA_LOCAL std::optional<blockOutcome> runFast(std::int32_t level, direction way);
    ORVA_LOCAL blockOutcome runZlib(int level, direction way);

    // One call's values.
    std::uint32_t inCount = 0;
    const unsigned char* souce = nullptr;
    std::uint32_t outCount = 0;
    unsigned char* dest = nullptr;
};
