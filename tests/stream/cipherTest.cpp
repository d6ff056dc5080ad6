// Enciphered files and streams, held against a vector of the bytes that they should have.
#include "stream/streamTest.h"

#include <orva/file.h>
#include <orva/workdirFaults.h>
#include <orva/zcmpsFilestr.h>

#include <gmock/gmock.h>

namespace {

using support::Bytes;
using support::Call;
using support::FileCalls;
using support::sameBytes;
using support::slice;

// The bytes of the file, and which writes it must take: in sequence while bytes wait; else from a multiple of 16 on,
// in whole blocks or up to the end of the data at least, and leaving no gap behind bytes that wait. An appending file
// takes only what goes to its end.
struct Model {
    bool appends = false;
    Bytes bytes;
    bool waiting = false;
    std::int64_t disk = 0;

    std::int64_t end() const { return std::ssize(bytes); }
    bool accepts(std::int64_t offset, std::int64_t size) const {
        if (size == 0 || (offset == end() && waiting)) return true;
        const bool cutsNothing = size % 16 == 0 || offset + size >= end();
        return offset % 16 == 0 && cutsNothing && (!waiting || offset <= end()) && (!appends || offset == disk);
    }
    void write(std::int64_t offset, const Bytes& data) {
        const std::int64_t behind = offset + std::ssize(data);
        if (data.empty()) return;
        bytes = support::with(std::move(bytes), offset, data);
        if (behind == end()) waiting = behind % 16 != 0;
        if (behind / 16 * 16 > offset) disk = std::max(disk, behind / 16 * 16);
    }
};

class Cipher : public support::TempDir {
protected:
    Cipher() {
        SetKeepEncrypt(true);
        fFile = new ORVA_File(true);
        fName.SetGeneric(path("f"));
    }
    ~Cipher() override { SetKeepEncrypt(false); }

    void open(const char* mode) {
        std::filesystem::remove(path("f"));
        ASSERT_TRUE(fFile->Open(fName, mode));
        fModel = {mode[0] == 'a', {}, false, 0};
    }
    void expectRead(std::int64_t offset, unsigned int size) {
        Bytes bytes(size);
        bytes.resize(fFile->Read(bytes.data(), size, offset));
        const Bytes expected = slice(fModel.bytes, offset, size);
        EXPECT_TRUE(sameBytes(bytes, expected)) << offset << '+' << size;
        EXPECT_EQ(fFile->Tell(), offset + std::ssize(expected));
    }
    void write(std::int64_t offset, unsigned int size) {
        const Bytes data = fRandom.noise(size);
        EXPECT_EQ(fFile->Write(data.data(), size, offset), size);
        EXPECT_EQ(fFile->Tell(), offset + size);
        fModel.write(offset, data);
    }
    void expectSize() const {
        EXPECT_EQ(std::filesystem::file_size(path("f")) / 16 * 16, static_cast<std::uintmax_t>(fModel.disk));
    }
    // A refusal moves no position and leaves the file open.
    bool refused(std::int64_t offset, unsigned int size) {
        const std::int64_t tell = fFile->Tell();
        try {
            write(offset, size);
            return false;
        } catch (const FileError& error) {
            EXPECT_TRUE(error.messageCode() == 1002 && error.code().value() == EINVAL);
            EXPECT_TRUE(fFile->IsOpen() && !fFile->Good() && fFile->Tell() == tell);
            fFile->Clear();
            return true;
        }
    }
    // The disk is full for a moment, half-way: the file is no longer than before, and the same call can be repeated.
    template <class Call>
    void onAFullDisk(Call call) {
        FileCalls disk;
        disk.fail(support::Call::Write, ENOSPC, false, fRandom.below(150));
        try {
            call();
        } catch (const FileError& error) {
            EXPECT_TRUE(error.messageCode() == 1002 && error.code().value() == ENOSPC);
            expectSize();
            fFile->Clear();
            disk.fail(support::Call::Write, 0);
            if (fModel.waiting && fModel.appends) expectRead(0, 65'536);
            call();
        }
    }
    void finish() {
        onAFullDisk([&] { EXPECT_EQ(fFile->FinishEncryption(), fModel.waiting ? 16U : 0U); });
        fModel.waiting = false;
        fModel.disk = std::max(fModel.disk, (fModel.end() + 15) / 16 * 16);
    }
    // Another object has the pad for data, and no part of a block that a dead process left.
    void openAnew() {
        finish();
        fFile->Close();
        if (!fModel.appends) std::filesystem::resize_file(path("f"), static_cast<std::uintmax_t>(fModel.disk + 9));
        fModel.bytes.resize(static_cast<std::size_t>(fModel.disk));
        fFile = new ORVA_File(true);
        ASSERT_TRUE(fFile->Open(fName, fModel.appends ? "a+b" : "r+b"));
    }
    void operate() {
        const std::int64_t end = fModel.end();
        const std::uint64_t kind = fRandom.below(10);
        if (kind == 1 && fRandom.oneIn(5)) {
            openAnew();
        } else if (kind == 0) {
            finish();
        } else if (kind < 4) {
            expectRead(16 * fRandom.between(0, end / 16 + 2), static_cast<unsigned int>(16 * fRandom.below(20)));
        } else {
            const std::int64_t any = fRandom.between(0, end);
            const std::int64_t places[] = {
                end, end, end / 16 * 16, any / 16 * 16, any, (end + 15) / 16 * 16, (end + 100) / 16 * 16};
            const std::uint64_t sizes[] = {fRandom.below(21), fRandom.below(301), 16 * fRandom.below(9)};
            const std::int64_t offset = places[fRandom.below(7)];
            const auto size = static_cast<unsigned int>(sizes[fRandom.below(3)]);
            const bool accepts = fModel.accepts(offset, size);
            const Bytes before = support::readBytes(path("f"));
            if (accepts) onAFullDisk([&] { write(offset, size); });
            EXPECT_TRUE(accepts || (refused(offset, size) && support::readBytes(path("f")) == before))
                << offset << '+' << size;
        }
        if (fRandom.oneIn(2)) fFile->Size();
        expectSize();
    }

    support::RandomBytes fRandom{1};
    ExtNameStr fName;
    Model fModel;
    RefCountPtr<ORVA_File> fFile;
};

TEST_F(Cipher, FileHoldsTheBytesOfEveryWriteItTook) {
    for (int round = 0; round < 400 && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        open(round % 4 == 3 ? "a+b" : "w+b");
        EXPECT_TRUE(refused(-16, 16) && refused(INT64_MAX - 15, 16));
        for (int i = 0; i < 60 && !HasFailure(); ++i) operate();
        expectRead(0, 65'536);
    }
}

// Counts the ends of the cipher's runs.
struct RunEnds : workdir::faults::Hook {
    bool fails(workdir::faults::Call call) noexcept override {
        count += call == workdir::faults::Call::EndEncrypt ? 1 : 0;
        return false;
    }
    int count = 0;
};

TEST_F(Cipher, TransfersCostAsManyCallsAsTheyMust) {
    for (const bool enciphered : {false, true}) {
        SetKeepEncrypt(enciphered);
        fFile = new ORVA_File(true);
        open("w+b");
        write(0, 16);  // an enciphered file asks for its end once
        const support::CallHook calls;
        for (int i = 0; i < 10; ++i) write(i % 3 * 16, 16);
        EXPECT_EQ(calls.count, 10U);
        for (int i = 0; i < 10; ++i) expectRead(i % 3 * 16, 16);
        EXPECT_EQ(calls.count, 20U);
    }
}

TEST_F(Cipher, TransfersInSequenceAndACloseThatLosesWhatWaits) {
    open("w+b");
    FileCalls calls;
    RunEnds ends;
    workdir::faults::install(&ends);
    EXPECT_EQ(fFile->FinishEncryption(), 0U);  // no run has begun
    for (int i = 0; i < 5; ++i) write(i * 100, i < 4 ? 100 : 5);
    EXPECT_EQ(calls.transfers(), "W 0+96, W 96+16, W 112+80, W 192+16, W 208+80, W 288+16, W 304+96");
    for (int i = 0; i < 3; ++i) expectRead(i * 64, 64);
    EXPECT_EQ(calls.transfers(), "R 0+64, R 64+64, R 128+64");
    fFile->Close();
    EXPECT_EQ(ends.count, 1);
    EXPECT_EQ(std::filesystem::file_size(path("f")), 400U);
    open("w+b");
    write(0, 9);
    EXPECT_EQ(fFile->FinishEncryption(), 16U);
    fFile->Close();
    workdir::faults::install(nullptr);
    EXPECT_EQ(ends.count, 2) << "once for a run";
    ASSERT_TRUE(fFile->Open(fName, "rb"));
    const support::CallHook lengthless([](const support::Step& step, std::uint64_t) {
        return step.call == support::Call::Seek ? support::Verdict::fail(EIO) : support::Verdict::goOn();
    });
    EXPECT_THROW(expectRead(0, 16), FileError) << "its pad would pass for data";
}

TEST_F(Cipher, OnlyPlainObjectsSeeTheCiphertext) {
    open("w+b");
    write(0, 96);
    SetKeepEncrypt(false);
    EXPECT_FALSE(ORVA_File(true).IsEncrypted());
    EXPECT_NE(support::readBytes(path("f")), fModel.bytes);
}

TEST_F(Cipher, ReadsAtOtherThanMultiplesOf16AreABreach) {
    const auto breach = testing::HasSubstr(
        "byteOffset%CIPHER_BLOCK_SIZE == 0 && byteSize%CIPHER_BLOCK_SIZE == 0 && \"byteOffset and byteSize shoule be "
        "multiple of 16.\"");
    EXPECT_DEATH(expectRead(0, 8), breach);
    EXPECT_DEATH(expectRead(8, 16), breach);
}

TEST_F(Cipher, CompressedStreamIsRefused) {
    ORVA_FileStream stream(path("f").c_str(), "w+b", true);
    stream.Write("0123456789", 10);
    zcmpsFilestr compressed(stream);
    const Bytes before = support::readBytes(path("f"));
    EXPECT_THROW(compressed.setRow0Pos(112), FileError);
    EXPECT_THROW(compressed.readFilePosInfo(112, false), FileError);
    EXPECT_EQ(stream.Tell(), 10);
    EXPECT_EQ(support::readBytes(path("f")), before);
}

}  // namespace
