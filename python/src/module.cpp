// orva._orva: the library as the package's modules of Python need it. Python owns arguments and the meaning of arrays,
// this the bytes; nobody else imports it.
#include "module.h"

#include "errors.h"
#include "signals.h"

#include <orva/version.h>

PYBIND11_MODULE(_orva, module) {
    bindErrors();
    bindReader(module);
    bindWriter(module);
    bindFiles(module);
    module.def("version", &orva::version);
    module.def("remember_main_thread", &rememberMainThread);
}
