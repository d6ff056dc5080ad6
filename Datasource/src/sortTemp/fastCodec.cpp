#include "sortTemp/fastCodec.h"

#include <isa-l/igzip_lib.h>
#include <libdeflate.h>
#include <pthread.h>

#include <algorithm>
#include <bit>
#include <iterator>
#include <memory>
#include <new>

namespace orva {

namespace {

// ISA-L's state for one thread. Stream and tables are too large for a stack and too expensive to make for each block.
struct deflateState {
    isal_zstream stream;
    unsigned char tables[ISAL_DEF_LVL1_EXTRA_LARGE];  // faster in measurements than the default, most of all on noise
};

struct freeDecompressor {
    void operator()(libdeflate_decompressor* state) const { libdeflate_free_decompressor(state); }
};

struct freeCompressor {
    void operator()(libdeflate_compressor* state) const { libdeflate_free_compressor(state); }
};

struct threadEngines {
    const std::unique_ptr<deflateState> deflating{new (std::nothrow) deflateState};
    const std::unique_ptr<libdeflate_decompressor, freeDecompressor> inflating{libdeflate_alloc_decompressor()};
    // Indexed by libdeflate's level; 0 only stores. Made at first use: the highest ones take 9 MB.
    std::unique_ptr<libdeflate_compressor, freeCompressor> compressing[kBestFastLevel + 1];
};

void endEngines(void* engines) {
    delete static_cast<threadEngines*>(engines);
}

// Each thread's engines. They are not thread_local: without memory to register their destructor the system would end
// the process. The key is never deleted: threads and static objects may still work while the process ends.
pthread_key_t gKey;
const bool gHasKey = pthread_key_create(&gKey, endEngines) == 0;

threadEngines* ownEngines() noexcept {
    if (!gHasKey) return nullptr;
    if (void* const engines = pthread_getspecific(gKey)) return static_cast<threadEngines*>(engines);
    std::unique_ptr<threadEngines> made(new (std::nothrow) threadEngines);
    return made != nullptr && pthread_setspecific(gKey, made.get()) == 0 ? made.release() : nullptr;
}

std::optional<blockOutcome> byLibdeflate(std::int32_t level, const unsigned char* from, std::uint32_t size,
                                         unsigned char* to, std::uint32_t room) noexcept {
    threadEngines* engines = ownEngines();
    if (engines == nullptr) return std::nullopt;
    auto& compressor = engines->compressing[level];
    if (compressor == nullptr) compressor.reset(libdeflate_alloc_compressor(level));
    if (compressor == nullptr) return std::nullopt;
    const std::size_t produced = libdeflate_zlib_compress(compressor.get(), from, size, to, room);
    if (produced == 0) return std::nullopt;
    return blockOutcome{blockOutcome::complete, static_cast<std::uint32_t>(produced), size};
}

constexpr unsigned char kZlibHeader[] = {0x78, 0x01};  // 32 KiB window, fastest level
constexpr std::uint32_t kChecksum = 4;

// The same stream as ISA-L's own zlib format, but with libdeflate's checksum, which takes a fifth of the time.
std::optional<blockOutcome> byIsal(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                   std::uint32_t room) noexcept {
    const threadEngines* engines = ownEngines();
    if (engines == nullptr || engines->deflating == nullptr || room < sizeof kZlibHeader + kChecksum) {
        return std::nullopt;
    }
    isal_zstream& stream = engines->deflating->stream;
    isal_deflate_stateless_init(&stream);
    stream.hist_bits = 0;  // the whole window: the init call leaves this field as it was in memory, which may mean a
                           // shorter one
    stream.level = 1;
    stream.level_buf = engines->deflating->tables;
    stream.level_buf_size = sizeof engines->deflating->tables;
    stream.gzip_flag = IGZIP_DEFLATE;
    stream.flush = NO_FLUSH;
    stream.end_of_stream = 1;
    stream.next_in = const_cast<unsigned char*>(from);  // ISA-L only reads it
    stream.avail_in = size;
    stream.next_out = std::copy(std::begin(kZlibHeader), std::end(kZlibHeader), to);
    stream.avail_out = room - static_cast<std::uint32_t>(sizeof kZlibHeader) - kChecksum;
    const std::uint32_t checksum = libdeflate_adler32(1, from, size);
    if (isal_deflate_stateless(&stream) != COMP_OK || stream.avail_in != 0) return std::nullopt;
    for (int shift = 24; shift >= 0; shift -= 8) *stream.next_out++ = static_cast<unsigned char>(checksum >> shift);
    return blockOutcome{blockOutcome::complete, static_cast<std::uint32_t>(stream.next_out - to), size};
}

// A stretch without noise as long as a hundredth of the block meets a sample; shorter ones gain less than that.
constexpr std::uint32_t kSample = 256;
constexpr std::uint32_t kSamples = 128;
// 256 random bytes have 162 different values, give or take 6. Rows have far fewer, and the first sample shows it.
constexpr int kValuesOfNoise = 128;

bool hasManyValues(const unsigned char* sample) {
    std::uint64_t seen[4] = {};
    for (std::uint32_t i = 0; i < kSample; ++i) seen[sample[i] / 64] |= std::uint64_t{1} << sample[i] % 64;
    int values = 0;
    for (const std::uint64_t some : seen) values += std::popcount(some);
    return values >= kValuesOfNoise;
}

// Bytes with many values may still differ in frequency, or repeat within a window: deflating some of them shows it.
constexpr std::uint32_t kTrial = 36 * 1'024;
constexpr std::uint32_t kTrialStep = 512 * 1'024;

bool shrinks(const unsigned char* from, std::uint32_t size, unsigned char* scratch) {
    const auto result = fastDeflate(1, from, size, scratch, fastDeflateRoom(size));
    return !result || result->produced < size - size / 200;
}

constexpr std::uint32_t kStoredBlock = 65'535;
constexpr std::uint32_t kStoredBlockHead = 5;
constexpr std::uint32_t kStreamEnds = sizeof kZlibHeader + kChecksum + 10;  // and what ends the last block

}  // namespace

std::optional<blockOutcome> fastDeflate(std::int32_t level, const unsigned char* from, std::uint32_t size,
                                        unsigned char* to, std::uint32_t room) noexcept {
    // ISA-L 2.30 makes a stream that nothing can inflate of a block of zeros on big-endian machines.
    if (level == 1 && std::endian::native == std::endian::little) return byIsal(from, size, to, room);
    return byLibdeflate(level == 2 ? 1 : level, from, size, to, room);
}

bool fastSeesNoise(const unsigned char* from, std::uint32_t size, unsigned char* scratch) noexcept {
    if (size < kTrial) return false;
    for (std::uint32_t at = 0; at + kSample <= size; at += size / kSamples) {
        if (!hasManyValues(from + at)) return false;
    }
    for (std::uint32_t at = 0; at + kTrial <= size; at += kTrialStep) {
        if (shrinks(from + at, kTrial, scratch)) return false;
    }
    return true;
}

// Data that do not shrink are stored, so a stream is never longer than its block stored. libdeflate asks for room for
// shorter pieces than it ever makes.
std::uint32_t fastDeflateRoom(std::uint32_t size) noexcept {
    const std::uint32_t stored = size + (size / kStoredBlock + 1) * kStoredBlockHead + kStreamEnds;
    return std::max(stored, static_cast<std::uint32_t>(libdeflate_zlib_compress_bound(nullptr, size)));
}

std::optional<blockOutcome> fastStore(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                      std::uint32_t room) noexcept {
    return byLibdeflate(0, from, size, to, room);
}

std::optional<blockOutcome> fastInflate(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                        std::uint32_t room) noexcept {
    const threadEngines* engines = ownEngines();
    if (engines == nullptr || engines->inflating == nullptr) return std::nullopt;
    std::size_t consumed = 0;
    std::size_t produced = 0;
    if (libdeflate_zlib_decompress_ex(engines->inflating.get(), from, size, to, room, &consumed, &produced) !=
        LIBDEFLATE_SUCCESS) {
        return std::nullopt;
    }
    return blockOutcome{blockOutcome::complete, static_cast<std::uint32_t>(produced),
                        static_cast<std::uint32_t>(consumed)};
}

}  // namespace orva
