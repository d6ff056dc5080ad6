// What the tests of appending, damage and recovery share: small files of several blocks, appends described by numbers,
// and rows read back past whatever happened.
#pragma once

#include "appendJournal.h"
#include "core/coreTest.h"
#include "support/tempDir.h"

#include <orva/inspect.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace recovery {

using core::failureOf;
using core::kBlock;
using core::kRow0;
using core::Layout;
using support::Bytes;

inline const orva::foundPart kPart{kRow0, false};

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes rowsOf(const std::string& name, bool swap = false) {
    const core::Reader reader(name, 0, kRow0, swap);
    const orva::finishedPart part(name, {kRow0, swap});
    // A lying index may claim any size.
    return reader.read(static_cast<std::size_t>(std::clamp<std::int64_t>(part.dataSize(), 0, 8 * kBlock)));
}

// An append to a finished file of blocks of `old` bytes: the last `cut` bytes of rows go, `added` blocks come.
struct Append {
    const char* name;
    std::vector<std::size_t> old;
    std::size_t cut;
    std::vector<std::size_t> added;
    bool safe = false;

    // A full block is of one value, so that it stays small in the file; others are all different.
    static Bytes block(std::size_t size, std::size_t number) {
        if (size >= std::size_t{kBlock}) return Bytes(size, static_cast<unsigned char>(number));
        return support::RandomBytes(7 + number).rows(size);
    }
    std::vector<Bytes> oldBlocks() const { return blocks(old, 0); }
    std::vector<Bytes> addedBlocks() const { return blocks(added, 100); }
    Bytes oldRows() const { return core::joined(oldBlocks()); }
    Bytes newRows() const {
        Bytes rows = oldRows();
        rows.resize(rows.size() - cut);
        return rows + core::joined(addedBlocks());
    }
    void makeOld(const std::string& file) const { core::makeFile(file, oldBlocks()); }

    // The rows of `added`, each ended as a block, on a stream that setFileToAppend has made ready.
    void write(zcmpsFilestr& stream) const {
        for (const Bytes& rows : addedBlocks()) {
            stream.Write(rows.data(), static_cast<std::uint32_t>(rows.size()));
            stream.Flush();
        }
    }
    void begin(zcmpsFilestr& stream, bool swap = false) const {
        const auto end = static_cast<std::int64_t>(oldRows().size() - cut) + kRow0;
        stream.setSafeAppend(safe);
        stream.Seek(end, ORVA_StrBaseIO::SeekFromStart);
        stream.setFileToAppend(end, swap);
    }
    void run(const std::string& file, bool swap = false) const {
        const core::Reader stream(file, 0, kRow0, swap);
        begin(*stream.operator->(), swap);
        write(*stream.operator->());
        EXPECT_EQ(stream->Close(), 1);
    }

private:
    static std::vector<Bytes> blocks(const std::vector<std::size_t>& sizes, std::size_t number) {
        std::vector<Bytes> all;
        for (const std::size_t size : sizes) all.push_back(block(size, ++number));
        return all;
    }
};

// For tests of several appends, each a test of its own.
inline std::string nameOf(const testing::TestParamInfo<Append>& append) {
    return append.param.name;
}
inline void PrintTo(const Append& append, std::ostream* out) {
    *out << append.name;
}

inline bool hasSideFile(const std::string& file) {
    return std::filesystem::exists(orva::sideFileName(file));
}

}  // namespace recovery
