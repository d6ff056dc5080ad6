// Random operations on every kind of stream with every threading, compared with a byte vector. ORVA_MODEL_OPERATIONS
// sets their number for each kind; ORVA_MODEL_SEED sets the first seed.
#include "coreTest.h"
#include "stream/streamTest.h"
#include "support/partModel.h"

using namespace support;

constexpr std::uint64_t kManyOfStreams = kSanitized ? 30'000 : 400'000;
constexpr std::uint64_t kManyOfParts = kSanitized ? 1'500 : 5'000;

// Runs `round(random, seed)` until its operations, so many each time, are enough or one failed.
void rounds(std::uint64_t quick, std::uint64_t each, auto round) {
    const std::uint64_t enough = numberFrom("ORVA_MODEL_OPERATIONS", quick);
    std::uint64_t seed = numberFrom("ORVA_MODEL_SEED", 1);
    for (std::uint64_t done = 0; done < enough && !testing::Test::HasFailure(); done += each) {
        RandomBytes random(seed);
        round(random, seed++);
    }
}

// Streams of every mode, plain and encrypted.
struct StreamModel : StreamTest {
    void readSome(Choices& random) {
        std::size_t size = anySize(random);
        if (fEncrypted && !fPreReading) {  // required of the caller
            model->seek(model->position / 16 * 16);
            size = size / 16 * 16;
        }
        model->read(size);
    }
    // A write of encrypted bytes may be refused only if it needs other bytes that this mode cannot read or write
    // again.
    void writeSome(Choices& random) {
        if (model->appends() && random.oneIn(2)) model->seek(0, ORVA_StrBaseIO::SeekFromEnd);
        const std::int64_t at = model->position;
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
    void operate(Choices& random, bool writes) {
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
        s().Flush(), s().ClearAndReset(), model->moveTo(0);
    }
    // Fails once, half-way. Repeating the call for the bytes not taken loses nothing and writes nothing twice.
    void onAFullDisk(RandomBytes& random, bool writes) {
        SeededBytes first(random.below(1'000'000)), again = first;
        fDisk.fail(Call::Write, ENOSPC, random.below(150));
        try {
            operate(first, writes);
        } catch (const FileError& error) {
            EXPECT_EQ(error.code().value(), ENOSPC);
            s().Clear();
            s().Seek(model->position, ORVA_StrBaseIO::SeekFromStart);  // a read may have begun
            operate(again, writes);
        }
        fDisk.fail(Call::Write, 0);
    }
    static constexpr int kOperations = 1'000;  // on each stream
    static constexpr const char* kModes[] = {"r+b", "w+b", "a+b", "rb", "wb", "ab"};
    bool fPreReading = true;
    bool fFinished = false;  // the file's end may be padded
    CallHook fDisk;
};

TEST_F(StreamModel, GivesAndKeepsTheBytesThatItTookInEveryMode) {
    rounds(kManyOfStreams, kOperations, [&](RandomBytes& random, std::uint64_t seed) {
        const std::string mode = kModes[seed % std::size(kModes)];
        const bool encrypted = seed / std::size(kModes) % 2 != 0;
        const testing::ScopedTrace trace(__FILE__, __LINE__, mode + (encrypted ? " encrypted" : ""));
        open(mode[0] == 'w' ? Bytes() : someRows(random, random.below(2 * kBlock) / 16 * 16), mode, encrypted);
        fPreReading = true;
        fFinished = false;
        for (int i = 0; i < kOperations && !HasFailure(); ++i) {
            SCOPED_TRACE("operation " + std::to_string(i));
            EXPECT_NO_THROW(random.oneIn(20) ? onAFullDisk(random, mode != "rb") : operate(random, mode != "rb"));
        }
        if (HasFailure()) return s().ClearAndReset();  // pending bytes may be unwritable, and a destructor would throw
        expectFile();
    });
}

using CompressedModel = TempDir;

TEST_F(CompressedModel, H1_H3_M1_M4_BlocksAndRowsAreThoseThatWereWritten) {
    const std::string name = path("file");
    constexpr int kThreadings[] = {0, 1, 2, kOneOfSeveral, kTwo, kSeveral};
    constexpr int kSessions = 7, kReads = 60;
    rounds(kManyOfParts, kSessions * kReads, [&](RandomBytes& random, std::uint64_t seed) {
        const int threading = kThreadings[seed % std::size(kThreadings)];
        const bool hasWorker = threading == 1 || threading > 100;
        SCOPED_TRACE("threading " + std::to_string(threading));
        auto stream = freshStream(name, hasWorker ? threading : 0);
        Given given;
        given.choose(*stream, random);
        beginRows(*stream);
        given.writeSome(*stream, random);
        Given::finish(std::move(stream), random);
        expectFinished(readBytes(name), given.rows, given.sizes);
        for (int session = 0; session < kSessions && !HasFailure(); ++session) {
            // In the other byte order until an append is finished.
            bool swap = Layout(readBytes(name)).heading._caseStartPos != kRow0;
            if (!swap && random.oneIn(3)) swap = true, writeBytes(name, swapped(readBytes(name), kRow0));
            PartModel model{name, kRow0, swap, random};
            Reader reader(name, session == kSessions - 1 ? 0 : threading, kRow0, swap);
            for (int i = 0; i < kReads && !HasFailure(); ++i) model.read(*reader, threading == 0 || threading > 100);
            if (model.old.end > kRow0 + 3 * kBlock) continue;
            model.append(Reader(name, hasWorker ? threading : 0), hasWorker);
            model.readBesideIt(*reader);
        }
    });
}
