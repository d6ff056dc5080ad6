#include "signals.h"

#include "gil.h"

#include <pybind11/pybind11.h>

#include <atomic>

namespace py = pybind11;

namespace {

std::atomic<unsigned long> mainThread{0};

}  // namespace

void checkSignals() {
    if (PyThread_get_thread_ident() != mainThread) return;
    const gil::held python;
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

void rememberMainThread(unsigned long thread) {
    mainThread = thread;
}
