#include "input.h"

#include "failure.h"

#include <cerrno>
#include <filesystem>

namespace fs = std::filesystem;

namedStream::namedStream(const std::string& name) {
    if (Open(name.c_str(), "rb") == 1) return;
    platform::setErrno(GetFile().OpenErrno());
    throwReadFailed(name);
}

// Each read goes straight into the caller's memory: rows pass once, so a block buffer on the way would only add a copy.
input::input(const std::string& name) : fName(name) {
    if (name == "-") return;
    fStream = std::make_unique<namedStream>(name);
    fStream->DisablePreReading();
}

std::uint32_t input::read(void* buffer, std::uint32_t size) {
    if (fStream) return fStream->Read(buffer, size);
    const int count = platform::_read(0, buffer, size);
    if (count < 0) throwReadFailed("standard input");
    return static_cast<std::uint32_t>(count);
}

void checkReadable(const std::string& name) {
    std::error_code failure;
    const fs::file_status status = fs::status(name, failure);
    if (fs::status_known(status) && fs::exists(status) && !fs::is_regular_file(status) && !fs::is_directory(status)) {
        return;
    }
    const int descriptor = platform::openShared(name.c_str(), platform::_O_RDONLY, 0, 0);
    if (descriptor < 0) throwReadFailed(name);
    platform::_close(descriptor);
}

std::optional<std::int64_t> knownSize(const std::string& name) {
    std::error_code failure;
    if (name == "-" || !fs::is_regular_file(name, failure)) return {};
    const auto size = fs::file_size(name, failure);
    if (failure || size == 0) return {};  // files of the system itself, as under /proc, claim to be empty
    return static_cast<std::int64_t>(size);
}
