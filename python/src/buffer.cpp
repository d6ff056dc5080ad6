#include "buffer.h"

#include <string>

namespace py = pybind11;

heldBuffer::heldBuffer(py::handle object, access wanted) {
    const bool writes = wanted == access::write;
    if (PyObject_GetBuffer(object.ptr(), &fView, writes ? PyBUF_WRITABLE : PyBUF_SIMPLE) == 0) return;
    PyErr_Clear();
    throw py::type_error(std::string(writes ? "a writable" : "a") + " contiguous bytes-like object is required, not '" +
                         Py_TYPE(object.ptr())->tp_name + '\'');
}
