#include "errors.h"

#include <orva/error.h>

#include <pybind11/stl.h>

#include <exception>
#include <utility>

namespace py = pybind11;

py::str decoded(const std::string& text) {
    return py::reinterpret_steal<py::str>(
        PyUnicode_DecodeFSDefaultAndSize(text.data(), static_cast<Py_ssize_t>(text.size())));
}

namespace {

void set(const char* name, const orva::Error& error) {
    const py::object type = py::module_::import("orva._errors").attr(name);
    const py::object value = type(decoded(error.what()), decoded(error.path().string()), error.offset(), error.block());
    PyErr_SetObject(type.ptr(), value.ptr());
}

// OSError chooses its subclass by the number.
void set(const orva::SystemError& error) {
    const py::tuple arguments =
        py::make_tuple(error.code().value(), decoded(error.reason()), decoded(error.path().string()));
    PyErr_SetObject(PyExc_OSError, arguments.ptr());
}

void raise(std::exception_ptr thrown) {
    try {
        std::rethrow_exception(std::move(thrown));
    } catch (const orva::SystemError& error) {
        set(error);
    } catch (const orva::DamagedFileError& error) {
        set("DamagedFileError", error);
    } catch (const orva::UnfinishedFileError& error) {
        set("UnfinishedFileError", error);
    } catch (const orva::FileChangedError& error) {
        set("FileChangedError", error);
    } catch (const orva::Error& error) {
        PyErr_SetObject(PyExc_ValueError, decoded(error.what()).ptr());
    }
}

// A signal handler may run, and raise, while the exception is made: then its exception is raised.
void translate(std::exception_ptr thrown) {
    try {
        raise(std::move(thrown));
    } catch (py::error_already_set& raised) {
        raised.restore();
    }
}

}  // namespace

void bindErrors() {
    py::register_local_exception_translator(translate);
}
