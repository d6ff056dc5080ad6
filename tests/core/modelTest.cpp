// Random operations on every kind of stream and road, beside a byte vector that says what they must give.
// ORVA_MODEL_OPERATIONS is another number of them for each kind; ORVA_MODEL_SEED begins elsewhere.
#include "coreTest.h"
#include "stream/streamTest.h"

#include <orva/workdir.h>

#include <numeric>

namespace core {
namespace {

constexpr std::uint64_t kManyOfStreams = kSanitized ? 30'000 : 400'000;
constexpr std::uint64_t kManyOfParts = kSanitized ? 1'500 : 6'000;

// Rounds of `round(random, number)`, which gives its operations, until there are enough or one failed.
template <class Round>
void rounds(std::uint64_t quick, Round round) {
    const std::uint64_t enough = told("ORVA_MODEL_OPERATIONS", quick);
    std::uint64_t operations = 0;
    for (std::uint64_t seed = told("ORVA_MODEL_SEED", 1); operations < enough && !testing::Test::HasFailure(); ++seed) {
        RandomBytes random(seed);
        operations += round(random, seed);
    }
    std::printf("%llu operations\n", static_cast<unsigned long long>(operations));
}
// Mostly small, now and then around the sizes at which a path ends or begins.
std::size_t anySize(RandomBytes& random) {
    if (random.oneIn(400)) return static_cast<std::size_t>(kBlock + random.between(-513, 513));
    if (random.oneIn(20)) return static_cast<std::size_t>(random.between(509, 515));
    return random.below(random.oneIn(5) ? 20'000 : 200);
}
Bytes someRows(RandomBytes& random, std::size_t size) {
    static const Bytes pool = RandomBytes(5).rows(3 * kBlock);
    return slice(pool, random.below(pool.size() - size), size);
}

// Streams of every mode, plain and enciphered.
struct StreamModel : StreamTest {
    // After a failure what still waits may not be written: nothing is to be thrown from here.
    void TearDown() override {
        if (model != nullptr) s().ClearAndReset();
        model = nullptr;
    }
    void makeAnew(RandomBytes& random, const std::string& mode) {
        model = nullptr;
        SetKeepEncrypt(fEncrypted);
        content = mode[0] == 'w' ? Bytes() : someRows(random, random.below(2 * kBlock) / 16 * 16);
        write(*std::make_unique<ORVA_FileStream>(path("data").c_str(), "wb", fEncrypted), content);
        openModel(mode.c_str(), fEncrypted);
        fPreReading = true;
        fFinished = false;
    }
    void readSome(RandomBytes& random) {
        std::size_t size = anySize(random);
        if (fEncrypted && !fPreReading) {  // the caller's duty
            model->seek(model->position() / 16 * 16);
            size = size / 16 * 16;
        }
        model->read(size);
    }
    // Enciphered bytes may be refused only where they would need others that this mode can't read or not write again.
    void writeSome(RandomBytes& random) {
        if (model->position() > 16'000'000) model->seek(0);
        if (model->appends() && random.oneIn(2)) model->seek(0, ORVA_StrBaseIO::SeekFromEnd);
        if (content.size() > 20'000'000 && model->appends()) return;
        const std::int64_t at = model->position();
        const Bytes bytes = someRows(random, anySize(random));
        const bool inSequence = at == std::ssize(content) && !fFinished;
        try {
            model->write(bytes);
            if (at + std::ssize(bytes) == std::ssize(content) && !bytes.empty()) fFinished = false;
        } catch (const FileError& error) {
            if (error.code().value() == ENOSPC) throw;
            EXPECT_THAT(error.what(), testing::HasSubstr("multiple of 16"));
            EXPECT_TRUE(fEncrypted && !inSequence && (model->appends() || !model->reads())) << at;
            EXPECT_EQ(s().Tell(), at);
        }
    }
    void finish(bool reopens) {
        reopens ? model->reopen() : model->close();
        fFinished = true;
    }
    void operate(RandomBytes& random, bool writes) {
        const std::uint64_t kind = random.below(2'000);
        if (kind < 800 || (kind < 1'400 && !writes)) return readSome(random);
        if (kind < 1'400) return writeSome(random);
        if (kind < 1'960) return model->seek(random.between(-700, 700), ORVA_StrBaseIO::SeekFromCurrent);
        if (kind < 1'968) return model->seek(random.between(0, 3) * kBlock + std::int64_t(anySize(random)));
        if (kind < 1'976) return model->seek(random.between(-900, 900), ORVA_StrBaseIO::SeekFromEnd);
        if (kind < 1'984) return step('p', fPreReading = !random.oneIn(3));
        if (kind < 1'990) return step('t', !random.oneIn(3));
        if (kind < 1'993) return step('f');
        if (kind < 1'996) return finish(kind == 1'995);
        if (kind < 1'998) return step('k'), void(fFinished = true);
        s().Flush(), model->reset();
    }
    // For a moment, half-way. The same again, of what was not taken, loses nothing and writes nothing twice.
    void onAFullDisk(RandomBytes& random, bool writes) {
        const std::uint64_t seed = random.below(1'000'000);
        RandomBytes first(seed), again(seed);
        fDisk.fail(Call::Write, ENOSPC, random.below(150));
        try {
            operate(first, writes);
        } catch (const FileError& error) {
            EXPECT_EQ(error.code().value(), ENOSPC);
            s().Clear();
            s().Seek(model->position(), ORVA_StrBaseIO::SeekFromStart);  // a read may have begun
            operate(again, writes);
        }
        fDisk.fail(Call::Write, 0);
    }
    // Past the stream: enciphered bytes by another one, which has the pad for data.
    void expectFile() {
        model = nullptr;
        ORVA_FileStream reader(path("data").c_str(), "rb", fEncrypted);
        const Bytes found = read(reader, content.size() + 16);
        if (fEncrypted) content.resize((content.size() + 15) / 16 * 16);
        EXPECT_TRUE(sameBytes(found, content));
    }

    static constexpr const char* kModes[] = {"r+b", "w+b", "a+b", "rb", "wb", "ab"};
    bool fEncrypted = false, fPreReading = true;
    bool fFinished = false;  // the file's end may be padded
    CallHook fDisk;
};

TEST_F(StreamModel, GivesAndKeepsTheBytesThatItTookInEveryMode) {
    rounds(kManyOfStreams, [&](RandomBytes& random, std::uint64_t seed) {
        const std::string mode = kModes[seed % std::size(kModes)];
        fEncrypted = seed / std::size(kModes) % 2 != 0;
        const testing::ScopedTrace trace(__FILE__, __LINE__, mode + (fEncrypted ? " enciphered" : ""));
        makeAnew(random, mode);
        std::uint64_t count = 0;
        for (; count < 1'000 && !HasFailure(); ++count) {
            SCOPED_TRACE("operation " + std::to_string(count));
            EXPECT_NO_THROW(random.oneIn(20) ? onAFullDisk(random, mode != "rb") : operate(random, mode != "rb"));
        }
        if (!HasFailure()) expectFile();
        return count;
    });
}

struct CompressedModel : TempDir {
    static constexpr int kRoads[] = {0, 1, 2, kOneOfSeveral, kTwo, kSeveral};

    void choose(RandomBytes& random, zcmpsFilestr& stream) {
        if (random.oneIn(3)) stream.setCompressionLevel(random.oneIn(2) ? 2 : zcmpsFilestr::bestCompressionLevel());
        fLength = kBlock;
        if (random.oneIn(2)) return;
        fLength = random.oneIn(3) ? 65'536 : random.between(65'536, kBlock);
        stream.setBlockLength(fLength);
    }
    // A block that is full, or was flushed, takes no more.
    void expectInBlocks(std::int64_t size) {
        while (size > 0) {
            if (!fOpen) fSizes.push_back(0);
            const std::int64_t taken = std::min(size, fLength - fSizes.back());
            fSizes.back() += static_cast<std::int32_t>(taken);
            fOpen = fSizes.back() < fLength;
            size -= taken;
        }
    }
    void writeSome(RandomBytes& random, zcmpsFilestr& stream) {
        for (std::uint64_t i = random.below(30); i > 0; --i, ++fOperations) {
            const auto blocks = static_cast<std::size_t>(random.between(1, 2) * fLength + random.between(-1, 1));
            const bool wholeOnes = random.oneIn(40) && blocks < 3 * kBlock;
            const Bytes rows = someRows(random, random.oneIn(9) ? 0 : wholeOnes ? blocks : anySize(random));
            write(stream, rows);
            fRows = std::move(fRows) + rows;
            expectInBlocks(std::ssize(rows));
            if (random.oneIn(3)) {
                EXPECT_EQ(stream.Flush(), 1);
                fOpen = false;
            }
            EXPECT_EQ(stream.Tell(), end());
        }
    }
    // The destructor may do so too.
    void finish(RandomBytes& random, std::unique_ptr<zcmpsFilestr> stream) {
        EXPECT_TRUE(random.oneIn(3) || (stream->Close() == 1 && stream->Flush() == 1 && stream->Close() == 1));
        stream.reset();
        fSwap = false;
        EXPECT_EQ(ORVA_FileStream(fName.c_str(), "r+b").Good(), 1) << "the writer's lock is gone";
        const Bytes file = readBytes(fName);
        const secondReader part(file, kRow0, false);
        EXPECT_TRUE(part.sound && part.layout.sizes == fSizes);
    }
    void makeAnew(RandomBytes& random, int road) {
        auto stream = freshStream(fName, road == 2 ? 0 : road);
        choose(random, *stream);
        beginRows(*stream);
        fRows.clear(), fSizes.clear(), fOpen = false;
        writeSome(random, *stream);
        finish(random, std::move(stream));
        expectFinished(readBytes(fName), fRows, fSizes);
    }
    void append(RandomBytes& random, int road) {
        const std::vector<std::int32_t> sizesBefore = fSizes;
        const Bytes before = fRows;
        std::unique_ptr<zcmpsFilestr> stream = Reader(fName, road == 1 || road > 100 ? road : 0, kRow0, fSwap);
        choose(random, *stream);
        // A short last block is taken back, cut or not.
        fOpen = !fSizes.empty() && fSizes.back() < fLength;
        if (fOpen && random.oneIn(2)) {
            const std::size_t cut = random.below(static_cast<std::uint64_t>(fSizes.back()) + 1);
            fRows.resize(fRows.size() - cut);
            fSizes.back() -= static_cast<std::int32_t>(cut);
            if (fSizes.back() == 0) fSizes.pop_back(), fOpen = false;
        }
        stream->setSafeAppend(random.oneIn(3));
        resume(*stream, end(), fSwap);
        writeSome(random, *stream);
        if (!random.oneIn(4)) return finish(random, std::move(stream));
        fRows = before, fSizes = sizesBefore;
        giveUp(random, *stream, road == 1 || road > 100);
        // What no block and no index holds may differ.
        EXPECT_TRUE(sameBytes(Reader(fName, 0, kRow0, fSwap).read(fRows.size() + 1), fRows));
    }
    // Whatever else a stream that appends is told to do, the rows are there again first.
    void giveUp(RandomBytes& random, zcmpsFilestr& stream, bool hasWorker) {
        const bool reads = !hasWorker && random.oneIn(2);
        if (!hasWorker && !reads && random.oneIn(2)) stream.setRow0Pos(kRow0);
        if (reads) stream.readFilePosInfo(kRow0, fSwap);
        EXPECT_TRUE(!reads || sameBytes(read(stream, fRows.size() + 1), fRows));
        stream.abandon();
        EXPECT_EQ(stream.Flush(), 1);
        EXPECT_EQ(stream.Close(), reads ? 1 : 0);
    }
    void readSome(RandomBytes& random, int road) {
        const Reader reader(fName, road, kRow0, fSwap);
        std::int64_t at = kRow0;
        for (int i = 0; i < 60 && !HasFailure(); ++i, ++fOperations) {
            std::size_t size = anySize(random);
            const std::uint64_t kind = random.below(12);
            if (kind < 4) at = random.between(kRow0 - 3, end() + 3);
            if (kind == 4 && !fSizes.empty()) {
                const auto block = fSizes.begin() + static_cast<std::ptrdiff_t>(random.below(fSizes.size()));
                at = std::accumulate(fSizes.begin(), block, kRow0);
                size = static_cast<std::size_t>(*block) * (1 + random.below(2));
            }
            if (kind == 5) size = 2 * kBlock;
            if (kind == 6) reader->setBlockCache(static_cast<std::int32_t>(random.below(4)));
            if (kind == 7 && (road == 0 || road > 100)) reader->readFilePosInfo(kRow0, fSwap);
            if (kind == 8) reader->Close();
            if (kind == 9 && random.oneIn(4)) at = random.oneIn(2) ? INT64_MAX - 1 : INT64_MIN;
            const Bytes expected = at >= kRow0 && at < end() ? slice(fRows, at - kRow0, size) : Bytes();
            reader->Seek(at, ORVA_StrBaseIO::SeekFromStart);
            EXPECT_TRUE(sameBytes(reader.read(size), expected)) << "at " << at;
            at += std::ssize(expected);
            EXPECT_EQ(reader->Tell(), at);
        }
    }
    std::int64_t end() const { return kRow0 + std::ssize(fRows); }

    const std::string fName = path("file");
    std::uint64_t fOperations = 0;
    Bytes fRows;
    std::vector<std::int32_t> fSizes;  // of the blocks
    std::int64_t fLength = kBlock;     // of a full one
    bool fOpen = false;                // the last one takes more
    bool fSwap = false;                // the file is of the other byte order, until an append is finished
};

TEST_F(CompressedModel, H1_H3_M1_M4_BlocksAndRowsAreThoseThatWereWritten) {
    rounds(kManyOfParts, [&](RandomBytes& random, std::uint64_t seed) {
        const int road = kRoads[seed % std::size(kRoads)];
        SCOPED_TRACE("road " + std::to_string(road));
        fOperations = 0;
        makeAnew(random, road);
        for (int session = 0; session < 6 && !HasFailure(); ++session) {
            if (!fSwap && random.oneIn(3)) fSwap = true, writeBytes(fName, swapped(readBytes(fName), kRow0));
            readSome(random, road);
            if (end() < 3 * kBlock) append(random, road);
        }
        readSome(random, 0);
        return fOperations;
    });
}

}  // namespace
}  // namespace core
