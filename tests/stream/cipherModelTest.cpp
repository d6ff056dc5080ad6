// Random operations on an enciphered file, held against a vector of the bytes that it should have.
#include "cipherSupport.h"

#include <orva/errtext.h>
#include <orva/filestr.h>

#include <algorithm>
#include <cerrno>

namespace {

using support::Bytes;
using support::RandomBytes;
using support::readBytes;
using support::sameBytes;
using support::slice;

// The bytes of the file, and which writes it must take: in sequence while bytes wait; else from a multiple of 16 on,
// in whole blocks or up to the end of the data at least, and leaving no gap behind bytes that wait.
struct Model {
    Bytes bytes;
    bool waiting = false;

    bool accepts(std::int64_t offset, std::int64_t size) const {
        const auto end = static_cast<std::int64_t>(bytes.size());
        if (size == 0 || (waiting && offset == end)) return true;
        const bool cutsNothing = size % 16 == 0 || offset + size >= end;
        return offset % 16 == 0 && cutsNothing && (!waiting || offset <= end);
    }
    void write(std::int64_t offset, const Bytes& data) {
        const std::size_t end = static_cast<std::size_t>(offset) + data.size();
        if (data.empty()) return;
        if (bytes.size() < end) bytes.resize(end);
        std::copy(data.begin(), data.end(), bytes.begin() + offset);
        if (end == bytes.size()) waiting = end % 16 != 0;
    }
    Bytes read(std::int64_t offset, std::size_t size) const {
        return slice(bytes, static_cast<std::size_t>(offset), size);
    }
};

class CipherModel : public support::CipherFixture {
protected:
    void operate() {
        switch (fRandom->below(10)) {
            case 0:
                finish();
                break;
            case 1:
                fFile.Size();
                break;
            case 2:
            case 3:
                readSomewhere();
                break;
            default:
                writeSomewhere();
                break;
        }
    }
    void finish() {
        fFile.FinishEncryption();
        fModel.waiting = false;
    }
    void readSomewhere() {
        const std::int64_t offset = 16 * fRandom->between(0, end() / 16 + 2);
        const auto size = static_cast<unsigned int>(16 * fRandom->below(20));
        EXPECT_TRUE(sameBytes(read(fFile, offset, size), fModel.read(offset, size))) << offset << '+' << size;
    }
    void writeSomewhere() {
        const std::int64_t places[] = {end(),
                                       end(),
                                       end() / 16 * 16,
                                       16 * fRandom->between(0, end() / 16),
                                       fRandom->between(0, end()),
                                       (end() + 15) / 16 * 16};
        const std::int64_t offset = places[fRandom->below(6)];
        const std::int64_t sizes[] = {fRandom->between(0, 20), fRandom->between(0, 300), 16 * fRandom->between(0, 8)};
        const Bytes data = fRandom->noise(static_cast<std::size_t>(sizes[fRandom->below(3)]));
        const auto size = static_cast<unsigned int>(data.size());
        const Bytes before = readBytes(path("f"));
        const std::int64_t tell = fFile.Tell();
        if (fModel.accepts(offset, size)) {
            EXPECT_EQ(fFile.Write(data.data(), size, offset), size);
            fModel.write(offset, data);
            return;
        }
        try {
            fFile.Write(data.data(), size, offset);
            ADD_FAILURE() << offset << '+' << size << " was taken where the data ends at " << end();
        } catch (const FileError& error) {
            EXPECT_EQ(error.code().value(), EINVAL);
            EXPECT_EQ(fFile.Tell(), tell);
            EXPECT_TRUE(sameBytes(readBytes(path("f")), before));
        }
    }
    std::int64_t end() const { return static_cast<std::int64_t>(fModel.bytes.size()); }

    Model fModel;
    ORVA_File fFile{true};
    RandomBytes* fRandom = nullptr;
};

TEST_F(CipherModel, FileHoldsTheBytesOfEveryWriteItTook) {
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        RandomBytes random(seed);
        fRandom = &random;
        fModel = {};
        ASSERT_TRUE(fFile.Open(named("f"), "w+b"));
        for (int i = 0; i < 60 && !HasFailure(); ++i) operate();
        fFile.FinishEncryption();
        ASSERT_TRUE(sameBytes(read(fFile, 0, 65'536), fModel.bytes));
        if (HasFailure()) return;
    }
}

// A stream sees its own writes on every path, flushed or not, finished or not. A write that the file refuses is told by
// the call that flushes it, which ends the run.
class StreamModel : public support::CipherFixture {
protected:
    void operate(ORVA_FileStream& stream, RandomBytes& random) {
        const std::int64_t end = static_cast<std::int64_t>(fBytes.size());
        const bool aligned = random.oneIn(2);
        const std::int64_t position = aligned ? random.between(0, end / 16) * 16 : random.between(0, end);
        switch (random.below(6)) {
            case 0:
                stream.Close();
                return;
            case 1:
                stream.Flush();
                return;
            case 2:
                return expectRead(stream, position, static_cast<std::uint32_t>(random.below(700)));
            case 3:
                return expectRead(stream, position / 16 * 16, kBlockSize + 512);
            default:
                break;
        }
        const std::int64_t at = random.oneIn(2) ? end : position;
        const Bytes data = random.noise(random.below(200));
        stream.Seek(at, ORVA_StrBaseIO::SeekFromStart);
        stream.Write(data.data(), static_cast<std::uint32_t>(data.size()));
        fBytes.resize(std::max(fBytes.size(), static_cast<std::size_t>(at) + data.size()));
        std::copy(data.begin(), data.end(), fBytes.begin() + at);
    }
    void expectRead(ORVA_FileStream& stream, std::int64_t position, std::uint32_t size) {
        stream.Seek(position, ORVA_StrBaseIO::SeekFromStart);
        fBuffer.resize(kBlockSize + 512);
        const std::uint32_t count = stream.Read(fBuffer.data(), size);
        EXPECT_TRUE(sameBytes(slice(fBuffer, 0, count), slice(fBytes, static_cast<std::size_t>(position), size)))
            << position << '+' << size;
    }

    Bytes fBytes;
    Bytes fBuffer;
};

TEST_F(StreamModel, ReadsGiveWhatWasWrittenOrAFailureWasTold) {
    int whole = 0;
    for (std::uint64_t seed = 1; seed <= 300 && !HasFailure(); ++seed) {
        RandomBytes random(seed);
        fBytes.clear();
        ORVA_FileStream stream(path("f").c_str(), "w+b", true);
        if (random.oneIn(3)) stream.EnableMultiThreadReading();
        try {
            for (int i = 0; i < 40 && !HasFailure(); ++i) operate(stream, random);
            stream.Close();
            stream.ClearAndReset();
            expectRead(stream, 0, kBlockSize + 512);
            ++whole;
        } catch (const FileError& error) {
            EXPECT_EQ(error.code().value(), EINVAL);
            stream.ClearAndReset();
        }
    }
    EXPECT_GE(whole, 30);
}

}  // namespace
