// What tests with real files share: a fresh directory, files made, read and damaged by plain calls past the library,
// and random bytes from a seed that a failure prints.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace support {

using Bytes = std::vector<unsigned char>;

// Bytes of a seed. While one lives, a failure in its scope prints the seed.
class RandomBytes {
public:
    explicit RandomBytes(std::uint64_t seed)
        : fEngine(seed), fTrace(__FILE__, __LINE__, "seed " + std::to_string(seed)) {}

    // Bytes that do not compress.
    Bytes noise(std::size_t size) {
        Bytes bytes(size);
        for (auto& byte : bytes) byte = static_cast<unsigned char>(fEngine());
        return bytes;
    }
    // Bytes that look like rows: few values in runs, so that they compress well and no two blocks are alike.
    Bytes rows(std::size_t size) {
        Bytes bytes;
        while (bytes.size() < size) bytes.insert(bytes.end(), 1 + below(24), static_cast<unsigned char>(below(16)));
        bytes.resize(size);
        return bytes;
    }

    // 0 to `bound` - 1.
    std::uint64_t below(std::uint64_t bound) { return fEngine() % bound; }
    // `low` to `high`, both included.
    std::int64_t between(std::int64_t low, std::int64_t high) {
        return low + static_cast<std::int64_t>(below(static_cast<std::uint64_t>(high - low) + 1));
    }
    bool oneIn(std::uint64_t n) { return below(n) == 0; }

private:
    std::mt19937_64 fEngine;
    testing::ScopedTrace fTrace;
};

// Over what stands there, the rest of the file stays.
inline void overwriteBytes(const std::string& file, std::uint64_t offset, const Bytes& bytes) {
    std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
    stream.seekp(static_cast<std::streamoff>(offset));
    stream.write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
    if (!stream.flush()) throw std::runtime_error("cannot write " + file);
}
inline void writeBytes(const std::string& file, const Bytes& bytes) {
    std::ofstream(file, std::ios::trunc).close();
    overwriteBytes(file, 0, bytes);
}
inline Bytes readBytes(const std::string& file) {
    Bytes bytes(std::filesystem::file_size(file));
    std::ifstream(file, std::ios::binary).read(reinterpret_cast<char*>(bytes.data()), std::ssize(bytes));
    return bytes;
}
inline void flipBit(const std::string& file, std::uint64_t offset, unsigned bit) {
    const unsigned byte = readBytes(file).at(offset);
    overwriteBytes(file, offset, {static_cast<unsigned char>(byte ^ (1U << bit))});
}

// Compares without printing megabytes: the first difference is what helps.
inline testing::AssertionResult sameBytes(const Bytes& found, const Bytes& expected) {
    if (found == expected) return testing::AssertionSuccess();
    const auto at = std::mismatch(found.begin(), found.end(), expected.begin(), expected.end()).first;
    return testing::AssertionFailure() << "first difference at " << at - found.begin() << " of " << found.size();
}

inline Bytes slice(const Bytes& bytes, std::size_t offset, std::size_t size) {
    offset = std::min(offset, bytes.size());
    return {bytes.data() + offset, bytes.data() + offset + std::min(size, bytes.size() - offset)};
}

// A directory of the test's own, gone with it. In memory where there is room: tests sync thousands of times.
class TempDir : public testing::Test {
protected:
    TempDir() {
        std::error_code none;
        const std::filesystem::path memory = "/dev/shm";
        const std::filesystem::space_info room = std::filesystem::space(memory, none);
        const bool inMemory = !none && room.available > (std::uintmax_t{1} << 29);
        std::string pattern = ((inMemory ? memory : std::filesystem::temp_directory_path()) / "orvaXXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make " + pattern);
        fDirectory = pattern;
    }
    ~TempDir() override { std::filesystem::remove_all(fDirectory); }

    std::string path(const std::string& name) const { return (fDirectory / name).string(); }
    // A file of these bytes; its name.
    std::string made(const std::string& name, const Bytes& bytes) const {
        writeBytes(path(name), bytes);
        return path(name);
    }

    std::filesystem::path fDirectory;
};

}  // namespace support
