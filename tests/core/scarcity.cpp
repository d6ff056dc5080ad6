#include "scarcity.h"

#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>

#if ORVA_FAST_CODEC
#include <libdeflate.h>
#endif

namespace {

// Of the process, for the replaced functions below, which may be called at any time.
std::atomic<bool> striking{false};
std::atomic<core::Fault::Kind> kind{};
std::atomic<std::uint64_t> first{0}, last{0}, count{0};
std::atomic<std::size_t> used{0}, peak{0};

bool strikes(core::Fault::Kind what) noexcept {
    if (!striking || kind != what) return false;
    const std::uint64_t number = ++count;
    return number >= first && number <= last;
}

void* allocated(std::size_t size, std::size_t alignment) noexcept {
    void* bytes = nullptr;
    if (strikes(core::Fault::Memory)) return nullptr;
    if (posix_memalign(&bytes, std::max(alignment, sizeof(void*)), std::max<std::size_t>(size, 1)) != 0) return nullptr;
    const std::size_t now = used += malloc_usable_size(bytes);
    for (std::size_t before = peak; before < now && !peak.compare_exchange_weak(before, now);) continue;
    return bytes;
}
void* allocatedOrThrow(std::size_t size, std::size_t alignment) {
    void* bytes = allocated(size, alignment);
    return bytes != nullptr ? bytes : throw std::bad_alloc();
}
void released(void* bytes) noexcept {
    used -= malloc_usable_size(bytes);
    std::free(bytes);
}

}  // namespace

void* operator new(std::size_t size) {
    return allocatedOrThrow(size, 16);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocated(size, 16);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocatedOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocated(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* bytes) noexcept {
    released(bytes);
}
void operator delete(void* bytes, std::size_t) noexcept {
    released(bytes);
}
void operator delete(void* bytes, const std::nothrow_t&) noexcept {
    released(bytes);
}
void operator delete(void* bytes, std::align_val_t, const std::nothrow_t&) noexcept {
    released(bytes);
}
void operator delete(void* bytes, std::align_val_t) noexcept {
    released(bytes);
}
void operator delete(void* bytes, std::size_t, std::align_val_t) noexcept {
    released(bytes);
}

// Found before the system's own, by the standard library too.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                              void* argument) {
    if (strikes(core::Fault::Threads)) return EAGAIN;
    static const auto next = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return next(thread, attributes, run, argument);
}

// The linker leads the library's calls here (--wrap).
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
int __real_deflateInit_(z_stream* stream, int level, const char* version, int size);
int __wrap_deflateInit_(z_stream* stream, int level, const char* version, int size) {
    return strikes(core::Fault::Codecs) ? Z_MEM_ERROR : __real_deflateInit_(stream, level, version, size);
}
int __real_inflateInit_(z_stream* stream, const char* version, int size);
int __wrap_inflateInit_(z_stream* stream, const char* version, int size) {
    return strikes(core::Fault::Codecs) ? Z_MEM_ERROR : __real_inflateInit_(stream, version, size);
}
#if ORVA_FAST_CODEC
libdeflate_decompressor* __real_libdeflate_alloc_decompressor();
libdeflate_decompressor* __wrap_libdeflate_alloc_decompressor() {
    return strikes(core::Fault::Codecs) ? nullptr : __real_libdeflate_alloc_decompressor();
}
#endif
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}

namespace core {

Scarcity::Scarcity(const Fault& what, std::uint64_t k) : fault(what) {
    // A call that is cut short counts as the k-th, and the next one fails.
    first = k + (fault.afterAPart && fault.error != 0 ? 1 : 0);
    last = fault.lasting ? UINT64_MAX : first.load();
    kind = fault.kind;
    count = 0;
    platform::faults::install(this);
}
Scarcity::~Scarcity() {
    platform::faults::install(nullptr);
}

Scarcity::Striking::Striking() {
    striking = true;
}
Scarcity::Striking::~Striking() {
    striking = false;
}

bool Scarcity::reached() const {
    return count >= first;
}
bool Scarcity::refused() const {
    return reached() && (fault.kind != Fault::Calls || (fault.error != 0 && fault.error != EINTR));
}

Verdict Scarcity::before(Call call, int, std::uint64_t size) {
    const bool strikesNow = strikes(Fault::Calls);
    const bool transfers = call == Call::Read || call == Call::Write;
    const Verdict part = transfers ? Verdict::atMost(size / 2 + 1) : Verdict::goOn();
    if (!strikesNow) return fault.afterAPart && striking && count + 1 == first ? part : Verdict::goOn();
    const bool neverInterrupted = call == Call::Seek || call == Call::Duplicate || call >= Call::Rename;
    if (fault.error == EINTR && neverInterrupted) return Verdict::goOn();
    return fault.error == 0 ? part : Verdict::fail(fault.error);
}

void Scarcity::after(const platform::faults::Step& step) {
    if (step.call != Call::Write || step.result <= 0) return;
    const bool heading = step.offset >= kRow0 && step.offset < kRow0 + kHeadingSize;
    if (bHeading && !heading) bBehindHeading = true;
    if (heading) bHeading = true;
}

std::size_t takePeakOfMemory() {
    static std::size_t base = 0;
    const std::size_t most = peak - base;
    base = used;
    peak = base;
    return most;
}

}  // namespace core
