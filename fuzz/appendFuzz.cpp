// Appending to a file: finished, abandoned, or interrupted and rolled back, by its side file as it was or as anybody
// may have changed it. What is refused changes nothing; after any other end the rows are the old ones with the new
// behind them, or just the old ones.
#include "fuzzTarget.h"
#include "part/keptTail.h"

using namespace fuzz;

namespace {

class Appending : Input {
public:
    using Input::Input;

    void run() {
        const int way = steps.ConsumeIntegralInRange(0, 3);
        auto stream = std::make_unique<zcmpsFilestr>(ORVA_FileStream(name.c_str(), "rb"));
        stream->setSafeAppend(way < 2 || steps.ConsumeBool());
        stream->setThreadCount(steps.ConsumeIntegralInRange(0, 15) == 0 ? 2 : 0);
        stream->setBlockLength(blockLength);
        stream->setCompressionLevel(steps.ConsumeIntegralInRange(1, zcmpsFilestr::bestCompressionLevel()));
        if (!soundFor([&] { stream->readFilePosInfo(kRow0, swap); })) return;
        const std::int64_t from = old.end - chooseCut();
        stream->Seek(from, ORVA_StrBaseIO::SeekFromStart);
        const bool begins = soundFor([&] { stream->setFileToAppend(from, swap); });
        require(begins == takesRows, "an append begins exactly where blocks and index allow it");
        if (!begins) return requireLeft(file, {});
        const Bytes added = addRows(*stream);
        if (way == 3) {
            require(stream->Close() == 1, "an append ends");
            return requireAdded(from, added);
        }
        const Bytes during = readBytes(name), side = readBytes(sideName);
        stream->abandon();
        stream.reset();  // and with it the writer's lock
        requireRestored();
        if (way < 2) rollBack(during, way == 1 ? changed(side) : side, way == 1);
    }

private:
    // How many rows of a short last block are cut.
    std::int64_t chooseCut() {
        const auto number = steps.ConsumeIntegral<std::uint16_t>();
        if (!lastIsShort || number % 2 == 0) return 0;
        return number % (std::int64_t{old.blocks.back().record.orginalSize} + 1);
    }

    Bytes addRows(zcmpsFilestr& stream) {
        Bytes added;
        for (int left = steps.ConsumeIntegralInRange(0, 7); left != 0; --left) {
            const auto size = steps.ConsumeIntegralInRange<std::uint32_t>(0, 2 * kBlockSize);
            const Bytes rows = SeededBytes(steps.ConsumeIntegral<std::uint8_t>()).rows(size);
            require(stream.Write(rows.data(), size) == size, "rows are taken");
            added = std::move(added) + rows;
            if (size % 3 == 0) stream.Flush();
        }
        return added;
    }

    // One number in it is another, or it ends there; mostly it is not the checksum that tells.
    Bytes changed(Bytes side) {
        const auto at = steps.ConsumeIntegralInRange<std::size_t>(0, side.size() - sizeof(std::int64_t));
        const auto number = steps.ConsumeIntegral<std::int64_t>();
        std::memcpy(side.data() + at, &number, sizeof number);
        if (steps.ConsumeIntegralInRange(0, 7) == 0) side.resize(std::max(at, sizeof number));
        const std::size_t summed = side.size() - sizeof(std::uint64_t);
        const std::uint64_t sum = crc32_z(0, side.data(), summed);
        if (steps.ConsumeIntegralInRange(0, 7) != 0) std::memcpy(side.data() + summed, &sum, sizeof sum);
        return side;
    }
    void rollBack(const Bytes& during, const Bytes& side, bool isChanged) const {
        writeBytes(name, during);
        writeBytes(sideName, side);
        auto result = orva::rollBackResult::nothingToDo;
        const bool believed = soundFor([&] { result = orva::rollBack(name); });
        const bool ends = result == orva::rollBackResult::rolledBack || result == orva::rollBackResult::sideFileStale;
        require(isChanged || ends, "an interrupted append is rolled back, or had begun nothing");
        // One that is whole as it stands may be longer: the copy can hold a block's end without its beginning.
        if (result == orva::rollBackResult::rolledBack && !isChanged) return requireRestored();
        if (!believed) return requireLeft(during, side);
        require(result != orva::rollBackResult::nothingToDo, "a side file is something to do");
        if (result == orva::rollBackResult::sideFileStale) return requireLeft(during, {});
        require(!std::filesystem::exists(sideName), "a side file that was served goes");
    }

    void requireLeft(const Bytes& data, const Bytes& side) const {
        require(readBytes(name) == data, "what is refused, or had written nothing, changes nothing");
        require(readBytes(sideName) == side, "a side file stays exactly where it is refused");
    }
    // But for bytes in a gap before the index and behind it, which mean nothing.
    void requireRestored() const {
        const Bytes now = readBytes(name);
        const auto same = [&](auto at, auto size) { return slice(now, at, size) == slice(file, at, size); };
        require(now.size() == file.size(), "the file has its old length");
        require(same(0, old.blocksEnd), "heading and blocks are the old ones");
        require(same(old.layout.heading._indexPos, old.layout.heading._size), "the index is the old one");
        require(!std::filesystem::exists(sideName), "no side file is left");
    }
    void requireAdded(std::int64_t from, const Bytes& added) const {
        const Bytes now = readBytes(name);
        const Part part(now, kRow0, false);
        require(slice(now, 0, kRow0) == slice(file, 0, kRow0), "the dictionary part stays");
        require(!std::filesystem::exists(sideName), "no side file is left");
        require(part.contiguous && (part.sound || !old.sound), "the file is a finished one, with no further damage");
        require(part.end == from + std::ssize(added), "the rows end where the added ones do");
        require(part.read(from, std::ssize(added)) == added, "the rows added are there");
        require(part.read(kRow0, from - kRow0) == old.read(kRow0, from - kRow0), "the old rows are there");
    }

    const std::string sideName = orva::sideFileName(name);
    const Part old{file, kRow0, swap};
    const std::int32_t blockLength = steps.ConsumeIntegralInRange<std::int32_t>(kShortestBlockLength, kBlockSize);
    const bool lastIsShort = !old.blocks.empty() && old.blocks.back().record.orginalSize < blockLength;
    const bool takesRows = old.contiguous && (!lastIsShort || old.blocks.back().rows);
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::filesystem::remove(orva::sideFileName(pathOf("file")));
    Appending(data, size).run();
    return 0;
}
