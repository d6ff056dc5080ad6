#include "cipherSupport.h"
#include "support/fileCalls.h"

#include <orva/errtext.h>
#include <orva/filestr.h>
#include <orva/workdir.h>
#include <orva/zcmpsFilestr.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <functional>
#include <sstream>
#include <thread>

namespace {

using support::Bytes;
using support::CipherCalls;
using support::FileCalls;
using support::readBytes;
using support::sameBytes;
using support::slice;
using CipherCall = CipherCalls::Call;

class Cipher : public support::CipherFixture {};

struct KeepCase {
    bool keep, argument, encrypted;
};
constexpr KeepCase kKeeps[] = {{true, true, true}, {true, false, false}, {false, true, false}, {false, false, false}};

TEST_F(Cipher, IsSettledByFlagAndArgumentAtConstruction) {
    for (const KeepCase& c : kKeeps) {
        SetKeepEncrypt(c.keep);
        ORVA_File file(c.argument);
        SetKeepEncrypt(!c.keep);
        EXPECT_EQ(file.IsEncrypted(), c.encrypted);
        ASSERT_TRUE(file.Open(named("f"), "wb"));
        const Bytes plain(32, 'x');
        file.Write(plain.data(), 32, 0);
        EXPECT_EQ(readBytes(path("f")) == plain, !c.encrypted);
    }
    EXPECT_FALSE(ORVA_File().IsEncrypted());
}

// Operations and what they leave: the operation ('w' writes, 'r' reads, 'f' finishes, 's' asks for the size, 'c'
// closes) with offset and size; the result, -1 where it is refused and nothing may change; the position, the length on
// disk, and how often Encrypt and EndEncrypt were called so far.
struct Step {
    char operation = 0;
    std::int64_t offset = 0;
    unsigned int size = 0;
    std::int64_t result = 0, tell = 0, onDisk = 0;
    int encrypts = 0, ends = 0;
};
std::istream& operator>>(std::istream& in, Step& s) {
    return in >> s.operation >> s.offset >> s.size >> s.result >> s.tell >> s.onDisk >> s.encrypts >> s.ends;
}
struct Script {
    const char* name;
    std::vector<const char*> steps;
};
const Script kScripts[] = {
    {"HundredBytesAndFinish",
     {"w 0 100  100  100 96  1 0", "f 0 0  16  100 112  2 1", "f 0 0  0  100 112  2 1",
      "r 0 4190208  100  100 112  2 1", "c 0 0  1  100 112  2 1", "c 0 0  0  100 112  2 1"}},
    {"ReadInBlocks",
     {"w 0 100  100  100 96  1 0", "f 0 0  16  100 112  2 1", "r 0 16  16  16 112  2 1", "r 16 16  16  32 112  2 1",
      "r 32 16  16  48 112  2 1", "r 48 16  16  64 112  2 1", "r 64 16  16  80 112  2 1", "r 80 16  16  96 112  2 1",
      "r 96 16  4  100 112  2 1", "r 112 16  0  112 112  2 1", "r 512 16  0  512 112  2 1", "r 96 0  0  96 112  2 1"}},
    {"ShortPiecesWaitInOrder",
     {"w 0 5  5  5 0  0 0", "w 5 5  5  10 0  0 0", "f 0 0  16  10 16  1 1", "r 0 32  10  10 16  1 1"}},
    {"TwelveFillTheFour",
     {"w 0 4  4  4 0  0 0", "w 4 12  12  16 16  1 0", "f 0 0  0  16 16  1 1", "r 0 32  16  16 16  1 1"}},
    {"HundredBehindFour", {"w 0 4  4  4 0  0 0", "w 4 100  100  104 96  2 0", "f 0 0  16  104 112  3 1"}},
    {"NoPadAtAMultipleOf16", {"w 0 96  96  96 96  1 0", "f 0 0  0  96 96  1 1", "r 0 512  96  96 96  1 1"}},
    {"NeverAnyData", {"f 0 0  0  0 0  0 0", "r 0 16  0  0 0  0 0", "c 0 0  1  0 0  0 0", "f 0 0  0  0 0  0 0"}},
    {"CloseLosesWhatWaits", {"w 0 100  100  100 96  1 0", "c 0 0  1  100 96  1 1", "w 100 5  0  100 96  1 1"}},
    {"CloseWhileCollectingLeavesTheCipherAlone", {"w 0 5  5  5 0  0 0", "c 0 0  1  5 0  0 0"}},
    {"ReadsSeeWhatWaits",
     {"w 0 100  100  100 96  1 0", "r 0 512  100  100 96  1 0", "r 96 16  4  100 96  1 0", "r 112 16  0  112 96  1 0"}},
    {"SequenceGoesOnAfterReadAndSize",
     {"w 0 100  100  100 96  1 0", "s 0 0  96  100 96  1 0", "w 100 20  20  120 112  2 0", "r 16 32  32  48 112  2 0",
      "w 120 40  40  160 160  4 0", "r 0 512  160  160 160  4 0"}},
    {"CoveringWriteDropsWhatWaits",
     {"w 0 100  100  100 96  1 0", "w 0 120  120  120 112  2 0", "f 0 0  16  120 128  3 1",
      "r 0 512  120  120 128  3 1"}},
    {"BlocksBeforeLeaveItWaiting",
     {"w 0 100  100  100 96  1 0", "w 32 64  64  96 96  2 0", "w 100 1  1  101 96  2 0", "r 0 512  101  101 96  2 0"}},
    {"WaitingBytesCannotBeMissed",
     {"w 0 100  100  100 96  1 0", "w 112 16  -1  100 96  1 0", "w 99 16  -1  100 96  1 0", "w 96 3  -1  100 96  1 0",
      "w 0 50  -1  100 96  1 0", "r 0 512  100  100 96  1 0"}},
    {"FinishAfterAReadElsewhere",
     {"w 0 100  100  100 96  1 0", "r 0 48  48  48 96  1 0", "f 0 0  16  48 112  2 1", "w 48 16  16  64 112  3 1",
      "r 0 512  100  100 112  3 1"}},
    {"PaddedBlockOverwritten",
     {"w 0 100  100  100 96  1 0", "f 0 0  16  100 112  2 1", "w 96 16  16  112 112  3 1",
      "r 0 512  112  112 112  3 1"}},
    {"PaddedBlockGrows",
     {"w 0 100  100  100 96  1 0", "f 0 0  16  100 112  2 1", "w 96 5  5  101 112  2 1", "r 0 512  101  101 112  2 1",
      "f 0 0  16  101 112  3 2", "r 0 512  101  101 112  3 2"}},
    {"FinishedDataIsNotCut",
     {"w 0 100  100  100 96  1 0", "f 0 0  16  100 112  2 1", "w 100 4  -1  100 112  2 1", "w 96 3  -1  100 112  2 1",
      "w 16 20  -1  100 112  2 1", "r 0 512  100  100 112  2 1"}},
    {"BehindThePad",
     {"w 0 100  100  100 96  1 0", "f 0 0  16  100 112  2 1", "w 112 16  16  128 128  3 1",
      "r 0 512  128  128 128  3 1"}},
    {"NothingToWrite",
     {"w 0 100  100  100 96  1 0", "w 16 0  0  16 96  1 0", "w 100 0  0  100 96  1 0", "w 100 12  12  112 112  2 0"}},
    {"NoPlaceForIt", {"w 5 16  -1  0 0  0 0", "w -16 16  -1  0 0  0 0", "w 9223372036854775792 16  -1  0 0  0 0"}},
};

class CipherSteps : public Cipher {
protected:
    static Step parsed(const char* text) {
        Step step;
        EXPECT_TRUE(std::istringstream(text) >> step) << text;
        return step;
    }
    std::int64_t run(const Step& step) {
        switch (step.operation) {
            case 'w':
                return write(step);
            case 'f':
                return fFile.FinishEncryption();
            case 's':
                return fFile.Size();
            case 'c':
                return fFile.Close();
            default:
                break;
        }
        const Bytes bytes = read(fFile, step.offset, step.size);
        EXPECT_TRUE(sameBytes(bytes, slice(fModel, static_cast<std::size_t>(step.offset), step.size)));
        return static_cast<std::int64_t>(bytes.size());
    }
    std::int64_t write(const Step& step) {
        const Bytes data = fRandom.noise(step.size);
        const unsigned int taken = fFile.Write(data.data(), step.size, step.offset);
        const std::size_t end = static_cast<std::size_t>(step.offset) + taken;
        if (taken > 0 && fModel.size() < end) fModel.resize(end);
        std::copy_n(data.begin(), taken, fModel.begin() + (taken > 0 ? step.offset : 0));
        return taken;
    }

    support::RandomBytes fRandom{11};
    CipherCalls fCalls;
    ORVA_File fFile{true};
    Bytes fModel;
};

class CipherScript : public CipherSteps, public testing::WithParamInterface<Script> {};

TEST_P(CipherScript, ResultsPositionsAndBytes) {
    ASSERT_TRUE(fFile.Open(named("f"), "w+b"));
    for (const char* text : GetParam().steps) {
        const Step step = parsed(text);
        SCOPED_TRACE(text);
        const Bytes before = readBytes(path("f"));
        if (step.result == -1) {
            try {
                run(step);
                ADD_FAILURE() << "was not refused";
            } catch (const FileError& error) {
                EXPECT_EQ(error.code().value(), EINVAL);
                EXPECT_EQ(error.messageCode(), 1002);
            }
            EXPECT_FALSE(fFile.Good());
            EXPECT_TRUE(sameBytes(readBytes(path("f")), before));
        } else {
            EXPECT_EQ(run(step), step.result);
        }
        EXPECT_EQ(fFile.Tell(), step.tell);
        EXPECT_EQ(readBytes(path("f")).size(), static_cast<std::size_t>(step.onDisk));
        EXPECT_EQ(fCalls.count(CipherCall::Encrypt), step.encrypts);
        EXPECT_EQ(fCalls.count(CipherCall::EndEncrypt), step.ends);
    }
}
INSTANTIATE_TEST_SUITE_P(, CipherScript, testing::ValuesIn(kScripts), [](const auto& i) { return i.param.name; });

// Every raw call and every call of the cipher fails once, at each place where one is made. The failure has the code of
// its operation, moves no position, and the operation can be tried again, except where a block of the failed write has
// joined waiting bytes in the file already.
struct FaultCase {
    const char* name;
    std::function<void(FileCalls&, CipherCalls&, int nth)> arm;
    int places;
};
const FaultCase kFaults[] = {
    {"Write", [](auto& f, auto&, int n) { f.fail(FileCalls::Call::Write, ENOSPC, n); }, 5},
    {"Read", [](auto& f, auto&, int n) { f.fail(FileCalls::Call::Read, EIO, n); }, 3},
    {"Close", [](auto& f, auto&, int n) { f.fail(FileCalls::Call::Close, EIO, n); }, 1},
    {"Encrypt", [](auto&, auto& c, int n) { c.fail(CipherCall::Encrypt, n); }, 5},
    {"EndEncrypt", [](auto&, auto& c, int n) { c.fail(CipherCall::EndEncrypt, n); }, 1},
    {"Decrypt", [](auto&, auto& c, int n) { c.fail(CipherCall::Decrypt, n); }, 2},
};
constexpr const char* kFaultySteps[] = {
    "w 0 100  100  100 96  1 0", "w 100 60  60  160 160  3 0", "w 160 20  20  180 176  4 0", "r 32 32  32  64 176  4 0",
    "f 0 0  16  64 192  5 1",    "r 0 512  180  180 192  5 1", "c 0 0  1  180 192  5 1",
};

class CipherFault : public CipherSteps {
protected:
    // False when trying again was refused, the failure being final.
    bool survives(const Step& step) {
        const Bytes before = fModel;
        const std::int64_t tell = fFile.Tell();
        try {
            EXPECT_EQ(run(step), step.result);
            return true;
        } catch (const FileError& error) {
            ++fFailures;
            EXPECT_EQ(error.messageCode(), step.operation == 'r' ? 1003 : 1002);
            EXPECT_EQ(error.catalog(), "datasrc.err");
            EXPECT_EQ(error.fileName(), path("f"));
        }
        EXPECT_FALSE(fFile.Good());
        EXPECT_TRUE(fFile.IsOpen());
        EXPECT_EQ(fFile.Tell(), tell);
        fFile.Clear();
        try {
            run(step);
            return true;
        } catch (const FileError& error) {
            EXPECT_EQ(error.code().value(), EINVAL);
            return false;
        }
    }
    int fFailures = 0;
};

TEST_F(CipherFault, EachPlaceOfEachCall) {
    int refusals = 0;
    for (const FaultCase& fault : kFaults) {
        for (int nth = 1; nth <= fault.places + 1; ++nth) {
            SCOPED_TRACE(std::string(fault.name) + ' ' + std::to_string(nth));
            fModel.clear();
            fFailures = 0;
            ASSERT_TRUE(fFile.Open(named("f"), "w+b"));
            CipherCalls cipher;
            FileCalls calls;
            fault.arm(calls, cipher, nth);
            for (const char* text : kFaultySteps) {
                const Step step = parsed(text);
                if (survives(step)) continue;
                ++refusals;
                EXPECT_EQ(step.offset, 100);
                break;
            }
            EXPECT_EQ(fFailures, nth <= fault.places ? 1 : 0);
        }
    }
    EXPECT_EQ(refusals, 2);  // the second block run of the write at 100, by the cipher and by the disk
}

TEST_F(Cipher, AFailedSeekIsTold) {
    ORVA_File file(true);
    ASSERT_TRUE(file.Open(named("f"), "w+b"));
    const Bytes data(64, 'x');
    file.Write(data.data(), 64, 0);
    const std::function<void()> operations[] = {[&] { file.Write(data.data(), 64, 0); }, [&] { read(file, 32); }};
    const long codes[] = {1002, 1003};
    for (int i = 0; i < 2; ++i) {
        for (const int nth : {1, 3}) {  // a read asks for the length first: its seeks are to the end, back, and there
            if (i == 0 && nth == 3) continue;
            FileCalls calls;
            calls.fail(FileCalls::Call::Seek, EIO, nth);
            try {
                operations[i]();
                ADD_FAILURE() << "no failure in operation " << i << " at seek " << nth;
            } catch (const FileError& error) {
                EXPECT_EQ(error.messageCode(), codes[i]);
                EXPECT_EQ(error.code().value(), EIO);
            }
        }
    }
    EXPECT_EQ(read(file), data);
}

// As a caller reads: `read` gives fewer bytes than asked at the end of the data.
Bytes drain(ORVA_FileStream& stream, std::uint32_t request) {
    Bytes bytes;
    thread_local Bytes piece;  // kept, since a large one takes its time
    piece.resize(request);
    for (;;) {
        const std::uint32_t count = stream.Read(piece.data(), request);
        bytes.insert(bytes.end(), piece.begin(), piece.begin() + count);
        if (count < request) return bytes;
    }
}

void expectReadBack(const std::string& name, const Bytes& data, std::uint32_t piece) {
    SCOPED_TRACE(data.size());
    ORVA_FileStream stream(name.c_str(), "w+b", true);
    for (std::size_t at = 0; at < data.size(); at += piece) {
        const Bytes part = slice(data, at, piece);
        ASSERT_EQ(stream.Write(part.data(), static_cast<std::uint32_t>(part.size())), part.size());
    }
    ASSERT_EQ(stream.Close(), 1);
    EXPECT_EQ(readBytes(name).size(), (data.size() + 15) / 16 * 16);
    const auto again = [&](std::uint32_t request) {
        stream.ClearAndReset();
        return drain(stream, request);
    };
    EXPECT_TRUE(sameBytes(again(1000), data)) << "buffered";
    EXPECT_TRUE(sameBytes(again(2 * kBlockSize), data)) << "past the buffer";
    stream.DisablePreReading();
    EXPECT_TRUE(sameBytes(again(48 * 1024), data)) << "direct";
    stream.EnablePreReading();
    stream.EnableMultiThreadReading();
    EXPECT_TRUE(sameBytes(again(1000), data)) << "read ahead";
}

TEST_F(Cipher, EveryLengthReadsBackOnEveryPath) {
    support::RandomBytes random(1);
    for (std::uint32_t length = 0; length <= 600; ++length)
        expectReadBack(path("f"), random.noise(length), 1 + length % 70);
    for (const std::uint32_t length : {kBlockSize - 17, kBlockSize - 1, kBlockSize, kBlockSize + 1, kBlockSize + 16,
                                       kBlockSize + 525, 2 * kBlockSize + 5}) {
        expectReadBack(path("f"), random.noise(length), length % 2 == 0 ? 1'000'000 : 5'000'000);
    }
}

TEST_F(Cipher, AnyRunOfBlocksDeciphersByItselfAndThePadIsZeros) {
    support::RandomBytes random(2);
    Bytes data = random.noise(100'004);
    {
        ORVA_File writer(true);
        ASSERT_TRUE(writer.Open(named("f"), "wb"));
        writer.Write(data.data(), 100'004, 0);
        writer.FinishEncryption();
    }
    const Bytes disk = readBytes(path("f"));
    data.resize(disk.size());  // zeros
    ORVA_File other(true);
    ASSERT_TRUE(other.Open(named("f"), "rb"));
    EXPECT_TRUE(sameBytes(read(other, 0, 200'000), data)) << "by another object, which has the pad for data";
    for (int i = 0; i < 200; ++i) {
        const std::size_t block = random.below(disk.size() / 16);
        const std::size_t blocks = 1 + random.below(disk.size() / 16 - block);
        const Bytes run = slice(disk, block * 16, blocks * 16);
        unsigned char* plain = nullptr;
        int size = 0;
        ASSERT_EQ(workdir::Decrypt(&plain, &size, run.data(), static_cast<int>(run.size())), 1);
        EXPECT_TRUE(sameBytes(Bytes(plain, plain + size), slice(data, block * 16, blocks * 16)));
        EXPECT_FALSE(std::equal(plain, plain + size, run.begin()));
        workdir::FreeOutData(plain);
        EXPECT_TRUE(
            sameBytes(read(other, static_cast<std::int64_t>(block * 16), static_cast<unsigned int>(blocks * 16)),
                      slice(data, block * 16, blocks * 16)));
    }
}

TEST_F(Cipher, SequentialTransfersSeekOnlyForTheLength) {
    ORVA_File file(true);
    ASSERT_TRUE(file.Open(named("f"), "w+b"));
    const Bytes data(4096, 'x');
    FileCalls calls;
    for (int i = 0; i < 8; ++i) file.Write(data.data(), 100, i * 100);
    EXPECT_EQ(calls.seeks(), "");
    EXPECT_EQ(calls.transfers(),
              "W 0+96, W 96+16, W 112+80, W 192+16, W 208+80, W 288+16, W 304+96, W 400+96, "
              "W 496+16, W 512+80, W 592+16, W 608+80, W 688+16, W 704+96");
    for (int i = 0; i < 3; ++i) read(file, i * 64, 64);
    EXPECT_EQ(calls.seeks(), "S 800, S 0, S 64, S 128");
}

TEST_F(Cipher, ReadsAtOtherThanMultiplesOf16AreABreach) {
    const std::string text =
        "byteOffset%CIPHER_BLOCK_SIZE == 0 && byteSize%CIPHER_BLOCK_SIZE == 0 && \"byteOffset and byteSize shoule be "
        "multiple of 16.\"";
    ORVA_File file(true);
    unsigned char bytes[16];
    EXPECT_DEATH(file.Read(bytes, 8, 0), ::testing::HasSubstr(text));
    EXPECT_DEATH(file.Read(bytes, 16, 8), ::testing::HasSubstr(text));
}

TEST_F(Cipher, AnotherFileOfTheObjectGetsNothingOfTheFirst) {
    ORVA_File file(true);
    const Bytes data(100, 'x');
    for (const bool finished : {false, true}) {
        ASSERT_TRUE(file.Open(named("first"), "w+b"));
        file.Write(data.data(), 100, 0);
        if (finished) file.FinishEncryption();
        ASSERT_TRUE(file.Open(named("second"), "w+b"));
        file.Write(data.data(), 48, 0);
        file.FinishEncryption();
        EXPECT_EQ(read(file), Bytes(48, 'x'));
    }
}

TEST_F(Cipher, AnAppendingFileTakesOnlyWhatGoesToItsEnd) {
    const Bytes data(100, 'x');
    ORVA_File file(true);
    for (const std::int64_t start : {0, 112}) {
        ASSERT_TRUE(file.Open(named("f"), "a+b"));
        EXPECT_EQ(file.Tell(), start);
        file.Write(data.data(), 96, start);
        EXPECT_THROW(file.Write(data.data(), 16, 0), FileError);
        file.Write(data.data(), 4, start + 96);
        file.FinishEncryption();
        EXPECT_THROW(file.Write(data.data(), 16, start + 96), FileError);
        Bytes expected = start == 0 ? Bytes() : data;
        expected.resize(static_cast<std::size_t>(start));
        expected.insert(expected.end(), data.begin(), data.end());
        EXPECT_TRUE(sameBytes(read(file), expected));
    }
}

TEST_F(Cipher, ACompressedStreamIsRefused) {
    ORVA_FileStream stream(path("f").c_str(), "w+b", true);
    const Bytes data(100, 'x');
    stream.Write(data.data(), 100);
    zcmpsFilestr compressed(stream);
    const Bytes before = readBytes(path("f"));
    const auto refused = [](const std::function<void()>& call, long code) {
        try {
            call();
            ADD_FAILURE() << "was not refused";
        } catch (const FileError& error) {
            EXPECT_EQ(error.code().value(), ENOTSUP);
            EXPECT_EQ(error.messageCode(), code);
        }
    };
    refused([&] { compressed.setRow0Pos(112); }, 1002);
    refused([&] { compressed.readFilePosInfo(112, false); }, 1003);
    EXPECT_EQ(readBytes(path("f")), before);
    EXPECT_EQ(drain(stream, 200), Bytes()) << "the stream stands at the end";
    stream.Seek(0, ORVA_StrBaseIO::SeekFromStart);
    EXPECT_EQ(drain(stream, 200), data);
}

TEST_F(Cipher, FilesOnSeveralThreadsShareNothingButTheKey) {
    support::RandomBytes random(3);
    const Bytes data = random.noise(300'007);
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] { expectReadBack(path("f" + std::to_string(i)), data, 100'001); });
    }
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
