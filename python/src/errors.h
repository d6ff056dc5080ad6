// Turns the library's exceptions into Python's: OSError for what the system refuses, ValueError for invalid calls, and
// the classes of orva/_errors.py. Exceptions of the caller's Python code pass unchanged.
#pragma once

#include <pybind11/pybind11.h>

#include <string>

void bindErrors();

// Decodes a file name, or a text that contains one, which need not be UTF-8.
pybind11::str decoded(const std::string& text);
