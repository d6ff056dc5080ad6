// An input of rows: a named file of any kind that can be read, or standard input.
//
// Failure: FileError (1003); endedBySignal while a signal asks for the end (signals.h).
#pragma once

#include <orva/orva.h>

#include <cstdint>
#include <optional>
#include <string>

// Rows on their way through the tool. A piece is small enough to stay in a core's cache between the copy in and the
// copy out. It divides a block, so that all rows before a damaged one are written.
constexpr std::int64_t kPiece = kBlockSize / 16;
struct transferBuffer {
    alignas(kBufferAlignment) unsigned char bytes[kPiece];
};

// A stream that is open on the file, or FileError.
class namedStream : public ORVA_FileStream {
public:
    explicit namedStream(const std::string& name);
};

class input {
public:
    // "-" is standard input.
    explicit input(const std::string& name);
    input(const input&) = delete;
    input& operator=(const input&) = delete;
    ~input();

    // Fewer bytes than asked: the end.
    std::uint32_t read(void* buffer, std::uint32_t size);

private:
    const std::string fName;
    const int fDescriptor;
};

// Throws what opening the file for reading would meet, before anything is begun. A pipe is not opened: that would
// consume it.
void checkReadable(const std::string& name);

// The size of a regular file; nothing for what has none, or none that stays.
std::optional<std::int64_t> knownSize(const std::string& name);
