// What each file of the extension adds to the module.
#pragma once

#include <pybind11/pybind11.h>

void bindReader(pybind11::module_& module);
void bindWriter(pybind11::module_& module);
void bindFiles(pybind11::module_& module);
