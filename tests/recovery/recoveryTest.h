// Shared by the tests of appending, damage and recovery: small files of several blocks, appends described by numbers,
// and rows read back whatever happened.
#pragma once

#include "core/coreTest.h"
#include "support/secondReader.h"

namespace support {

inline const orva::foundPart kPart{kRow0, false};
inline const orva::recoverOptions kDropLost{kPart, false, true};

// The rows of a finished file whose blocks are all where the index says.
inline Bytes rowsOf(const std::string& file, bool swap = false) {
    orva::finishedPart part(file, {kRow0, swap});
    part.verifyIndex();
    return Reader(file, 0, kRow0, swap).read(static_cast<std::size_t>(part.dataSize()));
}

// An append to a finished file of blocks of `old` bytes: removes the last `cut` bytes of rows and adds `added` blocks.
struct Append {
    const char* name;
    std::vector<std::size_t> old;
    std::size_t cut;
    std::vector<std::size_t> added;
    std::vector<std::int32_t> sizes{};  // the blocks' sizes afterwards
    int variant = 0;                    // 1 if it is safe, plus twice the number of threads

    Bytes oldRows() const { return joined(blocksOf(old)); }
    Bytes keptRows() const { return slice(oldRows(), 0, oldRows().size() - cut); }
    Bytes newRows() const { return keptRows() + joined(blocksOf(added, 100)); }

    std::int64_t keptEnd() const { return kRow0 + std::ssize(keptRows()); }

    // Runs on a stream that has read nothing yet. The caller finishes it.
    void write(const Reader& stream, bool swap = false) const {
        begin(stream, keptEnd(), swap);
        writeBlocks(*stream, blocksOf(added, 100));
    }
    void begin(const Reader& stream, std::int64_t end, bool swap = false) const {
        stream->setThreadCount(variant / 2);
        stream->setSafeAppend((variant & 1) != 0);
        stream->setBlockLength(kFull);
        stream->readFilePosInfo(kRow0, swap);
        resume(*stream, end, swap);
    }
    void run(const std::string& file, bool swap = false) const {
        const Reader stream(file);
        write(stream, swap);
        EXPECT_EQ(stream->Close(), 1);
    }
};

constexpr int kWriting = 4;  // the first ones begin in different ways and write several blocks; the others end in
                             // different ways
inline const Append kAppends[] = {
    {"RowsJoinShortBlock", {300, 500}, 0, {200, 90}, {300, 700, 90}},
    {"CutThenAdded", {300, 500}, 450, {20, 90}, {300, 70, 90}},
    {"RowsBehindFullBlock", {300, kFull}, 0, {200, 90}, {300, kFull, 200, 90}},
    {"FirstRows", {}, 0, {200, 90}, {200, 90}},
    {"NothingToShortBlock", {300, 500}, 0, {}, {300, 500}},
    {"CutInsideLastBlock", {300, 500}, 450, {}, {300, 50}},
    {"CutToBlockStart", {300, 500}, 500, {}, {300}},
    {"NothingToFullBlock", {300, kFull}, 0, {}, {300, kFull}},
    {"CutAndAsManyRows", {300, kNoise}, kNoise, {kNoise}, {300, kNoise}},
    {"RowsFillShortBlock", {300}, 0, {kFull}, {kFull, 300}},
    {"CutToNothing", {300}, 300, {}},
    {"CutToNothingThenAdded", {300}, 300, {40}, {40}},
    {"NothingToNothing", {}, 0, {}},
};

using Files = std::map<std::string, Bytes>;  // contents of the directory by name

struct FileTest : TempDir, testing::WithParamInterface<std::size_t> {
    Bytes bytes() const { return readBytes(fFile); }
    // Makes a finished file and returns its bytes.
    Bytes finished(const std::vector<Bytes>& blocks) const { return makeFile(fFile, blocks), bytes(); }
    Files present() const {
        Files files;
        for (const std::string& name : {fFile, fSide}) {
            if (std::filesystem::exists(name)) files[name] = readBytes(name);
        }
        return files;
    }
    void lay(const Files& files) const {
        for (const std::string& name : {fFile, fSide, fOut}) std::filesystem::remove(name);
        for (const auto& [name, content] : files) writeBytes(name, content);
    }
    // The files that killing this append leaves.
    Files afterKill(const Reader& stream) const {
        Files files = present();
        stream->abandon();
        EXPECT_EQ(stream->Close(), 0);
        return files;
    }
    Files interrupted(const Append& append) const {
        const Reader stream(fFile);
        append.write(stream);
        return afterKill(stream);
    }
    const std::string fFile = path("file"), fSide = orva::sideFileName(fFile), fOut = path("out");
};

}  // namespace support
