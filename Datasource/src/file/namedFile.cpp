#include "file/namedFile.h"

#include <orva/platform.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace orva {

std::string fullName(const std::string& name) {
    std::error_code unknown;
    const std::filesystem::path full = std::filesystem::absolute(name, unknown);
    return unknown ? name : full.string();
}

void throwClosed(const ORVA_File& file, long code) {
    throwFileError(file.OpenErrno() != 0 ? file.OpenErrno() : EBADF, code, file.GetNameStr().GetGeneric());
}

void openOrThrow(ORVA_File& file, const std::string& name, const char* mode, long code) {
    ExtNameStr fileName;
    fileName.SetGeneric(name);
    if (!file.Open(fileName, mode)) throwFileError(file.OpenErrno(), code, name);
}

void syncName(const std::string& name) {
    if (platform::syncDirectoryOf(name.c_str()) != 0) throwFileError(errno, kWriteFailed, name);
}

}  // namespace orva
