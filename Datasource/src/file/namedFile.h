// Opening a file by its name, for what works on files beside a stream's own.
#pragma once

#include "base/fileError.h"

#include <orva/file.h>

#include <string>

namespace orva {

// From the root on; `name` itself where there is no such name, as in a directory that was removed: who uses it meets
// why.
std::string fullName(const std::string& name);

// For a file that is not open: with the errno of the Open that failed, or EBADF where somebody has closed it since.
[[noreturn]] void throwClosed(const ORVA_File& file, long code);

// Opens it or throws FileError with `code`.
void openOrThrow(ORVA_File& file, const std::string& name, const char* mode, long code);

// Makes the file's name, or its absence, durable.
void syncName(const std::string& name);

}  // namespace orva
