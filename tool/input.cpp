#include "input.h"

#include "failure.h"
#include "signals.h"
#include "system.h"
#include "text.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <mutex>

namespace fs = std::filesystem;

// A file from its current position to its present end.
class input::rest final : public orva::ByteSource {
public:
    rest(const input& from, std::int64_t end, const std::function<void(std::int64_t)>& passed)
        : fFrom(from), fSize(end - from.fPlace), fPassed(passed) {}

    std::int64_t size() const override { return fSize; }
    std::size_t read_at(std::int64_t offset, orva::Bytes to) const override {
        throwIfEndAsked();
        const auto size = static_cast<unsigned int>(to.size());
        const int count = platform::readAt(fFrom.fDescriptor, to.data(), size, fFrom.fPlace + offset);
        if (count < 0) throwReadFailed(fFrom.fName);
        if (static_cast<std::size_t>(count) != to.size()) {
            throw toolFailure(kInputUnreadable, fFrom.fName, "changed while it was being read: try again");
        }
        const std::lock_guard guard(fLock);
        fPassed(count);
        return to.size();
    }

private:
    const input& fFrom;
    const std::int64_t fSize;
    const std::function<void(std::int64_t)>& fPassed;
    mutable std::mutex fLock;  // guards what fPassed changes
};

// Unbuffered: rows pass once, so a buffer would only add a copy.
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

// The loop also reads what was added to a file after its size was taken, and short files: some that the system makes up
// have fewer bytes than the page that they claim as their size.
void input::readInto(orva::Writer& rows, const std::function<void(std::int64_t)>& passed) {
    if (const auto size = knownSize(fName); fDescriptor != 0 && size.value_or(0) - fPlace > kBlockSize) {
        rows.write_from(rest(*this, *size, passed));
        fPlace = platform::_lseeki64(fDescriptor, *size, SEEK_SET);
    }
    for (;;) {
        const orva::Bytes room = rows.room();
        const std::uint32_t count = read(room.data(), static_cast<std::uint32_t>(room.size()));
        if (count == 0) return;
        rows.wrote(count);
        passed(count);
    }
}

std::vector<std::byte> input::readAll() {
    constexpr std::uint32_t piece = 1 << 18;
    std::vector<std::byte> bytes;
    std::size_t size = 0;
    do {
        bytes.resize(size + piece);
        size += read(bytes.data() + size, piece);
    } while (size == bytes.size());
    bytes.resize(size);
    return bytes;
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

std::vector<std::byte> readDictionary(const std::string& name) {
    std::vector<std::byte> bytes = input(name).readAll();
    if (bytes.empty()) {
        usageError("the dictionary part \"" + printable(name) + "\" is empty: it needs at least one byte");
    }
    return bytes;
}

std::optional<std::int64_t> knownSize(const std::string& name) {
    std::error_code failure;
    if (name == "-" || !fs::is_regular_file(name, failure)) return {};
    const auto size = fs::file_size(name, failure);
    if (failure || size == 0) return {};  // files that the system makes up, as under /proc, claim to be empty
    return static_cast<std::int64_t>(size);
}

std::int64_t totalSize(std::span<const std::string> names) {
    std::int64_t total = 0;
    for (const std::string& name : names) {
        const auto size = knownSize(name);
        if (!size) return -1;
        total += *size;
    }
    return total;
}
