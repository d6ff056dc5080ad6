#include "input.h"

#include "failure.h"
#include "signals.h"
#include "system.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <mutex>

namespace fs = std::filesystem;

namedStream::namedStream(const std::string& name) {
    if (Open(name.c_str(), "rb") == 1) return;
    platform::setErrno(GetFile().OpenErrno());
    throwReadFailed(name);
}

// Rows pass once, so that a buffer on the way would only add a copy.
input::input(const std::string& name)
    : fName(name == "-" ? "standard input" : name),
      fDescriptor(name == "-" ? 0 : platform::openShared(name.c_str(), platform::_O_RDONLY, 0, 0)) {
    if (fDescriptor < 0) throwReadFailed(fName);
}

input::~input() {
    if (fDescriptor > 0) platform::_close(fDescriptor);
}

std::uint32_t input::read(void* buffer, std::uint32_t size) {
    const int count = readWaiting(fDescriptor, buffer, size);
    if (count < 0) throwReadFailed(fName);
    fPlace += count;
    return static_cast<std::uint32_t>(count);
}

void input::readAt(std::int64_t offset, std::span<unsigned char> to) const {
    throwIfEndAsked();
    const int count = platform::readAt(fDescriptor, to.data(), static_cast<unsigned int>(to.size()), offset);
    if (count < 0) throwReadFailed(fName);
    if (static_cast<std::size_t>(count) == to.size()) return;
    throw toolFailure(kInputUnreadable, fName, "changed while it was read: try again");
}

// What has been added to a file since its size was asked is read on the second road.
void input::readInto(zcmpsFilestr& rows, bool threads, const std::function<void(std::int64_t)>& passed) {
    const std::int64_t begin = fPlace;
    if (const auto size = knownSize(fName); threads && size.value_or(0) > begin) {
        std::mutex lock;  // guards what `passed` changes
        const auto source = [&](std::int64_t offset, std::span<unsigned char> to) {
            readAt(begin + offset, to);
            const std::lock_guard guard(lock);
            passed(static_cast<std::int64_t>(to.size()));
        };
        rows.writeFrom(source, *size - begin);
        fPlace = platform::_lseeki64(fDescriptor, *size, SEEK_SET);
    }
    for (;;) {
        const std::span<unsigned char> room = rows.room();
        const std::uint32_t count = read(room.data(), static_cast<std::uint32_t>(room.size()));
        if (count == 0) return;
        rows.wrote(count);
        passed(count);
    }
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
