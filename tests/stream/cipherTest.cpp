// Enciphered files, held against a vector of the bytes that they should have.
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

    void open(bool appends) {
        std::filesystem::remove(fPath);
        fBytes.clear(), fWaits = false, fDisk = 0;
        fAppends = appends;
        fFile = new ORVA_File(true);
        ASSERT_TRUE(fFile->Open(fName, appends ? "a+b" : "w+b"));
    }
    std::int64_t end() const { return std::ssize(fBytes); }
    // Which writes it must take: in sequence while bytes wait; else from a multiple of 16 on, in whole blocks or up to
    // the end of the data at least, and leaving no gap behind bytes that wait. An appending file takes only what goes
    // to its end.
    bool accepts(std::int64_t offset, std::int64_t size) const {
        if (size == 0 || (offset == end() && fWaits)) return true;
        const bool cutsNothing = size % 16 == 0 || offset + size >= end();
        return offset % 16 == 0 && cutsNothing && (!fWaits || offset <= end()) && (!fAppends || offset == fDisk);
    }
    void write(std::int64_t offset, unsigned int size) {
        const Bytes data = fRandom.noise(size);
        EXPECT_EQ(fFile->Write(data.data(), size, offset), size);
        const std::int64_t behind = offset + size;
        EXPECT_EQ(fFile->Tell(), behind);
        if (size == 0) return;
        fBytes = with(std::move(fBytes), offset, data);
        if (behind == end()) fWaits = behind % 16 != 0;
        if (behind / 16 * 16 > offset) fDisk = std::max(fDisk, behind / 16 * 16);
    }
    void expectRead(std::int64_t offset, unsigned int size) {
        Bytes bytes(size);
        bytes.resize(fFile->Read(bytes.data(), size, offset));
        const Bytes expected = slice(fBytes, offset, size);
        EXPECT_TRUE(sameBytes(bytes, expected)) << offset << '+' << size;
        EXPECT_EQ(fFile->Tell(), offset + std::ssize(expected));
    }
    // But for a part of a block, which no reader sees.
    std::int64_t sizeOnDisk() const { return static_cast<std::int64_t>(std::filesystem::file_size(fPath)) / 16 * 16; }
    // What a call throws, which leaves the file open and may be repeated.
    template <class Body>
    std::string failed(Body call) {
        const std::string failure = failureOf(call);
        EXPECT_TRUE(failure.empty() || (fFile->IsOpen() && !fFile->Good()));
        fFile->Clear();
        return failure;
    }
    // A refusal changes nothing.
    void expectRefusal(std::int64_t offset, unsigned int size) {
        const std::int64_t tell = fFile->Tell();
        const Bytes before = readBytes(fPath);
        EXPECT_EQ(failed([&] { write(offset, size); }), fileError(1002, EINVAL, fPath)) << offset << '+' << size;
        EXPECT_TRUE(fFile->Tell() == tell && readBytes(fPath) == before);
    }
    // The disk is full for a moment, half-way: the file is no longer than before.
    template <class Body>
    void onAFullDisk(Body call) {
        FileCalls disk;
        disk.fail(Call::Write, ENOSPC, fRandom.below(150));
        const std::string failure = failed(call);
        if (failure.empty()) return;
        EXPECT_TRUE(failure == fileError(1002, ENOSPC, fPath) && sizeOnDisk() == fDisk) << failure;
        disk.fail(Call::Write, 0);
        if (fWaits && fAppends) expectRead(0, 65'536);
        call();
    }
    void finish() {
        onAFullDisk([&] { EXPECT_EQ(fFile->FinishEncryption(), fWaits ? 16U : 0U); });
        fWaits = false;
        fDisk = std::max(fDisk, (end() + 15) / 16 * 16);
    }
    RandomBytes fRandom{1};
    const std::string fPath = path("f");
    ExtNameStr fName;
    RefCountPtr<ORVA_File> fFile;
    Bytes fBytes;                           // of the file
    bool fAppends = false, fWaits = false;  // some of them, for the rest of their block
    std::int64_t fDisk = 0;                 // the length of the blocks that are in the file
};

// What a stream asks of its file, core/modelTest.cpp holds.
TEST_F(Cipher, FileHoldsTheBytesOfEveryWriteItTook) {
    for (int round = 0; round < 4'000 && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        open(round % 4 == 3);
        for (int i = 0; i < 6 && !HasFailure(); ++i) {
            if (fRandom.oneIn(6)) finish();
            if (fRandom.oneIn(2)) expectRead(16 * fRandom.between(0, 4), 128), fFile->Size();
            const std::int64_t any = fRandom.between(0, end() + 50);
            const std::int64_t offset = fRandom.oneIn(3) ? end() : fRandom.oneIn(4) ? any : any / 16 * 16;
            const auto size = static_cast<unsigned int>(fRandom.below(fRandom.oneIn(2) ? 21 : 150));
            accepts(offset, size) ? onAFullDisk([&] { write(offset, size); }) : expectRefusal(offset, size);
            EXPECT_EQ(sizeOnDisk(), fDisk);
        }
        expectRefusal(-16, 16);
        expectRefusal(INT64_MAX - 15, 16);
        expectRead(0, 65'536);
    }
    EXPECT_NE(slice(readBytes(fPath), 0, 16), slice(fBytes, 0, 16)) << "the ciphertext";
    const auto breach = testing::HasSubstr("&& \"byteOffset and byteSize shoule be multiple of 16.\"");
    EXPECT_DEATH(expectRead(0, 8), breach);
    EXPECT_DEATH(expectRead(8, 16), breach);
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
    open(false);
    FileCalls calls;
    RunEnds ends;
    EXPECT_EQ(fFile->FinishEncryption(), 0U);  // no run has begun
    for (int i = 0; i < 5; ++i) write(i * 100, i < 4 ? 100 : 5);
    EXPECT_EQ(calls.transfers(), "W 0+96, W 96+16, W 112+80, W 192+16, W 208+80, W 288+16, W 304+96");
    const int before = calls.count;
    for (int i = 0; i < 9; ++i) write(i % 3 * 16, 16), expectRead(i % 3 * 64, 64);
    EXPECT_EQ(calls.count - before, 18);
    fFile->Close();
    EXPECT_EQ(ends.count, 1);
    EXPECT_EQ(std::filesystem::file_size(fPath), 400U);
    open(false);
    write(0, 9);
    ends.failing = true;
    EXPECT_THAT(failed([&] { fFile->FinishEncryption(); }), testing::StartsWith("FileError 1002 "));
    ends.failing = false;
    fFile->FinishEncryption();
    fFile->Close();
    EXPECT_EQ(ends.count, 3) << "once for a run, and for its failure";
    ASSERT_TRUE(fFile->Open(fName, "rb"));
    calls.fail(Call::Seek, EIO);
    EXPECT_THROW(expectRead(0, 16), FileError) << "its pad would pass for data";
    ORVA_FileStream stream(fPath.c_str(), "r+b", true);
    zcmpsFilestr compressed(stream);
    EXPECT_THROW(compressed.setRow0Pos(112), FileError) << "a compressed stream over it";
    EXPECT_THROW(compressed.readFilePosInfo(112, false), FileError);
    EXPECT_EQ(std::filesystem::file_size(fPath), 16U);
}

}  // namespace
