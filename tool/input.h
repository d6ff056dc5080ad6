// An input of rows: a named file of any kind that can be read, or standard input.
//
// Failure: orva::SystemError; endedBySignal while a signal asks for the end (signals.h).
#pragma once

#include <orva/orva.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

class input {
public:
    // "-" is standard input.
    explicit input(const std::string& name);
    input(const input&) = delete;
    input& operator=(const input&) = delete;
    ~input();

    // Fewer bytes than asked: the end.
    std::uint32_t read(void* buffer, std::uint32_t size);
    // All that is left goes behind the rows of the writer, read into its memory, a regular file's by as many threads as
    // the writer has. `passed` is told of bytes on their way, on one thread at a time.
    void readInto(orva::Writer& rows, const std::function<void(std::int64_t)>& passed);
    std::vector<std::byte> readAll();

private:
    class rest;

    const std::string fName;
    const int fDescriptor;
    std::int64_t fPlace = 0;  // behind what was read
};

// Throws what opening the file for reading would meet, before anything is begun. A pipe is not opened: that would
// consume it.
void checkReadable(const std::string& name);

// The dictionary part that a file is to have: all bytes of another one, of which there is one at least.
std::vector<std::byte> readDictionary(const std::string& name);

// The size of a regular file; nothing for what has none, or none that stays.
std::optional<std::int64_t> knownSize(const std::string& name);
