// Opens files by name, for code that works on files other than a stream's.
#pragma once

#include "base/fileError.h"

#include <orva/file.h>

#include <string>

namespace orva {

// The absolute form of `name`; in a removed directory, which has none, `name` itself: using it meets the reason.
std::string fullName(const std::string& name);

// Throws for a file that is not open, with the errno of the failed Open, or EBADF if the file has been closed since.
[[noreturn]] void throwClosed(const ORVA_File& file, long code);

// Opens the file or throws FileError with `code`.
void openOrThrow(ORVA_File& file, const std::string& name, const char* mode, long code);

// Makes the file's name, or its absence, durable.
void syncName(const std::string& name);

}  // namespace orva
