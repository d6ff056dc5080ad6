// Every system call of a writing and of a reading script fails once, in each of several ways, on every road. What has
// to hold: the right failure or the right bytes; no hang; a Close that gave 1 told the truth; a file whose heading did
// not get written reads as unfinished.
#include "coreTest.h"

#include <gmock/gmock.h>

namespace core {
namespace {

using platform::faults::Call;
using platform::faults::Step;
using platform::faults::Verdict;

struct Fault {
    const char* name;
    int error;        // 0: the call is only cut short
    bool fromThenOn;  // else once
    bool afterAPart;  // a transfer first moves some bytes, and the next call fails
};
constexpr Fault kFaults[] = {
    {"EioOnce", EIO, false, false},           {"EioFromThenOn", EIO, true, false},
    {"FullFromThenOn", ENOSPC, true, false},  {"FullAfterAPart", ENOSPC, true, true},
    {"InterruptedOnce", EINTR, false, false}, {"ShortOnce", 0, false, true},
    {"ShortFromThenOn", 0, true, true},
};

// Makes the k-th call fail.
class Faults : public platform::faults::Hook {
public:
    Faults(const Fault& fault, std::uint64_t k) : fFault(fault), fK(k) {}
    Verdict before(Call, int, std::uint64_t) override {
        const std::uint64_t number = ++fCount;
        if (number == fK && fFault.afterAPart) return Verdict::atMost(7);
        const std::uint64_t failing = fK + (fFault.afterAPart ? 1 : 0);
        if (number != failing && !(fFault.fromThenOn && number > failing)) return Verdict::goOn();
        if (fFault.error == 0) return fFault.fromThenOn ? Verdict::atMost(7) : Verdict::goOn();
        bFailed = true;
        return Verdict::fail(fFault.error);
    }
    void after(const Step& step) override {
        if (step.call != Call::Write || step.result <= 0) return;
        if (step.offset == kRow0) bHeadingBegun = true;
    }
    bool happened() const { return fCount >= fK; }
    bool headingBegun() const { return bHeadingBegun; }
    bool failed() const { return bFailed; }

private:
    const Fault& fFault;
    const std::uint64_t fK;
    std::atomic<std::uint64_t> fCount{0};
    std::atomic<bool> bFailed{false};
    std::atomic<bool> bHeadingBegun{false};
};

class RoadFaults : public support::TempDir {
protected:
    RoadFaults() {
        support::RandomBytes random(51);
        fBlocks = {random.rows(2'000), random.noise(300), random.rows(900)};
        fRows = joined(fBlocks);
    }
    // "" for the right rows.
    std::string readBack() const {
        return failureOf([&] {
            if (Reader(fName, 0, kRow0).read(fRows.size() + 1) != fRows) throw std::runtime_error("wrong rows");
        });
    }
    // FileError of this file, with the errno that was injected, or that the file could not be opened.
    void expectRight(const std::string& failure, const Faults& faults, const Fault& fault) const {
        if (failure.empty()) return;
        EXPECT_TRUE(faults.failed()) << failure << " out of nothing";
        // The side file of an earlier append that is to go has the file's name with an ending.
        EXPECT_THAT(failure, testing::AnyOf(fileError(1002, fault.error, fName), fileError(1003, fault.error, fName),
                                            fileError(1002, fault.error, fName + ".orva-undo"),
                                            testing::StartsWith("SystemFileException 1201 ")));
    }

    const Watchdog fWatchdog{"a road hangs after a failed system call\n"};
    const std::string fName = path("rows.orva");
    std::vector<Bytes> fBlocks;
    Bytes fRows;
};

template <class Body>
void forEachFault(Body body) {
    for (const Fault& fault : kFaults) {
        std::uint64_t k = 1;
        for (bool happened = true; happened && k < 500; ++k) {
            SCOPED_TRACE(std::string(fault.name) + ", call " + std::to_string(k));
            happened = body(fault, k);
        }
        EXPECT_GT(k, 8u);
        EXPECT_LT(k, 500u);
    }
}

TEST_F(RoadFaults, AWriterFailsRightOrWritesRight) {
    for (const int road : {0, 1, kSeveral}) {
        SCOPED_TRACE("road " + std::to_string(road));
        forEachFault([&](const Fault& fault, std::uint64_t k) {
            Faults faults(fault, k);
            std::int32_t closed = 0;
            {
                const Dictionary dictionary(fName);
                zcmpsFilestr stream(dictionary.stream());
                takeRoad(stream, road);
                const platform::faults::Installed installed(faults);
                std::string heard = failureOf([&] {
                    stream.setRow0Pos(kRow0);
                    stream.Seek(kRow0, ORVA_StrBaseIO::SeekFromStart);
                    for (const Bytes& block : fBlocks) {
                        write(stream, block);
                        stream.Flush();
                    }
                });
                const std::string atClose = failureOf([&] { closed = stream.Close(); });
                const bool wasWriter = stream.Tell() != 0;
                // The first failure is final; a stream that never was a writer has nothing to finish.
                const std::string expected = wasWriter ? heard : "";
                EXPECT_TRUE(heard.empty() || atClose == expected) << atClose << " after " << heard;
                if (heard.empty()) heard = atClose;
                if (!wasWriter) closed = 0;
                expectRight(heard, faults, fault);
                EXPECT_EQ(closed, heard.empty() ? 1 : 0);
            }
            const std::string back = readBack();
            EXPECT_THAT(back, testing::AnyOf("", testing::StartsWith("DamagedFileError")));
            EXPECT_TRUE(closed != 1 || back.empty()) << "Close gave 1: " << back;
            EXPECT_TRUE(faults.headingBegun() || !back.empty()) << "finished without a heading";
            return faults.happened();
        });
    }
}

TEST_F(RoadFaults, AReaderFailsRightOrReadsRight) {
    makeFile(fName, fBlocks);
    for (const int road : {0, 1, 2, kSeveral}) {
        SCOPED_TRACE("road " + std::to_string(road));
        forEachFault([&](const Fault& fault, std::uint64_t k) {
            Faults faults(fault, k);
            const Reader reader(fName, road);
            {
                const platform::faults::Installed installed(faults);
                bool open = false;
                expectRight(failureOf([&] { reader->readFilePosInfo(kRow0, false), open = true; }), faults, fault);
                for (const std::size_t pos : {0u, 2'900u, 100u, 1'999u, 3'000u}) {
                    if (!open) break;
                    const std::size_t size = std::min<std::size_t>(700, fRows.size() - pos);
                    Bytes bytes;
                    const std::string failure =
                        failureOf([&] { bytes = reader.readAt(kRow0 + static_cast<std::int64_t>(pos), 700); });
                    expectRight(failure, faults, fault);
                    EXPECT_TRUE(!failure.empty() || bytes == support::slice(fRows, pos, size)) << "at " << pos;
                }
                EXPECT_EQ(failureOf([&] { reader->Close(); }), "");
            }
            // All is well again: so is the stream.
            if (failureOf([&] { reader.readAt(kRow0, 1); }) != "") reader->readFilePosInfo(kRow0, false);
            EXPECT_EQ(reader.readAt(kRow0, 5'000), fRows);
            return faults.happened();
        });
    }
}

}  // namespace
}  // namespace core
