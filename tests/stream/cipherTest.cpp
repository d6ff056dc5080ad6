// Enciphered files by calls of the file itself. What a stream asks of them, the model in core/modelTest.cpp holds.
#include "stream/streamTest.h"

#include <orva/file.h>
#include <orva/workdirFaults.h>
#include <orva/zcmpsFilestr.h>

#include <gmock/gmock.h>

namespace {

using namespace support;

class Cipher : public TempDir {
protected:
    Cipher() {
        SetKeepEncrypt(true);
        fName.SetGeneric(fPath);
    }
    ~Cipher() override { SetKeepEncrypt(false); }
    void open(const char* mode) {
        file = new ORVA_File(true);
        ASSERT_TRUE(file->Open(fName, mode));
    }
    void write(const Bytes& bytes, std::int64_t offset) {
        EXPECT_EQ(file->Write(bytes.data(), static_cast<unsigned int>(bytes.size()), offset), bytes.size());
        EXPECT_EQ(file->Tell(), offset + std::ssize(bytes));
    }
    Bytes read(std::int64_t offset, unsigned int size) {
        Bytes bytes(size);
        bytes.resize(file->Read(bytes.data(), size, offset));
        return bytes;
    }
    std::uintmax_t sizeOnDisk() const { return std::filesystem::file_size(fPath); }

    const std::string fPath = path("f");
    const Bytes fNoise = RandomBytes(1).noise(1'000);
    ExtNameStr fName;
    RefCountPtr<ORVA_File> file;
};

struct WriteCase {
    const char* name;
    std::size_t held;  // bytes that are there; those behind the last whole block wait, or are padded if finished
    std::int64_t offset;
    std::size_t size;
    bool taken;
    bool finished = false;
    const char* mode = "w+b";
};
constexpr WriteCase kWrites[] = {
    {"BelowTheFile", 32, -16, 16, false},
    {"InABlockThatCannotEnd", 32, INT64_MAX - 15, 8, false},
    {"FromInsideABlock", 40, 8, 24, false},
    {"ToInsideABlock", 40, 16, 8, false},
    {"OverSomeOfWhatWaits", 40, 32, 4, false},
    {"BehindAGapWhileBytesWait", 40, 64, 16, false},
    {"InsideThePaddedBlock", 40, 40, 8, false, true},
    {"BeforeTheEndOfWhatOnlyAppends", 32, 0, 16, false, false, "a+b"},
    {"BehindTheEndOfWhatOnlyAppends", 32, 48, 16, false, false, "a+b"},
    {"InSequence", 20, 20, 30, true},
    {"InSequenceAtTheEnd", 20, 20, 30, true, false, "a+b"},
    {"WholeBlocksBeforeWhatWaits", 40, 0, 32, true},
    {"OverAllThatWaits", 40, 32, 50, true},
    {"OverTheEnd", 40, 16, 100, true},
    {"BehindAGap", 32, 64, 20, true},
    {"OverThePaddedBlock", 40, 32, 20, true, true},
    {"BehindThePaddedBlock", 40, 48, 20, true, true},
};

TEST_F(Cipher, AFileTakesWhatNeedsNoOtherBytesOfABlock) {
    for (const WriteCase& c : kWrites) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(fPath);
        open(c.mode);
        const Bytes held = slice(fNoise, 0, c.held), more = slice(fNoise, 500, c.size);
        write(held, 0);
        if (c.finished) file->FinishEncryption();
        const Bytes before = readBytes(fPath);
        const std::int64_t tell = file->Tell();
        FileCalls disk;
        disk.fail(Call::Write, ENOSPC, 5);  // for a moment, half-way
        EXPECT_EQ(failureOf([&] { write(more, c.offset); }), fileError(1002, c.taken ? ENOSPC : EINVAL, fPath));
        EXPECT_TRUE(file->IsOpen() && !file->Good() && sizeOnDisk() / 16 * 16 == before.size());
        EXPECT_TRUE(c.taken || (readBytes(fPath) == before && file->Tell() == tell)) << "a refusal changes nothing";
        file->Clear();
        disk.fail(Call::Write, 0);
        if (c.taken) write(more, c.offset);
        const Bytes expected = c.taken ? with(held, c.offset, more) : held;
        EXPECT_TRUE(sameBytes(read(0, 256), expected));
        disk.fail(Call::Write, ENOSPC, 5);
        const bool waits = !failureOf([&] { file->FinishEncryption(); }).empty();
        EXPECT_EQ(waits, expected.size() % 16 != 0 && (c.taken || !c.finished));
        disk.fail(Call::Write, 0);
        EXPECT_EQ(file->FinishEncryption(), waits ? 16U : 0U);
        EXPECT_TRUE(sameBytes(read(0, 256), expected));
    }
    EXPECT_NE(slice(readBytes(fPath), 0, 16), slice(fNoise, 0, 16)) << "the ciphertext";
    // Part of a block, which a dead process has left, is no data, and nothing in a gap.
    file->Close();
    std::filesystem::resize_file(fPath, 41);
    open("r+b");
    const Bytes whole = read(0, 256);
    EXPECT_EQ(whole.size(), 32U);
    write(slice(fNoise, 0, 16), 64);
    EXPECT_TRUE(sameBytes(read(0, 256), with(whole, 64, slice(fNoise, 0, 16))));
    const auto breach = testing::HasSubstr("&& \"byteOffset and byteSize shoule be multiple of 16.\"");
    EXPECT_DEATH(read(0, 8), breach);
    EXPECT_DEATH(read(8, 16), breach);
    SetKeepEncrypt(false);
    EXPECT_FALSE(ORVA_File(true).IsEncrypted());
}

// Counts the ends of the cipher's runs, and makes them fail.
struct RunEnds : workdir::faults::Hook {
    RunEnds() { workdir::faults::install(this); }
    ~RunEnds() override { workdir::faults::install(nullptr); }
    bool fails(workdir::faults::Call call) noexcept override {
        if (call == workdir::faults::Call::EndEncrypt) ++count;
        return failing && call == workdir::faults::Call::EndEncrypt;
    }
    int count = 0;
    bool failing = false;
};

TEST_F(Cipher, TransfersCostOneCallEachAndACloseLosesWhatWaits) {
    open("w+b");
    FileCalls calls;
    RunEnds ends;
    EXPECT_EQ(file->FinishEncryption(), 0U);  // no run has begun
    for (int i = 0; i < 5; ++i) write(slice(fNoise, 0, i < 4 ? 100 : 5), i * 100);
    EXPECT_EQ(calls.transfers(), "W 0+96, W 96+16, W 112+80, W 192+16, W 208+80, W 288+16, W 304+96");
    const int before = calls.count;
    for (int i = 0; i < 9; ++i) write(slice(fNoise, 0, 16), i % 3 * 16), read(i % 3 * 64, 64);
    EXPECT_EQ(calls.count - before, 18);
    file->Close();
    EXPECT_EQ(ends.count, 1);
    EXPECT_EQ(sizeOnDisk(), 400U);
    open("w+b");
    write(slice(fNoise, 0, 9), 0);
    ends.failing = true;
    EXPECT_THAT(failureOf([&] { file->FinishEncryption(); }), testing::StartsWith("FileError 1002 "));
    ends.failing = false;
    file->FinishEncryption();
    file->Close();
    EXPECT_EQ(ends.count, 3) << "once for a run, and for its failure";
    ASSERT_TRUE(file->Open(fName, "rb"));
    calls.fail(Call::Seek, EIO);
    EXPECT_THROW(read(0, 16), FileError) << "its pad would pass for data";
    ORVA_FileStream stream(fPath.c_str(), "r+b", true);
    zcmpsFilestr compressed(stream);
    EXPECT_THROW(compressed.setRow0Pos(112), FileError) << "a compressed stream over it";
    EXPECT_THROW(compressed.readFilePosInfo(112, false), FileError);
    EXPECT_EQ(sizeOnDisk(), 16U);
}

}  // namespace
