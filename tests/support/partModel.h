// Random work on the part of a file, compared with the second reader: for tests on files that they make, for fuzz
// targets on any. Needs no test framework.
#pragma once

#include "support/secondReader.h"

namespace support {

// True if `body` returned, false if it threw `Damage`. Other exceptions pass.
template <class Damage = DamagedFileError>
bool soundFor(auto body) {
    try {
        body();
        return true;
    } catch (const Damage&) {
        return false;
    }
}

// Compares the rows that `read` returns with the second reader's. Returns their number, 0 if they meet damage.
template <class Damage = DamagedFileError>
std::ptrdiff_t readAsTheOther(const secondReader& other, std::int64_t pos, std::size_t size, auto read) {
    Bytes rows;
    const bool sound = soundFor<Damage>([&] { rows = read(); });
    const std::optional<Bytes> expected = other.read(pos, static_cast<std::int64_t>(size));
    require(sound == expected.has_value(), "a read fails exactly where it meets damage");
    require(!sound || rows == *expected, "a read gives the rows that the file holds");
    return std::ssize(rows);
}

// Mostly small, sometimes around the sizes at which a path begins or ends.
inline std::size_t anySize(Choices& any) {
    if (any.oneIn(400)) return static_cast<std::size_t>(kBlockSize + any.between(-513, 513));
    if (any.oneIn(20)) return static_cast<std::size_t>(any.between(509, 515));
    return any.below(any.oneIn(5) ? 20'000 : 200);
}
inline Bytes someRows(Choices& any, std::size_t size) {
    static const Bytes pool = SeededBytes(5).rows(3 * std::size_t{kBlockSize} + 20'000);
    return slice(pool, any.below(pool.size() - size), size);
}

// The rows given to a writer, and the blocks that it must make of them.
struct Given {
    void choose(zcmpsFilestr& stream, Choices& any) {
        if (any.oneIn(3)) stream.setCompressionLevel(any.oneIn(2) ? 2 : zcmpsFilestr::bestCompressionLevel());
        if (any.oneIn(2)) return;
        length = any.oneIn(3) ? kShortestBlockLength : any.between(kShortestBlockLength, kBlockSize);
        stream.setBlockLength(length);
    }
    // A block that is full, or was flushed, takes no more.
    void take(const Bytes& piece) {
        rows = std::move(rows) + piece;
        for (std::int64_t size = std::ssize(piece), taken = 0; size > 0; size -= taken) {
            if (!open) sizes.push_back(0);
            taken = std::min(size, length - sizes.back());
            sizes.back() += static_cast<std::int32_t>(taken);
            open = sizes.back() < length;
        }
    }
    void writeSome(zcmpsFilestr& stream, Choices& any) {
        const std::int64_t begin = stream.Tell() - std::ssize(rows);
        for (std::uint64_t i = any.below(30); i > 0; --i) {
            const auto blocks = static_cast<std::size_t>(any.between(1, 2) * length + any.between(-1, 1));
            const bool wholeOnes = any.oneIn(40) && blocks < 3 * std::size_t{kBlockSize};
            const Bytes piece = someRows(any, any.oneIn(9) ? 0 : wholeOnes ? blocks : anySize(any));
            write(stream, piece);
            take(piece);
            if (any.oneIn(3)) require(stream.Flush() == 1, "a writer flushes"), open = false;
            require(stream.Tell() == begin + std::ssize(rows), "the position is behind the rows");
        }
    }
    // Leaves it to the destructor now and then.
    static void finish(std::unique_ptr<zcmpsFilestr> stream, Choices& any) {
        const bool left = any.oneIn(3);
        require(left || (stream->Close() == 1 && stream->Flush() == 1 && stream->Close() == 1), "a writer ends");
    }

    Bytes rows{};
    std::vector<std::int32_t> sizes{};
    std::int64_t length = kBlockSize;  // bytes of a full block
    bool open = false;                 // the last block takes more
};

// A model of the file as it is at construction.
struct PartModel {
    // Reads by a stream that has opened the file. All but those with one worker may open it anew.
    void read(zcmpsFilestr& stream, bool opensAnew) {
        std::size_t size = anySize(any);
        const std::uint64_t kind = any.below(12);
        if (kind < 4) at = any.between(row0 - 3, std::min(old.end, INT64_MAX - 3) + 3);
        if (kind == 4 && !old.blocks.empty()) {
            const filePosRecord& block = old.layout.records[any.below(old.blocks.size())];
            at = block.orginalPos;
            size = std::min(static_cast<std::size_t>(block.orginalSize), std::size_t{kBlockSize}) * (1 + any.below(2));
        }
        if (kind == 5) size = 2 * std::size_t{kBlockSize};
        if (kind == 6) stream.setBlockCache(static_cast<std::int32_t>(any.below(4)));
        if (kind == 7 && opensAnew) stream.readFilePosInfo(row0, swap);
        if (kind == 8) require(stream.Close() == 1, "a reader closes, and reads on");
        if (kind == 9 && any.oneIn(4)) at = any.oneIn(2) ? INT64_MAX - 1 : INT64_MIN;
        stream.Seek(at, ORVA_StrBaseIO::SeekFromStart);
        at += readAsTheOther(old, at, size, [&] { return support::read(stream, size); });
        // Damage leaves it after the rows delivered before.
        at = std::max(at, stream.Tell());
        require(stream.Tell() == at, "the position moves by what was read");
    }

    // Reads by a stream that has opened the file before an append.
    void readBesideIt(zcmpsFilestr& stream) {
        const std::int64_t from = any.between(row0, old.end);
        Bytes rows(anySize(any));
        stream.Seek(from, ORVA_StrBaseIO::SeekFromStart);
        const std::int64_t kept = old.blocks.empty() ? row0 : old.layout.records.back().orginalPos;
        const bool isKept = from + std::ssize(rows) <= kept;
        const bool same = soundFor<FileChangedError>([&] { rows.resize(stream.Read(rows.data(), sizeOf(rows))); });
        require(same || !isKept, "what an append does not write over stays readable");
        require(!same || old.read(from, std::ssize(rows)) == rows, "the old rows, or word that they are gone");
    }

    // Appends by a stream, which may have threads. The append is finished, abandoned, or interrupted and rolled back
    // with its side file as it was or changed in any way.
    void append(std::unique_ptr<zcmpsFilestr> stream, bool hasWorker) {
        const std::uint64_t way = any.below(4);
        Given given;
        given.choose(*stream, any);
        stream->setSafeAppend(way < 2 || any.oneIn(3));
        if (!soundFor([&] { stream->readFilePosInfo(row0, swap); })) return;
        const filePosRecord* const last = old.blocks.empty() ? nullptr : &old.layout.records.back();
        given.open = last != nullptr && last->orginalSize < given.length;
        const bool takesRows = old.contiguous && (!given.open || old.blocks.back());
        given.sizes = old.layout.sizes;
        // A short last block is reopened, cut or not.
        std::int64_t from = old.end;
        if (given.open && any.oneIn(2)) {
            from -= any.between(0, last->orginalSize);
            given.sizes.back() = static_cast<std::int32_t>(from - last->orginalPos);
            if (given.sizes.back() == 0) given.sizes.pop_back(), given.open = false;
        }
        stream->Seek(from, ORVA_StrBaseIO::SeekFromStart);
        const bool begins = soundFor([&] { stream->setFileToAppend(from, swap); });
        require(begins == takesRows, "an append begins exactly where blocks and index allow it");
        if (!begins) return requireLeft(file, {});
        given.writeSome(*stream, any);
        if (way == 3) {
            Given::finish(std::move(stream), any);
            return requireAdded(from, given);
        }
        const Bytes during = readBytes(name), side = readBytes(sideName);
        giveUp(*stream, hasWorker);
        stream.reset();  // and releases the writer's lock
        requireRestored();
        if (way == 0) rollBack(during, side, false);
        for (int i = 0; way == 1 && i < 8; ++i) rollBack(during, changed(side), true);
        if (way < 2) writeBytes(name, file), std::filesystem::remove(sideName);
    }

    // Whatever else an appending stream is asked to do, it first restores the rows.
    void giveUp(zcmpsFilestr& stream, bool hasWorker) {
        const bool reads = !hasWorker && any.oneIn(2);
        if (!hasWorker && !reads && any.oneIn(2)) stream.setRow0Pos(row0);
        if (reads) stream.readFilePosInfo(row0, swap), at = row0, read(stream, false);
        stream.abandon();
        require(stream.Flush() == 1 && stream.Close() == (reads ? 1 : 0), "what was abandoned is not finished");
    }
    // Replaces one number by another of any magnitude, or ends the file there; mostly with a right checksum.
    Bytes changed(Bytes side) {
        const auto place = any.below(side.size() - sizeof(std::int64_t) + 1);
        side = with(std::move(side), place, bytesOf(any.number(UINT64_MAX) >> any.below(64)));
        if (any.oneIn(8)) side.resize(std::max(place, sizeof(std::uint64_t)));
        return any.oneIn(8) ? side : resummed(side);
    }
    static Bytes resummed(const Bytes& side) { return summed(slice(side, 0, side.size() - sizeof(std::uint64_t))); }
    void rollBack(const Bytes& during, const Bytes& side, bool isChanged) const {
        writeBytes(name, during);
        writeBytes(sideName, side);
        auto result = orva::rollBackResult::nothingToDo;
        const bool believed = soundFor([&] { result = orva::rollBack(name); });
        const bool ends = result == orva::rollBackResult::rolledBack || result == orva::rollBackResult::sideFileStale;
        require(isChanged || ends, "an interrupted append is rolled back, or had begun nothing");
        // A file that is sound as it stands may be longer: the copy can hold the end of a block without its beginning.
        if (result == orva::rollBackResult::rolledBack && !isChanged) return requireRestored();
        if (!believed) return requireLeft(during, side);
        require(resummed(side) == side || during == file, "a torn side file tells nothing of what an append changed");
        require(result != orva::rollBackResult::nothingToDo, "a side file is something to do");
        if (result == orva::rollBackResult::sideFileStale) return requireLeft(during, {});
        require(!std::filesystem::exists(sideName), "a side file that was served goes");
    }

    void requireLeft(const Bytes& data, const Bytes& side) const {
        require(readBytes(name) == data, "what is refused, or had written nothing, changes nothing");
        require(readBytes(sideName) == side, "a side file stays exactly where it is refused");
    }
    // Except for bytes in a gap before the index and after it, which have no meaning.
    void requireRestored() const {
        const Bytes now = readBytes(name);
        const auto same = [&](auto begin, auto size) { return slice(now, begin, size) == slice(file, begin, size); };
        require(now.size() == file.size(), "the file has its old length");
        require(same(0, old.blocksEnd), "heading and blocks are the old ones");
        require(same(old.layout.heading._indexPos, old.layout.heading._size), "the index is the old one");
        require(!std::filesystem::exists(sideName), "no side file is left");
    }
    void requireAdded(std::int64_t from, const Given& given) const {
        const Bytes now = readBytes(name);
        const secondReader part(now, row0, false, inflates);
        require(slice(now, 0, row0) == slice(file, 0, row0), "the dictionary part stays");
        require(!std::filesystem::exists(sideName), "no side file is left");
        require(ORVA_FileStream(name.c_str(), "r+b").Good() == 1, "the writer's lock is gone");
        require(part.contiguous && (part.sound || !old.sound), "the file is a finished one, with no further damage");
        require(part.layout.sizes == given.sizes, "the blocks are those that were written");
        require(part.read(from, std::ssize(given.rows) + 1) == given.rows, "the rows added are there, and end it");
        require(part.read(row0, from - row0) == old.read(row0, from - row0), "the old rows are there");
    }

    const std::string name;
    const std::int64_t row0;
    const bool swap;
    Choices& any;
    const secondReader::Inflate inflates = byZlib;
    const std::string sideName = orva::sideFileName(name);
    const Bytes file = readBytes(name);
    const secondReader old{file, row0, swap, inflates};
    std::int64_t at = row0;  // the stream's position
};

}  // namespace support
