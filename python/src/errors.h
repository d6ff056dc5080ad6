// What the library throws, as Python's exceptions: OSError for what the system refuses, ValueError for a call that
// cannot be meant, and the classes of orva/_errors.py. What Python code of the caller's has raised passes unchanged.
#pragma once

#include <pybind11/pybind11.h>

#include <string>

void bindErrors();

// File names, and texts that name files, need not be UTF-8.
pybind11::str decoded(const std::string& text);
