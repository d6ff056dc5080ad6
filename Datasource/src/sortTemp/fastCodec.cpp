#include "fastCodec.h"

#include <isa-l/igzip_lib.h>
#include <libdeflate.h>

#include <memory>
#include <new>

namespace orva {

namespace {

// ISA-L's state of one thread. Its stream and tables are too large for a stack and too costly to make for each block.
struct deflateState {
    isal_zstream stream;
    unsigned char tables[ISAL_DEF_LVL1_DEFAULT];
};

deflateState* threadDeflateState() noexcept {
    thread_local const std::unique_ptr<deflateState> state(new (std::nothrow) deflateState);
    return state.get();
}

struct freeDecompressor {
    void operator()(libdeflate_decompressor* state) const { libdeflate_free_decompressor(state); }
};

libdeflate_decompressor* threadDecompressor() noexcept {
    thread_local const std::unique_ptr<libdeflate_decompressor, freeDecompressor> state(
        libdeflate_alloc_decompressor());
    return state.get();
}

constexpr std::uint32_t kStoredBlock = 65'535;
constexpr std::uint32_t kStoredBlockHead = 5;
constexpr std::uint32_t kStreamEnds = 2 + 4 + 10;  // zlib's header and checksum, and what closes the last block

}  // namespace

std::optional<fastResult> fastDeflate(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                      std::uint32_t room) noexcept {
    deflateState* state = threadDeflateState();
    if (state == nullptr) return std::nullopt;
    isal_zstream& stream = state->stream;
    isal_deflate_stateless_init(&stream);
    stream.level = 1;
    stream.level_buf = state->tables;
    stream.level_buf_size = sizeof state->tables;
    stream.gzip_flag = IGZIP_ZLIB;
    stream.flush = NO_FLUSH;
    stream.end_of_stream = 1;
    stream.next_in = const_cast<unsigned char*>(from);  // read only
    stream.avail_in = size;
    stream.next_out = to;
    stream.avail_out = room;
    if (isal_deflate_stateless(&stream) != COMP_OK || stream.avail_in != 0) return std::nullopt;
    return fastResult{stream.total_out, size};
}

// What does not shrink is stored, so a stream is never longer than its block stored.
std::uint32_t fastDeflateRoom(std::uint32_t size) noexcept {
    return size + (size / kStoredBlock + 1) * kStoredBlockHead + kStreamEnds;
}

std::optional<fastResult> fastInflate(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                      std::uint32_t room) noexcept {
    libdeflate_decompressor* state = threadDecompressor();
    if (state == nullptr) return std::nullopt;
    std::size_t consumed = 0;
    std::size_t produced = 0;
    if (libdeflate_zlib_decompress_ex(state, from, size, to, room, &consumed, &produced) != LIBDEFLATE_SUCCESS) {
        return std::nullopt;
    }
    return fastResult{static_cast<std::uint32_t>(produced), static_cast<std::uint32_t>(consumed)};
}

}  // namespace orva
