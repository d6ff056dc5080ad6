// Without and with the interpreter's lock, also by daemon threads when the interpreter ends: it then ends, by
// unwinding, each thread that asks for the lock, and unwinding through a destructor or the library's own frames ends
// the process by abort. So such a thread waits for the process to end, and lets nothing go.
//
// A thread of the library's that takes the lock for the first time is made known to the interpreter, which takes a lock
// of the interpreter's own. No fork happens meanwhile: the child would find it taken, and wait for ever. From 3.13 on
// the interpreter's own forks begin by taking that lock, and to hold forks up as well would be to wait for each other.
//
// Threads: released is made with the lock, held on any thread. Failure: none.
#pragma once

#include <orva/platform.h>

#include <cxxabi.h>
#include <pybind11/pybind11.h>
#include <unistd.h>

#include <optional>

namespace gil {

template <class Take>
void takeOrWait(Take take) noexcept {
    try {
        take();
    } catch (abi::__forced_unwind&) {
        for (;;) pause();
    }
}

class released {
public:
    released() : fState(PyEval_SaveThread()) {}
    released(const released&) = delete;
    released& operator=(const released&) = delete;
    ~released() {
        takeOrWait([&] { PyEval_RestoreThread(fState); });
    }

private:
    PyThreadState* const fState;
};

// What work() gives, without the lock.
template <class Work>
auto without(Work work) {
    const released others;
    return work();
}

class held {
public:
    held() {
        if (!kForksTakeIt && PyGILState_GetThisThreadState() == nullptr) makeKnown();
        takeOrWait([&] { fLock.emplace(); });
    }

private:
    static constexpr bool kForksTakeIt = PY_VERSION_HEX >= 0x030D0000;
    // Until fLock goes, which counts its users.
    static void makeKnown() {
        const platform::noFork whole;
        PyThreadState* const state = PyThreadState_New(PyInterpreterState_Main());
        if (state != nullptr) state->gilstate_counter = 0;
    }

    std::optional<pybind11::gil_scoped_acquire> fLock;
};

}  // namespace gil
