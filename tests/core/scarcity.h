// Scarcity: makes the k-th request of one kind fail: a call of the system or of the cipher, an allocation, the memory
// of a codec, a thread. It strikes only inside heard(), on any thread. Needs a program of its own, since it replaces
// operator new and more.
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
    int error = 0;             // given by a failing call, or reported for a file
    const char* pattern = "";  // pattern of the text for a person
    bool lasting = false;      // else it fails only once
    bool afterAPart = false;   // first a short transfer, and then the next call fails
};

namespace {

// Global, for the replaced functions below, which may be called at any time.
std::atomic<bool> striking{false};
std::atomic<Fault::Kind> kind{};
std::atomic<std::uint64_t> first{0}, last{0}, count{0};
std::atomic<std::size_t> mostAtOnce{SIZE_MAX};  // larger requests of memory fail

bool strikes(Fault::Kind what) noexcept {
    if (!striking || kind != what) return false;
    const std::uint64_t number = ++count;
    return number >= first && number <= last;
}

// The next definition of a function replaced here: the system's own, or a sanitizer's.
template <class Function>
Function* nextOf(const char* symbol) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}
constexpr bool kLong = std::is_same_v<std::size_t, unsigned long>;  // as mangled names show it
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

// Found before the system's own, also by the standard library, whose other forms of new call these. The memory comes
// from the next definition, whose delete frees it.
void* operator new(std::size_t size) {
    static const auto next = nextOf<void*(std::size_t)>(kLong ? "_Znwm" : "_Znwj");
    requireMemory(size);
    // Not zeros, like used memory: taken for a window's length, these would be a short one.
    return std::fill_n(static_cast<std::uint16_t*>(next(size)), size / 2, std::uint16_t{7}) - size / 2;
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    static const auto next =
        nextOf<void*(std::size_t, std::align_val_t)>(kLong ? "_ZnwmSt11align_val_t" : "_ZnwjSt11align_val_t");
    requireMemory(size);
    return next(size, alignment);
}
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The system's own calloc, which may serve code that ends with a thread.
extern "C" void* __libc_calloc(std::size_t number, std::size_t size) noexcept;
extern "C" void* calloc(std::size_t number, std::size_t size) noexcept {
    return strikes(Fault::Memory) ? nullptr : __libc_calloc(number, size);
}
#endif
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*run)(void*), void* arg) {
    static const auto next = nextOf<decltype(pthread_create)>("pthread_create");
    return strikes(Fault::Threads) ? EAGAIN : next(thread, attr, run, arg);
}

// The linker redirects the library's calls here (--wrap).
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" int __real_inflateInit_(z_stream* stream, const char* version, int size);
extern "C" int __wrap_inflateInit_(z_stream* stream, const char* version, int size) {
    return strikes(Fault::Codecs) ? Z_MEM_ERROR : __real_inflateInit_(stream, version, size);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace support {

struct Scarcity : platform::faults::Hook {
    Scarcity(const Fault& what, std::uint64_t k) : fault(what) {
        // A call that is cut short counts as the k-th.
        first = k + (fault.afterAPart ? 1 : 0);
        last = fault.lasting ? UINT64_MAX : first.load();
        kind = fault.kind;
        count = 0;
    }

    // Returns failureOf(body), which must have a cause; `text` gets the text for a person. Strikes only in there, and
    // no more after an exception.
    std::string heard(auto body) {
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
        EXPECT_TRUE(failure.empty() || reached()) << failure << " out of nothing";
        return failure;
    }
    // True if there was a k-th request.
    bool reached() const { return count >= first; }

    Verdict before(const Step& step) override {
        if (strikes(Fault::Calls) || (step.call == Call::Write && strikes(Fault::Writes)))
            return Verdict::fail(fault.error);
        return fault.afterAPart && count + 1 == first ? Verdict::atMost(step.size / 2 + 1) : Verdict::goOn();
    }

    const Fault fault;
    std::string text;

private:
    const platform::faults::Installed fInstalled{*this};
};

}  // namespace support
