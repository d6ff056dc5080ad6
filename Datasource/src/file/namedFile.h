// Opening a file by its name, for what works on files beside a stream's own.
#pragma once

#include <orva/file.h>

#include <string>

namespace orva {

// Throws FileError with this errno and code.
[[noreturn]] void throwFileError(int error, long code, const std::string& name);

// False: file.OpenErrno() tells why.
bool openNamed(ORVA_File& file, const std::string& name, const char* mode);

// Opens it or throws FileError with `code`.
void openOrThrow(ORVA_File& file, const std::string& name, const char* mode, long code);

// Makes the file's name, or its absence, durable.
void syncName(const std::string& name);

}  // namespace orva
