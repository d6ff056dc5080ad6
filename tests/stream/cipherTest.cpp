// Enciphered files and streams, held against a vector of the bytes that they should have.
#include "stream/modelStream.h"
#include "support/fileCalls.h"

#include <orva/blockSize.h>
#include <orva/errtext.h>
#include <orva/file.h>
#include <orva/workdirFaults.h>
#include <orva/zcmpsFilestr.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <limits>

namespace {

using support::Bytes;
using support::FileCalls;
using support::sameBytes;
using support::slice;
using CipherCall = workdir::faults::Call;

// Counts the cipher's calls; the n-th of a kind fails.
struct CipherCalls : workdir::faults::Hook {
    ~CipherCalls() override { workdir::faults::install(before); }
    bool fails(CipherCall call) noexcept override { return ++counts[call] == nth && call == failing; }

    workdir::faults::Hook* const before = workdir::faults::install(this);
    std::map<CipherCall, int> counts;
    CipherCall failing = CipherCall::Encrypt;
    int nth = 0;
};

// The bytes of the file, and which writes it must take: in sequence while bytes wait; else from a multiple of 16 on,
// in whole blocks or up to the end of the data at least, and leaving no gap behind bytes that wait. An appending file
// takes only what goes to its end.
struct Model {
    bool appends = false;
    Bytes bytes;
    bool waiting = false;
    std::int64_t disk = 0;

    std::int64_t end() const { return static_cast<std::int64_t>(bytes.size()); }
    bool accepts(std::int64_t offset, std::int64_t size) const {
        if (size == 0 || (waiting && offset == end())) return true;
        const bool cutsNothing = size % 16 == 0 || offset + size >= end();
        return offset % 16 == 0 && cutsNothing && (!waiting || offset <= end()) && (!appends || offset == disk);
    }
    void write(std::int64_t offset, const Bytes& data) {
        const std::int64_t behind = offset + static_cast<std::int64_t>(data.size());
        if (data.empty()) return;
        bytes.resize(static_cast<std::size_t>(std::max(end(), behind)));
        std::copy(data.begin(), data.end(), bytes.begin() + offset);
        if (behind == end()) waiting = behind % 16 != 0;
        disk = std::max(disk, end() / 16 * 16);
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
        const Bytes expected = slice(fModel.bytes, static_cast<std::size_t>(offset), size);
        EXPECT_TRUE(sameBytes(bytes, expected)) << offset << '+' << size;
        EXPECT_EQ(fFile->Tell(), offset + static_cast<std::int64_t>(expected.size()));
    }
    void write(std::int64_t offset, unsigned int size) {
        const Bytes data = fRandom.noise(size);
        EXPECT_EQ(fFile->Write(data.data(), size, offset), size);
        EXPECT_EQ(fFile->Tell(), offset + size);
        fModel.write(offset, data);
    }
    // The errno of what it threw, which a failure of the cipher leaves 0; -1 if it went well. A failure moves no
    // position and leaves the file open.
    int failureOf(const std::function<void()>& operation, long code) {
        const std::int64_t tell = fFile->Tell();
        try {
            operation();
            return -1;
        } catch (const FileError& error) {
            EXPECT_EQ(error.messageCode(), code);
            EXPECT_TRUE(fFile->IsOpen() && !fFile->Good() && fFile->Tell() == tell);
            fFile->Clear();
            return error.code().value();
        }
    }
    void operate() {
        const std::int64_t end = fModel.end();
        const std::uint64_t kind = fRandom.below(10);
        if (kind == 0) {
            EXPECT_EQ(fFile->FinishEncryption(), fModel.waiting ? 16U : 0U);
            fModel.waiting = false;
            fModel.disk = std::max(fModel.disk, (end + 15) / 16 * 16);
        } else if (kind < 4) {
            expectRead(16 * fRandom.between(0, end / 16 + 2), static_cast<unsigned int>(16 * fRandom.below(20)));
        } else {
            const std::int64_t any = fRandom.between(0, end);
            const std::int64_t places[] = {end, end, end / 16 * 16, any / 16 * 16, any, (end + 15) / 16 * 16};
            const std::uint64_t sizes[] = {fRandom.below(21), fRandom.below(301), 16 * fRandom.below(9)};
            const std::int64_t offset = places[fRandom.below(6)];
            const auto size = static_cast<unsigned int>(sizes[fRandom.below(3)]);
            const int expected = fModel.accepts(offset, size) ? -1 : EINVAL;
            const Bytes before = support::readBytes(path("f"));
            EXPECT_EQ(failureOf([&] { write(offset, size); }, 1002), expected) << offset << '+' << size;
            EXPECT_TRUE(expected == -1 || support::readBytes(path("f")) == before);
        }
        if (fRandom.oneIn(2)) fFile->Size();
        EXPECT_EQ(std::filesystem::file_size(path("f")), static_cast<std::uintmax_t>(fModel.disk));
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
        for (const std::int64_t outside : {std::int64_t{-16}, std::numeric_limits<std::int64_t>::max() - 15})
            EXPECT_EQ(failureOf([&] { write(outside, 16); }, 1002), EINVAL);
        for (int i = 0; i < 60 && !HasFailure(); ++i) operate();
        expectRead(0, 65'536);
    }
}

// Every raw call and every call of the cipher fails once, at each place where one is made. The operation can be tried
// again, except where a block of the failed write has joined waiting bytes in the file already.
TEST_F(Cipher, FailuresAreToldAndCanBeTriedAgain) {
    constexpr FileCalls::Call kRaw[] = {FileCalls::Call::Seek, FileCalls::Call::Write, FileCalls::Call::Read,
                                        FileCalls::Call::Close};
    constexpr CipherCall kCipher[] = {CipherCall::Encrypt, CipherCall::EndEncrypt, CipherCall::Decrypt};
    const std::function<void()> steps[] = {
        [&] { write(0, 100); },
        [&] { write(100, 60); },
        [&] { write(160, 20); },
        [&] { expectRead(32, 32); },
        [&] { fFile->FinishEncryption(); },
        [&] { expectRead(0, 512); },
        [&] { EXPECT_EQ(fFile->Close(), 1); },
    };
    std::vector<int> failures(7);
    int refusals = 0;
    for (std::size_t kind = 0; kind < 7; ++kind) {
        for (int nth = 1; nth <= 20; ++nth) {
            SCOPED_TRACE(kind * 100 + nth);
            open("w+b");
            CipherCalls cipher;
            FileCalls calls;
            if (kind < 4) calls.fail(kRaw[kind], EIO, nth);
            if (kind >= 4) cipher.failing = kCipher[kind - 4], cipher.nth = nth;
            for (const auto& step : steps) {
                const bool reading = &step == &steps[3] || &step == &steps[5];
                if (failureOf(step, reading ? 1003 : 1002) == -1) continue;
                ++failures[kind];
                if (&step == &steps[4]) expectRead(0, 512);  // what waits still does
                const int again = failureOf(step, 1002);
                EXPECT_TRUE(again == -1 || (again == EINVAL && &step == &steps[1]));
                refusals += again != -1;
                if (again != -1) break;
            }
        }
    }
    EXPECT_EQ(failures, (std::vector<int>{6, 5, 3, 1, 5, 1, 2}));
    EXPECT_EQ(refusals, 2);  // the second block run of the write at 100, by the cipher and by the disk
}

TEST_F(Cipher, SequentialTransfersSeekOnlyForTheLengthAndCloseLosesWhatWaits) {
    open("w+b");
    FileCalls calls;
    CipherCalls cipher;
    EXPECT_EQ(fFile->FinishEncryption(), 0U);  // no run has begun
    for (int i = 0; i < 5; ++i) write(i * 100, i < 4 ? 100 : 5);
    EXPECT_EQ(calls.seeks(), "");
    EXPECT_EQ(calls.transfers(), "W 0+96, W 96+16, W 112+80, W 192+16, W 208+80, W 288+16, W 304+96");
    for (int i = 0; i < 3; ++i) expectRead(i * 64, 64);
    EXPECT_EQ(calls.seeks(), "S 400, S 0, S 64, S 128");
    fFile->Close();
    EXPECT_EQ(cipher.counts[CipherCall::EndEncrypt], 1);
    EXPECT_EQ(std::filesystem::file_size(path("f")), 400U);
}

TEST_F(Cipher, OtherObjectsHaveThePadOfZerosForDataAndPlainOnesTheCiphertext) {
    open("w+b");
    write(0, 100);
    fFile->FinishEncryption();
    const Bytes ciphertext = support::readBytes(path("f"));
    fModel.bytes.resize(112);
    fFile->Close();
    fFile = new ORVA_File(true);
    SetKeepEncrypt(false);
    EXPECT_FALSE(ORVA_File(true).IsEncrypted());
    ASSERT_TRUE(fFile->Open(fName, "r+b"));
    expectRead(0, 8192);
    expectRead(80, 16);  // any run of blocks deciphers by itself
    EXPECT_NE(slice(fModel.bytes, 0, 96), slice(ciphertext, 0, 96));
    write(96, 20);  // asks for the end of the file first
    expectRead(0, 8192);
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
