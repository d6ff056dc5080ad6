// Runs code without and with the GIL, even in daemon threads when the interpreter ends. It then ends each thread that
// asks for the GIL by unwinding it, and unwinding through a destructor or the library's own frames aborts the process.
// So such a thread waits for the process to end, and frees nothing.
//
// When a thread of the library takes the GIL for the first time, the interpreter registers the thread under a lock of
// its own. Forks are held off meanwhile: a child would find that lock taken and wait for ever. From 3.13 on the
// interpreter's own forks begin by taking that lock, and holding forks off as well would deadlock.
//
// Threads: released is made with the GIL, held on any thread. Failure: none.
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

// Returns work(), which runs without the GIL.
template <class Work>
auto without(Work work) {
    const released guard;
    return work();
}

class held {
public:
    held() {
        if (!kForksTakeIt && PyGILState_GetThisThreadState() == nullptr) registerThread();
        takeOrWait([&] { fLock.emplace(); });
    }

private:
    static constexpr bool kForksTakeIt = PY_VERSION_HEX >= 0x030D0000;
    // The registration lasts until fLock goes, which counts its users.
    static void registerThread() {
        const auto guard = platform::noFork();
        PyThreadState* const state = PyThreadState_New(PyInterpreterState_Main());
        if (state != nullptr) state->gilstate_counter = 0;
    }

    std::optional<pybind11::gil_scoped_acquire> fLock;
};

}  // namespace gil
