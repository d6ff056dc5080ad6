// Scarcity: of what the code under test needs, the k-th piece is not to be had: a call of the system or of the cipher,
// an allocation, the memory of a codec, a thread. It strikes while a body runs that is heard, on whichever thread. For
// one program alone: it stands in front of operator new and more.
#pragma once

#include "coreTest.h"

#include <dlfcn.h>
#include <pthread.h>

#include <new>

#if ORVA_FAST_CODEC
#include <libdeflate.h>
#endif

struct Fault {
    enum Kind { Calls, Writes, Memory, Codecs, Threads };
    const char* name;
    Kind kind;
    int error = 0;            // that a failing call gives, or a file's failure tells
    const char* told = "";    // what a person reads, as a pattern
    bool lasting = false;     // else once
    bool afterAPart = false;  // a transfer first moves some bytes, and the next call fails
};

namespace {

// Of the process, for the replaced functions below, which may be called at any time.
std::atomic<bool> striking{false};
std::atomic<Fault::Kind> kind{};
std::atomic<std::uint64_t> first{0}, last{0}, count{0};
std::atomic<std::size_t> mostAtOnce{SIZE_MAX};  // of memory, above which there is none

bool strikes(Fault::Kind what) noexcept {
    if (!striking || kind != what) return false;
    const std::uint64_t number = ++count;
    return number >= first && number <= last;
}

// What stands behind one of the functions here: the system's own, or a sanitizer's.
template <class Function>
Function* nextOf(const char* symbol) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}
constexpr bool kLong = std::is_same_v<std::size_t, unsigned long>;  // as names of functions tell it
void requireMemory(std::size_t size) {
    if (size > mostAtOnce || strikes(Fault::Memory)) throw std::bad_alloc();
}

#if ORVA_FAST_CODEC
void* codecMemory(std::size_t size) {
    return strikes(Fault::Codecs) ? nullptr : std::malloc(size);
}
const bool isCodecMemory = (libdeflate_set_memory_allocator(codecMemory, std::free), true);
#endif

}  // namespace

// Found before the system's own, by the standard library too, whose other forms of new call these. The memory comes
// from the next one, whose delete takes it back.
void* operator new(std::size_t size) {
    static const auto next = nextOf<void*(std::size_t)>(kLong ? "_Znwm" : "_Znwj");
    requireMemory(size);
    // Not zeros, as memory that others have had: read as a window's length it would be a short one.
    return std::fill_n(static_cast<std::uint16_t*>(next(size)), size / 2, std::uint16_t{7}) - size / 2;
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    static const auto next =
        nextOf<void*(std::size_t, std::align_val_t)>(kLong ? "_ZnwmSt11align_val_t" : "_ZnwjSt11align_val_t");
    requireMemory(size);
    return next(size, alignment);
}
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The system's own: what ends with a thread may take some.
extern "C" void* __libc_calloc(std::size_t count, std::size_t size) noexcept;
extern "C" void* calloc(std::size_t count, std::size_t size) noexcept {
    return strikes(Fault::Memory) ? nullptr : __libc_calloc(count, size);
}
#endif
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                              void* argument) {
    static const auto next = nextOf<decltype(pthread_create)>("pthread_create");
    return strikes(Fault::Threads) ? EAGAIN : next(thread, attributes, run, argument);
}

// The linker leads the library's calls here (--wrap).
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" int __real_inflateInit_(z_stream* stream, const char* version, int size);
extern "C" int __wrap_inflateInit_(z_stream* stream, const char* version, int size) {
    return strikes(Fault::Codecs) ? Z_MEM_ERROR : __real_inflateInit_(stream, version, size);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace core {

class Scarcity : public platform::faults::Hook {
public:
    Scarcity(const Fault& what, std::uint64_t k) : fault(what) {
        // A call that is cut short counts as the k-th.
        first = k + (fault.afterAPart ? 1 : 0);
        last = fault.lasting ? UINT64_MAX : first.load();
        kind = fault.kind;
        count = 0;
    }

    // What failureOf says of `body`; `text` gets what a person would read. Strikes in there alone, and no more once
    // something was thrown.
    template <class Body>
    std::string heard(Body body) {
        text.clear();
        striking = true;
        const std::string failure = failureOf([&] {
            try {
                body();
            } catch (const std::exception& error) {
                striking = false;
                text = error.what();
                throw;
            }
        });
        striking = false;
        return failure;
    }
    // There was a k-th piece.
    bool reached() const { return count >= first; }

    Verdict before(const Step& step) override {
        if (strikes(Fault::Calls) || (step.call == Call::Write && strikes(Fault::Writes)))
            return Verdict::fail(fault.error);
        const bool cut =
            fault.afterAPart && count + 1 == first && (step.call == Call::Read || step.call == Call::Write);
        return cut ? Verdict::atMost(step.size / 2 + 1) : Verdict::goOn();
    }

    const Fault fault;
    std::string text;

private:
    const platform::faults::Installed fInstalled{*this};
};

}  // namespace core
