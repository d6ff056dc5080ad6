// Shared by the tests of the compressed layers: compressed files made through the library and inspected without it, and
// hooks for system calls.
#pragma once

#include "support/secondReader.h"
#include "support/tempDir.h"

namespace core {

using namespace support;

inline constexpr std::int64_t kRow0 = 1'000;
inline constexpr std::int64_t kBlock = 4'190'208;

// A threading: a value for setMultiThread, or 100 plus a value for setThreadCount.
inline constexpr int kOneOfSeveral = 101, kTwo = 102, kSeveral = 103;
inline void setThreading(zcmpsFilestr& stream, int threading) {
    threading > 100 ? stream.setThreadCount(threading - 100) : stream.setMultiThread(threading);
}

// A stream over a new file with nothing but a dictionary part.
inline std::unique_ptr<zcmpsFilestr> freshStream(const std::string& name, int threading) {
    writeBytes(name, Bytes(kRow0, 0xD5));
    auto stream = std::make_unique<zcmpsFilestr>(ORVA_FileStream(name.c_str(), "r+b"));
    setThreading(*stream, threading);
    return stream;
}

inline void beginRows(zcmpsFilestr& stream, std::int64_t row0 = kRow0) {
    stream.setRow0Pos(row0);
    stream.Seek(row0, ORVA_StrBaseIO::SeekFromStart);
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

inline Bytes read(ORVA_StrBaseIO& stream, std::size_t size) {
    Bytes bytes(size);
    bytes.resize(stream.Read(bytes.data(), sizeOf(bytes)));
    return bytes;
}
inline void write(ORVA_StrBaseIO& stream, const Bytes& bytes) {
    EXPECT_EQ(stream.Write(bytes.data(), sizeOf(bytes)), bytes.size());
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
    write(source, Bytes(kRow0, 0xD5));
    zcmpsFilestr stream(source);
    setThreading(stream, threading);
    stream.setDurable(durable);
    beginRows(stream, row0);
    writeBlocks(stream, blocks);
    EXPECT_EQ(stream.Close(), 1);
}

// A finished file of six short blocks.
struct ShortBlocks : TempDir {
    ShortBlocks() {
        RandomBytes random(41);
        for (const std::size_t size : {3'000u, 1u, 20'000u, 700u, 5'000u, 100u}) fBlocks.push_back(random.rows(size));
        makeFile(fName, fBlocks);
        fFile = readBytes(fName);
    }
    const std::string fName = path("rows.orva");
    std::vector<Bytes> fBlocks;
    Bytes fFile;
};

// A stream that reads a finished file.
struct Reader : std::unique_ptr<zcmpsFilestr> {
    explicit Reader(const std::string& name, int threading = 0, std::int64_t row0 = 0, bool swap = false)
        : unique_ptr(std::make_unique<zcmpsFilestr>(ORVA_FileStream(name.c_str(), "rb"))) {
        if (get()->Good() == 0) throw SystemFileException(1201, "", "", 0, true);
        setThreading(**this, threading);
        if (row0 != 0) get()->readFilePosInfo(row0, swap);
    }
    Bytes read(std::size_t size) const { return core::read(**this, size); }
    Bytes readAt(std::int64_t position, std::size_t size) const {
        get()->Seek(position, ORVA_StrBaseIO::SeekFromStart);
        return read(size);
    }
};

template <class Struct>
Bytes bytesOf(const Struct& value) {
    Bytes bytes(sizeof value);
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

// Checks all rules of a finished file, without the library.
inline void expectFinished(const Bytes& file, const Bytes& rows, const std::vector<std::int32_t>& sizes) {
    const secondReader part(file, kRow0, false);
    EXPECT_EQ(slice(file, 0, kRow0), Bytes(kRow0, 0xD5)) << "the dictionary part";
    EXPECT_EQ(bytesOf(part.layout.first),
              bytesOf(filePosRecord{-100, 0, kBlock, static_cast<std::int32_t>(sizes.size())}));
    EXPECT_EQ(part.layout.sizes, sizes);
    EXPECT_TRUE(part.sound && sameBytes(*part.allRows(), rows));
    EXPECT_EQ(part.layout.heading._indexPos, part.blocksEnd);
    EXPECT_EQ(std::ssize(file), part.blocksEnd + part.layout.heading._size);
}

}  // namespace core
