// Appending to a file: finished, abandoned, or interrupted and rolled back. A file that cannot take an append is left
// alone; after any other end the rows are the old ones with the new behind them, or just the old ones.
#include "appendJournal.h"
#include "fuzzTarget.h"

namespace {

using fuzz::Bytes;
using fuzz::require;
using fuzz::soundFor;

class Appending {
public:
    Appending(fuzz::Input& input, bool swap) : fOld(input.file), fSwap(swap), fReference(fOld, fuzz::kRow0, swap) {
        fuzz::putFile(fName, fOld);
        std::filesystem::remove(fSide);
        run(input.steps);
    }

private:
    void run(FuzzedDataProvider& steps) {
        auto held = std::make_unique<zcmpsFilestr>(ORVA_FileStream(fName.c_str(), "rb"));
        zcmpsFilestr& stream = *held;
        const int end = steps.ConsumeIntegralInRange(0, 3);
        stream.setSafeAppend(end == 0 || steps.ConsumeBool());
        stream.setThreadCount(steps.ConsumeIntegralInRange(0, 15) == 0 ? 2 : 0);
        if (!soundFor([&] { stream.readFilePosInfo(fuzz::kRow0, fSwap); })) return;
        const std::int64_t from = chooseEnd(steps);
        stream.Seek(from, ORVA_StrBaseIO::SeekFromStart);
        const bool begins = soundFor([&] { stream.setFileToAppend(from, fSwap); });
        require(begins == canTakeRows(), "an append begins exactly where blocks and index allow it");
        if (!begins) return requireUntouched();
        addRows(stream, steps);
        if (end == 0) {
            interrupt(std::move(held));
        } else if (end == 1) {
            stream.abandon();
            requireRestored();
        } else {
            require(stream.Close() == 1, "an append ends");
            requireAdded(from);
        }
    }

    // The end of the rows, or a place in a short last block, where the rows are cut.
    std::int64_t chooseEnd(FuzzedDataProvider& steps) const {
        const auto cut = steps.ConsumeIntegral<std::uint16_t>();
        const bool canCut = !fReference.blocks().empty() && !lastIsFull();
        if (!canCut || cut % 2 == 0) return fReference.end();
        return fReference.end() - cut % (std::int64_t{last().record.orginalSize} + 1);
    }
    const fuzz::ReferencePart::Block& last() const { return fReference.blocks().back(); }
    bool lastIsFull() const { return last().record.orginalSize == static_cast<std::int32_t>(kBlockSize); }
    bool canTakeRows() const {
        return fReference.contiguous() &&
               (fReference.blocks().empty() || lastIsFull() || fReference.blocks().back().rows.has_value());
    }

    void addRows(zcmpsFilestr& stream, FuzzedDataProvider& steps) {
        while (steps.remaining_bytes() > 1 && fAdded.size() < 4 * kBlockSize) {
            const auto size = steps.ConsumeIntegralInRange<std::size_t>(0, 2 * kBlockSize);
            const Bytes rows = fuzz::rowsOf(size, steps.ConsumeIntegral<std::uint8_t>());
            require(stream.Write(rows.data(), static_cast<std::uint32_t>(size)) == size, "rows are taken");
            fAdded.insert(fAdded.end(), rows.begin(), rows.end());
            if (size % 3 == 0) stream.Flush();
        }
    }

    void interrupt(std::unique_ptr<zcmpsFilestr> stream) {
        const Bytes during = fuzz::getFile(fName);
        const Bytes side = fuzz::getFile(fSide);
        stream->abandon();
        stream.reset();  // and with it the writer's lock
        requireRestored();
        fuzz::putFile(fName, during);
        fuzz::putFile(fSide, side);
        orva::rollBackResult result{};
        require(soundFor([&] { result = orva::rollBack(fName); }), "a side file is believed");
        require(result == orva::rollBackResult::rolledBack, "an interrupted append is rolled back");
        requireRestored();
    }

    void requireUntouched() const {
        require(fuzz::getFile(fName) == fOld, "a file that takes no append is left alone");
        require(!std::filesystem::exists(fSide), "no side file is left");
    }
    // But for bytes in a gap before the index and behind it, which mean nothing.
    void requireRestored() const {
        const Bytes now = fuzz::getFile(fName);
        require(now.size() == fOld.size(), "the file has its old length");
        const compressionHeading& heading = fReference.heading();
        const std::int64_t blocks = fReference.blocks().empty()
                                        ? fuzz::kRow0 + kHeadingSize
                                        : last().record.translatePos + last().record.translateSize;
        require(fuzz::slice(now, 0, blocks) == fuzz::slice(fOld, 0, blocks), "heading and blocks are the old ones");
        require(
            fuzz::slice(now, heading._indexPos, heading._size) == fuzz::slice(fOld, heading._indexPos, heading._size),
            "the index is the old one");
        require(!std::filesystem::exists(fSide), "no side file is left");
    }
    void requireAdded(std::int64_t from) const {
        const Bytes now = fuzz::getFile(fName);
        require(fuzz::slice(now, 0, fuzz::kRow0) == fuzz::slice(fOld, 0, fuzz::kRow0), "the dictionary part stays");
        const fuzz::ReferencePart part(now, fuzz::kRow0, false);
        require(part.opens() && part.contiguous(), "the file is a finished one");
        require(part.sound() || !fReference.sound(), "no block is damaged by an append");
        require(part.end() == from + std::ssize(fAdded), "the rows end where the added ones do");
        require(part.read(from, fAdded.size()) == fAdded, "the rows added are there");
        if (!fReference.sound()) return;
        const auto kept = static_cast<std::size_t>(from - fuzz::kRow0);
        require(part.read(fuzz::kRow0, kept) == fReference.read(fuzz::kRow0, kept), "the old rows are there");
        require(!std::filesystem::exists(fSide), "no side file is left");
    }

    const std::string fName = fuzz::pathOf("file");
    const std::string fSide = orva::sideFileName(fName);
    const Bytes fOld;
    const bool fSwap;
    const fuzz::ReferencePart fReference;
    Bytes fAdded;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > fuzz::kLongestInput) return 0;
    fuzz::Input input(data, size);
    const bool swap = input.steps.ConsumeBool();
    const Appending appending(input, swap);
    return 0;
}
