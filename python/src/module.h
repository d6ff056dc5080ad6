// Each file of the extension adds its part to the module.
#pragma once

#include <pybind11/pybind11.h>

void bindReader(pybind11::module_& module);
void bindWriter(pybind11::module_& module);
void bindFiles(pybind11::module_& module);
