#include "source.h"

#include "gil.h"

#include <exception>

namespace py = pybind11;

// The thread that drops the last reference need not hold the GIL.
pythonSource::~pythonSource() {
    const gil::held python;
    fSource.release().dec_ref();
}

orva::i64 pythonSource::size() const {
    const gil::held python;
    return fSource.attr("size")().cast<orva::i64>();
}

std::size_t pythonSource::read_at(orva::i64 offset, orva::Bytes to) const {
    const gil::held python;
    const py::memoryview view = py::memoryview::from_memory(to.data(), static_cast<py::ssize_t>(to.size()));
    // On every path: whoever has kept the view, such as the traceback of an error, would reach memory that is gone.
    const auto release = [&] { view.attr("release")(); };
    try {
        const auto got = fSource.attr("read_at")(offset, view).cast<std::size_t>();
        release();
        return got;
    } catch (const std::exception&) {
        release();
        throw;
    }
}
