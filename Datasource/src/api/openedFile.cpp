#include "api/openedFile.h"

#include "api/translated.h"
#include "base/fileError.h"
#include "file/namedFile.h"

#include <orva/platform.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <utility>

namespace fs = std::filesystem;

namespace orva {

namespace {

int openAtAnyPlace(const std::string& name, const std::string& place) {
    refusePipe(name, place);
    const int descriptor = platform::openShared(place.c_str(), platform::_O_RDONLY, 0, 0);
    if (descriptor < 0) throwFileError(errno, kReadFailed, name);
    return descriptor;
}

}  // namespace

void refusePipe(const std::string& name, const std::string& place) {
    std::error_code unknown;
    const fs::file_status status = fs::status(place, unknown);
    const bool waits = fs::exists(status) && !fs::is_regular_file(status) && !fs::is_block_file(status);
    if (!waits || fs::is_directory(status)) return;
    throwFileError(ESPIPE, kReadFailed, name, "it is a pipe or a device: copy it to a file first");
}

std::int64_t sizeOf(const ByteSource& source) {
    const std::int64_t size = callBack([&] { return source.size(); });
    require(size >= 0, {}, "the source returned a negative size");
    return size;
}

openedFile::openedFile(std::string name, const std::string& place)
    : fName(std::move(name)), fDescriptor(openAtAnyPlace(fName, place)) {}

openedFile::~openedFile() {
    platform::closeAnyway(fDescriptor);
}

std::int64_t openedFile::length() const {
    const std::int64_t end = platform::_lseeki64(fDescriptor, 0, SEEK_END);
    if (end >= 0) return end;
    const bool none = errno == ESPIPE || errno == EINVAL;  // EINVAL: a file that the system makes up
    throwFileError(errno, kReadFailed, fName, none ? "its length is unknown: copy it to a file first" : "");
}

bool openedFile::read(void* to, std::uint64_t size, std::int64_t place) const {
    return inPieces(static_cast<unsigned char*>(to), size, place,
                    [&](unsigned char* at, std::uint32_t piece, std::int64_t from) {
                        const int count = platform::readAt(fDescriptor, at, piece, from);
                        if (count < 0) throwFileError(errno, kReadFailed, fName);
                        return static_cast<std::uint32_t>(count);
                    });
}

bool sourceBytes::read(void* to, std::uint64_t size, std::int64_t place) const {
    const Bytes wanted(static_cast<std::byte*>(to), static_cast<std::size_t>(size));
    return callBack([&] { return fSource->read_at(place, wanted); }) == wanted.size();
}

}  // namespace orva
