// orva._orva: the library as the package's Python modules need it. They check arguments and give arrays their meaning;
// this module moves the bytes. Nothing else imports it.
#include "module.h"

#include "errors.h"
#include "signals.h"

#include <orva/version.h>

// pybind11 would wait for ever in a sub-interpreter, so the module's own init function refuses one.
#define PyInit__orva PyInit__orva_in_main
PYBIND11_MODULE(_orva, module) {
    bindErrors();
    bindReader(module);
    bindWriter(module);
    bindFiles(module);
    module.def("version", &orva::version);
    module.def("remember_main_thread", &rememberMainThread);
}
#undef PyInit__orva

// NOLINTNEXTLINE(bugprone-reserved-identifier): Python chooses this name.
extern "C" PYBIND11_EXPORT PyObject* PyInit__orva() {
    if (PyInterpreterState_Get() == PyInterpreterState_Main()) return PyInit__orva_in_main();
    PyErr_SetString(PyExc_ImportError,
                    "orva works in the main interpreter only (mod_wsgi: WSGIApplicationGroup %{GLOBAL})");
    return nullptr;
}
