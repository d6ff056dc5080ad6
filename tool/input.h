// An input of rows: a named file of any kind that can be read, or standard input.
//
// Failure: orva::SystemError; endedBySignal when a signal requests the end (signals.h).
#pragma once

#include <orva/orva.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

class input {
public:
    // "-" is standard input.
    explicit input(const std::string& name);
    input(const input&) = delete;
    input& operator=(const input&) = delete;
    ~input();

    // Returns the number of bytes read; fewer than `size` only at the end.
    std::uint32_t read(void* buffer, std::uint32_t size);
    // Writes the rest of the input after the writer's rows. It is read into the writer's memory; a regular file by as
    // many threads as the writer has. `passed` is called with the bytes of each step, on one thread at a time.
    void readInto(orva::Writer& rows, const std::function<void(std::int64_t)>& passed);
    std::vector<std::byte> readAll();

private:
    class rest;

    const std::string fName;
    const int fDescriptor;
    std::int64_t fPlace = 0;  // position after the bytes read
};

// Throws as opening the file for reading would, before any work begins. Does not open a pipe: that would consume it.
void checkReadable(const std::string& name);

// The dictionary part for a new file: all bytes of the file `name`. An empty one is a usage error.
std::vector<std::byte> readDictionary(const std::string& name);

// The size of a regular file; empty if it has none, or none that is constant.
std::optional<std::int64_t> knownSize(const std::string& name);

// The size of all these inputs, as a progress bar takes it: -1 if that of one is not known.
std::int64_t totalSize(std::span<const std::string> names);
