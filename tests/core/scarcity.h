// Scarcity: of what the code under test needs, the k-th piece is not to be had: a file call, an allocation, the memory
// of a codec, a thread. It strikes while a body runs that is heard, on whichever thread.
#pragma once

#include "coreTest.h"

#include <cstddef>
#include <exception>
#include <string>

namespace core {

struct Fault {
    enum Kind { Calls, Memory, Codecs, Threads };
    const char* name;
    Kind kind;
    int error = 0;            // 0: the call is only cut short
    bool lasting = false;     // else once
    bool afterAPart = false;  // a transfer first moves some bytes, and the next call fails
};

class Scarcity : public platform::faults::Hook {
public:
    Scarcity(const Fault& what, std::uint64_t k);
    ~Scarcity() override;

    // What failureOf says of `body`; `text` gets what a person would read. Strikes in there alone, and no more once
    // something was thrown.
    template <class Body>
    std::string heard(Body body) {
        text.clear();
        return failureOf([&] {
            try {
                const Striking now;
                body();
            } catch (const std::exception& error) {
                text = error.what();
                throw;
            }
        });
    }
    // There was a k-th piece.
    bool reached() const;
    // It was refused. Other calls go on after they were cut short or interrupted.
    bool refused() const;

    Verdict before(Call call, int descriptor, std::uint64_t size) override;
    void after(const platform::faults::Step& step) override;

    const Fault fault;
    std::string text;
    std::atomic<bool> bHeading{false}, bBehindHeading{false};  // bytes were written there

private:
    struct Striking {
        Striking();
        Striking(const Striking&) = delete;
        Striking& operator=(const Striking&) = delete;
        ~Striking();
    };
};

// The most memory of operator new since the last time, above what was in use then.
std::size_t takePeakOfMemory();

}  // namespace core
