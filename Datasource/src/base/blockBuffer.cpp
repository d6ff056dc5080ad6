#include "base/blockBuffer.h"

#include <orva/platform.h>

#include <algorithm>
#include <cstdint>
#include <new>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace orva {

namespace {

// The size on x86-64, and on arm64 with pages of 4 KiB. Where it differs, the hint helps less.
constexpr std::size_t kHugePage = std::size_t{2} << 20;
constexpr std::size_t kWorthOne = kHugePage / 4;

}  // namespace

void blockBuffer::release::operator()(unsigned char* bytes) const {
    ::operator delete (bytes, std::align_val_t{alignment});
}

// Alignment to huge pages takes address space, which may be limited: if there is too little, the buffer does without
// huge pages.
blockBuffer::blockBuffer(std::size_t size, std::size_t used) {
    if (std::min(size, used) >= kWorthOne) {
        const std::size_t whole = (size + kHugePage - 1) / kHugePage * kHugePage;
        void* const bytes = ::operator new (whole, std::align_val_t{kHugePage}, std::nothrow);
        fBytes = {static_cast<unsigned char*>(bytes), {kHugePage}};
        if (fBytes) platform::preferHugePages(bytes, whole);
    }
    if (fBytes) return;
    void* const bytes = ::operator new (size, std::align_val_t{kBufferAlignment});
    fBytes = {static_cast<unsigned char*>(bytes), {kBufferAlignment}};
}

void evictFromCaches(unsigned char* bytes, std::size_t size) {
#ifdef __SSE2__
    const __m128i none = _mm_setzero_si128();
    for (std::size_t at = -reinterpret_cast<std::uintptr_t>(bytes) % sizeof none; at + sizeof none <= size;
         at += sizeof none) {
        _mm_stream_si128(reinterpret_cast<__m128i*>(bytes + at), none);
    }
    _mm_sfence();
#else
    static_cast<void>(bytes);
    static_cast<void>(size);
#endif
}

}  // namespace orva
