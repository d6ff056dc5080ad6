#include "part/keptTail.h"

#include "file/fileCodes.h"
#include "file/namedFile.h"
#include "format/blockTransfer.h"
#include "format/indexTransfer.h"

#include <orva/compressedLayout.h>
#include <orva/errors.h>
#include <orva/errtext.h>
#include <orva/platform.h>

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace orva {

namespace {

constexpr std::int64_t kSideFileMark = 0x3150504156524f2e;  // ".ORVAPP1" on disk; another byte order reads otherwise
constexpr std::int64_t kIdentityBytes = 4096;
constexpr std::int64_t kOverheadBytes = 4096;  // more than what stands between the pieces

struct sideFileHead {
    std::int64_t mark;
    std::int64_t row0Pos;
    std::int64_t fileSize;
    std::int64_t untouchedEnd;
    std::int64_t identity;
    std::int64_t pieceCount;
};

struct pieceHead {
    std::int64_t place;
    std::int64_t size;
};

std::int64_t checksum(const void* bytes, std::size_t size) {
    return static_cast<std::int64_t>(crc32_z(0, static_cast<const unsigned char*>(bytes), size));
}

void addSpan(std::vector<unsigned char>& sample, ORVA_File& file, std::int64_t begin, std::int64_t end) {
    std::vector<unsigned char> bytes(static_cast<std::size_t>(std::max<std::int64_t>(end - begin, 0)));
    if (!readAll(file, bytes.data(), bytes.size(), begin)) bytes.clear();
    sample.insert(sample.end(), bytes.begin(), bytes.end());
}

// Bytes that the append leaves alone: the beginning of the dictionary part, and the end of the old blocks.
std::int64_t identityOf(ORVA_File& file, const keptTail& tail) {
    std::vector<unsigned char> sample;
    addSpan(sample, file, 0, std::min(tail.row0Pos, kIdentityBytes));
    addSpan(sample, file, std::max(tail.row0Pos + kHeadingSize, tail.untouchedEnd - kIdentityBytes), tail.untouchedEnd);
    return checksum(sample.data(), sample.size());
}

void append(std::vector<unsigned char>& bytes, const void* from, std::size_t size) {
    const auto* begin = static_cast<const unsigned char*>(from);
    bytes.insert(bytes.end(), begin, begin + size);
}

std::vector<unsigned char> serialize(const keptTail& tail, std::int64_t identity) {
    std::vector<unsigned char> bytes;
    const sideFileHead head{kSideFileMark,     tail.row0Pos, tail.fileSize,
                            tail.untouchedEnd, identity,     static_cast<std::int64_t>(tail.pieces.size())};
    append(bytes, &head, sizeof head);
    for (const keptPiece& piece : tail.pieces) {
        const pieceHead own{piece.place, static_cast<std::int64_t>(piece.bytes.size())};
        append(bytes, &own, sizeof own);
        append(bytes, piece.bytes.data(), piece.bytes.size());
    }
    const std::int64_t sum = checksum(bytes.data(), bytes.size());
    append(bytes, &sum, sizeof sum);
    return bytes;
}

// Takes values from the front of the side file's bytes; false once they are used up.
class sideFileReader {
public:
    explicit sideFileReader(const std::vector<unsigned char>& bytes) : fAt(bytes.data()), fLeft(bytes.size()) {}
    bool take(void* to, std::size_t size) {
        if (size > fLeft) return false;
        if (size != 0) std::memcpy(to, fAt, size);
        fAt += size;
        fLeft -= size;
        return true;
    }
    std::size_t left() const { return fLeft; }

private:
    const unsigned char* fAt;
    std::size_t fLeft;
};

// A right checksum does not make the numbers true: they say which bytes of the data file are read and written.
bool placesCanBeTrue(const sideFileHead& head) {
    return head.row0Pos > 0 && head.untouchedEnd >= head.row0Pos && head.untouchedEnd - head.row0Pos >= kHeadingSize &&
           head.untouchedEnd <= head.fileSize;
}

bool takePiece(sideFileReader& reader, keptTail& tail) {
    pieceHead own{};
    if (!reader.take(&own, sizeof own)) return false;
    if (own.size < 0 || static_cast<std::uint64_t>(own.size) > reader.left()) return false;
    if (own.place < 0 || own.place > tail.fileSize - own.size) return false;
    tail.pieces.push_back({own.place, std::vector<unsigned char>(static_cast<std::size_t>(own.size))});
    return reader.take(tail.pieces.back().bytes.data(), static_cast<std::size_t>(own.size));
}

// False unless the bytes are a whole side file with its checksum right.
bool parse(const std::vector<unsigned char>& bytes, keptTail& tail, std::int64_t& identity) {
    std::int64_t sum = 0;
    sideFileHead head{};
    if (bytes.size() < sizeof head + sizeof sum) return false;
    const std::size_t summed = bytes.size() - sizeof sum;
    std::memcpy(&sum, bytes.data() + summed, sizeof sum);
    if (sum != checksum(bytes.data(), summed)) return false;
    sideFileReader reader(bytes);
    reader.take(&head, sizeof head);
    if (head.mark != kSideFileMark || !placesCanBeTrue(head)) return false;
    tail = {head.row0Pos, head.fileSize, head.untouchedEnd, {}};
    identity = head.identity;
    for (std::int64_t i = 0; i < head.pieceCount; ++i) {
        if (!takePiece(reader, tail)) return false;
    }
    return reader.left() == sizeof sum;
}

// A name too long for the system is one that no side file can have.
bool isAbsence(int error) {
    return error == ENOENT || error == ENAMETOOLONG;
}

bool unlinkIfThere(const std::string& name) {
    if (platform::removeFile(name.c_str()) == 0) return true;
    if (!isAbsence(errno)) throwFileError(errno, kWriteFailed, name);
    return false;
}

}  // namespace

void keepPiece(keptTail& tail, ORVA_File& file, std::int64_t place, std::uint32_t size) {
    keptPiece piece{place, std::vector<unsigned char>(size)};
    if (!readAll(file, piece.bytes.data(), size, place)) {
        throw DamagedFileError(file.GetNameStr().GetGeneric(), "ret == size",
                               "it ends before offset " + std::to_string(place + size));
    }
    tail.pieces.push_back(std::move(piece));
}

void restoreTail(ORVA_File& file, const keptTail& tail) {
    if (lengthOf(file) > tail.fileSize) file.Truncate(tail.fileSize);
    for (const keptPiece& piece : tail.pieces) {
        writeAll(file, piece.bytes.data(), piece.bytes.size(), piece.place);
    }
}

std::string sideFileName(const std::string& dataName) {
    char target[platform::kLongestName + 1];
    return (platform::linkTarget(dataName.c_str(), target) ? target : dataName) + ".orva-undo";
}

void refuseSideFile(const std::string& dataName) {
    const std::string name = sideFileName(dataName);
    ORVA_File side;
    if (!openNamed(side, name, "rb")) {
        const int error = side.OpenErrno();
        if (isAbsence(error)) return;
        const bool isThere = error == EACCES || error == EISDIR || error == ELOOP || error == EPERM;
        if (!isThere) throwFileError(error, kWriteFailed, name);
    }
    throw FileError(EEXIST, "datasrc.err", kWriteFailed, name.c_str())
        .withOutcome("an append to \"" + dataName + "\" was interrupted and has to be rolled back first");
}

void writeSideFile(ORVA_File& file, const keptTail& tail) {
    const std::string name = sideFileName(file.GetNameStr().GetGeneric());
    ORVA_File side;
    try {
        openOrThrow(side, name, "w+b", kWriteFailed);
        const std::vector<unsigned char> bytes = serialize(tail, identityOf(file, tail));
        writeAll(side, bytes.data(), bytes.size(), 0);
        side.Sync();
        side.Close();
        syncName(name);
    } catch (...) {
        platform::removeFile(name.c_str());
        throw;
    }
}

void removeSideFile(const std::string& dataName) {
    const std::string name = sideFileName(dataName);
    unlinkIfThere(name);
    syncName(name);
}

void dropSideFile(const std::string& dataName) {
    const std::string name = sideFileName(dataName);
    if (unlinkIfThere(name)) syncName(name);
}

sideFileState readSideFile(const std::string& dataName, ORVA_File& file, keptTail& tail) {
    const std::string name = sideFileName(dataName);
    ORVA_File side;
    if (!openNamed(side, name, "rb")) {
        if (isAbsence(side.OpenErrno())) return sideFileState::absent;
        throwFileError(side.OpenErrno(), kReadFailed, name);
    }
    // It holds pieces of a file that an append only ever lengthens.
    if (lengthOf(side) > lengthOf(file) + kOverheadBytes) {
        throw DamagedFileError(name, "size", "it is longer than \"" + dataName + "\" could make it");
    }
    std::vector<unsigned char> bytes(static_cast<std::size_t>(lengthOf(side)));
    std::int64_t identity = 0;
    if (!readAll(side, bytes.data(), bytes.size(), 0)) return sideFileState::unfinished;
    if (!parse(bytes, tail, identity)) return sideFileState::unfinished;
    if (identity != identityOf(file, tail)) {
        throw DamagedFileError(name, "identity",
                               "it does not belong to \"" + dataName + "\" as that is now; nothing was changed");
    }
    return sideFileState::whole;
}

}  // namespace orva
