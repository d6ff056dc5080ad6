// Shared by the tests of the compressed layers: streams that write and read, and a check of finished files without
// them.
#pragma once

#include "support/secondReader.h"
#include "support/tempDir.h"

namespace support {

inline constexpr std::int64_t kBlock = 4'190'208;

// A stream over a new file with nothing but a dictionary part.
inline std::unique_ptr<zcmpsFilestr> freshStream(const std::string& name, int threading) {
    writeBytes(name, Bytes(kRow0, 0xD5));
    auto stream = std::make_unique<zcmpsFilestr>(ORVA_FileStream(name.c_str(), "r+b"));
    setThreading(*stream, threading);
    return stream;
}

// Begins to add rows at `end`.
inline void resume(zcmpsFilestr& stream, std::int64_t end, bool swap = false) {
    stream.Seek(end, ORVA_StrBaseIO::SeekFromStart);
    stream.setFileToAppend(end, swap);
}

inline std::unique_ptr<zcmpsFilestr> startedWriter(const std::string& name, int threading) {
    auto stream = freshStream(name, threading);
    beginRows(*stream);
    return stream;
}

// A finished file of six short blocks.
struct ShortBlocks : TempDir {
    const std::string fName = path("rows.orva");
    const std::vector<Bytes> fBlocks = blocksOf({3'000, 1, 20'000, 700, 5'000, 100});
    const Bytes fFile = (makeFile(fName, fBlocks), readBytes(fName));
};

// A stream that reads a finished file.
struct Reader : std::unique_ptr<zcmpsFilestr> {
    explicit Reader(const std::string& name, int threading = 0, std::int64_t row0 = 0, bool swap = false)
        : unique_ptr(std::make_unique<zcmpsFilestr>(ORVA_FileStream(name.c_str(), "rb"))) {
        if (get()->Good() == 0) throw FileReopenError(errno, name, {1201, "", "", 0, true});
        setThreading(**this, threading);
        if (row0 != 0) get()->readFilePosInfo(row0, swap);
    }
    Bytes read(std::size_t size) const { return support::read(**this, size); }
    Bytes readAt(std::int64_t position, std::size_t size) const {
        get()->Seek(position, ORVA_StrBaseIO::SeekFromStart);
        return read(size);
    }
};

// Checks all rules of a finished file, without the library.
inline void expectFinished(const Bytes& file, const Bytes& rows, const std::vector<std::int32_t>& sizes) {
    const secondReader part(file, kRow0, false);
    EXPECT_EQ(slice(file, 0, kRow0), Bytes(kRow0, 0xD5)) << "the dictionary part";
    EXPECT_EQ(bytesOf(part.layout.first), bytesOf(filePosRecord{-100, 0, kBlock, std::int32_t(sizes.size())}));
    EXPECT_EQ(part.layout.sizes, sizes);
    EXPECT_TRUE(part.sound && sameBytes(*part.allRows(), rows));
    EXPECT_EQ(part.layout.heading._indexPos, part.blocksEnd);
    EXPECT_EQ(std::ssize(file), part.blocksEnd + part.layout.heading._size);
}

}  // namespace support
