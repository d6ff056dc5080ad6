// zlibCompressBlock: turns one block of memory into one zlib stream (RFC 1950, level 1) and back, in one call. With
// ORVA_FAST_CODEC faster engines make and read the streams; zlib takes over whenever they do not complete one.
//
// Owner:   the caller owns both blocks. An object keeps nothing between calls and may change direction at any time.
// Threads: one thread at a time per object; give each user its own.
// Failure: by the result. 0: the codec could not start (no memory) or was misused; outCount is unchanged then. Too
//          little room and damaged input are not failures here: the result is the number of bytes produced so far.
#pragma once

#include <orva/orvaApi.h>

#include <cstdint>

// How one run of a codec over a block ended.
struct blockOutcome {
    enum End : std::uint8_t {
        complete,    // the stream ended: all input compressed, or all inflated with a correct checksum
        incomplete,  // ran out of room, or of sound input
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
    // Returns the number of bytes produced at `dest`, at most `outCount`, which then holds the same number; 0 on
    // failure. A result equal to the room may be a stream cut off; with compressRoom(inCount) of room the stream is
    // always whole.
    std::int32_t compressBlock(unsigned char* souce, std::uint32_t inCount, unsigned char* dest,
                               std::uint32_t& outCount);
    // The inverse. If there is less room than the data need, the result is exactly the room.
    std::int32_t decompressBlock(unsigned char* souce, std::uint32_t inCount, unsigned char* dest,
                                 std::uint32_t& outCount);

    // The levels of deflateWhole. compressBlock uses the fastest.
    static constexpr std::int32_t kFastestLevel = 1;
    ORVA_LOCAL static std::int32_t bestLevel();
    // For the library itself: as above, and says how the stream ended.
    ORVA_LOCAL blockOutcome deflateWhole(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                         std::uint32_t room, std::int32_t level = kFastestLevel);
    ORVA_LOCAL blockOutcome inflateWhole(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                         std::uint32_t room);
    // As deflateWhole, for bytes known not to shrink: the fast engines then spend no time on trying.
    ORVA_LOCAL blockOutcome storeWhole(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                       std::uint32_t room);
    // True if samples show that storeWhole is as good as deflateWhole for these bytes. `scratch` has compressRoom(size)
    // bytes.
    ORVA_LOCAL static bool looksLikeNoise(const unsigned char* from, std::uint32_t size, unsigned char* scratch);
    // Room in which deflateWhole always completes a block of `size` bytes, at any level.
    ORVA_LOCAL static std::uint32_t compressRoom(std::uint32_t size);

private:
    enum direction : std::uint8_t { deflating, inflating };
    ORVA_LOCAL std::int32_t runCall(direction way, unsigned char* from, std::uint32_t size, unsigned char* to,
                                    std::uint32_t& room);
    ORVA_LOCAL void take(const unsigned char* from, std::uint32_t size, unsigned char* to, std::uint32_t room);
    ORVA_LOCAL blockOutcome runBlock(std::int32_t level, direction way);
    ORVA_LOCAL blockOutcome runZlib(int level, direction way);

    // The arguments of one call.
    std::uint32_t inCount = 0;
    const unsigned char* souce = nullptr;
    std::uint32_t outCount = 0;
    unsigned char* dest = nullptr;
};
