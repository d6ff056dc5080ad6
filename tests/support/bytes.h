// Bytes, and files: finished ones made by the library, others made, read and damaged by plain calls, without it. Needs
// no test framework, so that fuzz targets use it too.
#pragma once

#include <orva/orva.h>

#include <zlib.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace support {

using Bytes = std::vector<unsigned char>;

// Overwrites bytes; the rest of the file stays.
inline void overwriteBytes(const std::string& file, std::integral auto offset, const Bytes& bytes) {
    std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
    stream.seekp(static_cast<std::streamoff>(offset));
    stream.write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
    if (!stream.flush()) throw std::runtime_error("cannot write " + file);
}
inline void writeBytes(const std::string& file, const Bytes& bytes) {
    std::ofstream(file, std::ios::trunc).close();
    overwriteBytes(file, 0, bytes);
}
// Empty if there is no file.
inline Bytes readBytes(const std::string& file) {
    Bytes bytes(std::filesystem::exists(file) ? static_cast<std::size_t>(std::filesystem::file_size(file)) : 0);
    std::ifstream(file, std::ios::binary).read(reinterpret_cast<char*>(bytes.data()), std::ssize(bytes));
    return bytes;
}

// In the type of the library's counts.
inline std::uint32_t sizeOf(const Bytes& bytes) {
    return static_cast<std::uint32_t>(bytes.size());
}
inline Bytes slice(const Bytes& bytes, std::integral auto offset, std::integral auto size) {
    const std::size_t from = std::min(static_cast<std::size_t>(offset), bytes.size());
    return {bytes.data() + from, bytes.data() + from + std::min(static_cast<std::size_t>(size), bytes.size() - from)};
}

// `bytes` with `others` from `at` on, extended if they reach further.
inline Bytes with(Bytes bytes, std::integral auto at, const Bytes& others) {
    bytes.resize(std::max(bytes.size(), static_cast<std::size_t>(at) + others.size()));
    std::copy(others.begin(), others.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
    return bytes;
}
inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}
inline Bytes joined(const std::vector<Bytes>& parts) {
    Bytes all;
    for (const Bytes& part : parts) all = std::move(all) + part;
    return all;
}
inline Bytes bytesOf(const auto& value) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&value);
    return {bytes, bytes + sizeof value};
}
// With the checksum after it, as in a side file.
inline Bytes summed(const Bytes& numbers) {
    return numbers + bytesOf(std::uint64_t{crc32_z(0, numbers.data(), numbers.size())});
}

// A source of choices.
struct Choices {
    virtual ~Choices() = default;
    // From 0 to `bound` - 1.
    virtual std::uint64_t number(std::uint64_t bound) = 0;
    std::size_t below(std::size_t bound) { return static_cast<std::size_t>(number(bound)); }
    // From `low` to `high`, both included.
    std::int64_t between(std::int64_t low, std::int64_t high) {
        return low + static_cast<std::int64_t>(number(static_cast<std::uint64_t>(high - low) + 1));
    }
    bool oneIn(std::size_t n) { return below(n) == 0; }
};

// Bytes determined by a seed.
struct SeededBytes : Choices {
    explicit SeededBytes(std::uint64_t seed) : fEngine(seed) {}

    // Bytes that do not compress.
    Bytes noise(std::size_t size) {
        Bytes bytes(size);
        for (auto& byte : bytes) byte = static_cast<unsigned char>(fEngine());
        return bytes;
    }
    // Bytes that look like rows: few values in runs, so that they compress well and no two blocks are alike.
    Bytes rows(std::size_t size) {
        Bytes bytes;
        while (bytes.size() < size) {
            const auto value = static_cast<unsigned char>(below(16));
            bytes.insert(bytes.end(), 1 + below(24), value);
        }
        bytes.resize(size);
        return bytes;
    }

    std::uint64_t number(std::uint64_t bound) override { return fEngine() % bound; }

private:
    std::mt19937_64 fEngine;
};

// A little-endian file with a finished part at `row0`, with every field of heading and index in the other byte order.
inline Bytes swapped(Bytes file, std::int64_t row0) {
    compressionHeading heading{};
    std::memcpy(&heading, &file.at(static_cast<std::size_t>(row0)), sizeof heading);
    const auto turn = [&](std::int64_t at, int width) { std::reverse(&file[0] + at, &file[0] + at + width); };
    for (const int field : {0, 8, 16}) turn(row0 + field, 8);
    for (std::int64_t at = heading._indexPos; at < heading._indexPos + heading._size; at += kRecordSize) {
        for (const int field : {0, 8}) turn(at + field, 8);
        for (const int field : {16, 20}) turn(at + field, 4);
    }
    return file;
}

// Blocks of these sizes. A full one holds one value, so that it stays small in the file; others are all different.
// Those of kNoise bytes do not shrink, so that all take the same number of bytes in the file.
constexpr std::size_t kFull = 65'536;  // the shortest that a writer can choose
constexpr std::size_t kNoise = 6000;
inline std::vector<Bytes> blocksOf(const std::vector<std::size_t>& sizes, unsigned char seed = 0) {
    std::vector<Bytes> blocks;
    for (const std::size_t size : sizes) {
        SeededBytes random(++seed);
        blocks.push_back(size == kFull ? Bytes(size, seed) : size == kNoise ? random.noise(size) : random.rows(size));
    }
    return blocks;
}

// A threading: a value for setMultiThread, or 100 plus a value for setThreadCount.
inline constexpr int kOneOfSeveral = 101, kTwo = 102, kSeveral = 103;
inline void setThreading(zcmpsFilestr& stream, int threading) {
    threading > 100 ? stream.setThreadCount(threading - 100) : stream.setMultiThread(threading);
}

// Each program defines how a broken promise fails.
void require(bool held, const char* promise);

inline Bytes read(ORVA_StrBaseIO& stream, std::size_t size) {
    Bytes bytes(size);
    bytes.resize(stream.Read(bytes.data(), sizeOf(bytes)));
    return bytes;
}
inline void write(ORVA_StrBaseIO& stream, const Bytes& bytes) {
    require(stream.Write(bytes.data(), sizeOf(bytes)) == bytes.size(), "rows are taken");
}

inline constexpr std::int64_t kRow0 = 1'000;
inline void beginRows(zcmpsFilestr& stream, std::int64_t row0 = kRow0) {
    stream.setRow0Pos(row0);
    stream.Seek(row0, ORVA_StrBaseIO::SeekFromStart);
}

// Writes each of these as one block, unless deflate cuts it.
inline void writeBlocks(zcmpsFilestr& stream, const std::vector<Bytes>& blocks) {
    for (const Bytes& block : blocks) {
        write(stream, block);
        stream.Flush();
    }
}

// A finished file, made by the library alone.
inline void makeFile(const std::string& name, const std::vector<Bytes>& blocks, std::int64_t row0 = kRow0,
                     int threading = 0, bool durable = false) {
    ORVA_FileStream source(name.c_str(), "w+b");
    write(source, Bytes(static_cast<std::size_t>(std::min(row0, kRow0)), 0xD5));
    zcmpsFilestr stream(source);
    setThreading(stream, threading);
    stream.setDurable(durable);
    beginRows(stream, row0);
    writeBlocks(stream, blocks);
    require(stream.Close() == 1, "a writer ends");
}

inline std::span<const std::byte> spanOf(const Bytes& rows) {
    return std::as_bytes(std::span(rows));
}

inline void writeAll(orva::Writer writer, const auto& rows) {
    writer.write_rows(rows);
    writer.finish();
}
// The rows from `offset` on, as many as there are.
inline Bytes rowsAt(const orva::Reader& reader, std::int64_t offset, std::size_t size) {
    Bytes rows(size);
    rows.resize(reader.read_at(offset, std::as_writable_bytes(std::span(rows))));
    return rows;
}
inline Bytes allRows(const orva::Reader& reader) {
    return rowsAt(reader, 0, static_cast<std::size_t>(reader.size()));
}

}  // namespace support
