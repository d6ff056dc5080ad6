// The paths of a stream's bytes: from the buffer, through it, and past it.
#include "stream/multiThreadForFilestr.h"

#include <orva/filestr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

namespace {

constexpr std::int64_t kSector = 512;

constexpr std::int64_t sectorFloor(std::int64_t position) {
    return position / kSector * kSector;
}

template <std::size_t Size>
inline void copyFixed(unsigned char* to, const unsigned char* from) {
    std::memcpy(to, from, Size);
}

// Values and short records are the most frequent requests, and a call of memcpy takes longer than they do. The last 16
// bytes may lie over those before them.
inline void copyFew(void* dest, const void* source, std::uint32_t size) {
    constexpr std::uint32_t kStep = 16;
    auto* to = static_cast<unsigned char*>(dest);
    const auto* from = static_cast<const unsigned char*>(source);
    if (size == sizeof(std::uint64_t)) {
        copyFixed<sizeof(std::uint64_t)>(to, from);
    } else if (size - kStep <= 8 * kStep) {
        const std::uint32_t last = size - kStep;
        for (std::uint32_t at = 0; at < last; at += kStep) copyFixed<kStep>(to + at, from + at);
        copyFixed<kStep>(to + last, from + last);
    } else {
        std::memcpy(to, from, size);
    }
}

}  // namespace

ORVA_FileStream::Data::Data(bool encrypted) : bEncrypted(encrypted) {}

ORVA_FileStream::Data::~Data() {
    fpIOThread = nullptr;
    pRealFile = nullptr;
}

void ORVA_FileStream::Data::dropBuffer() {
    fBufferEnd = fBuffer;
    fpos = -1;
    bDirty = false;
}

std::uint32_t ORVA_FileStream::Read(void* buffer, std::uint32_t size) {
    const bool plainRoad = fPreReading != 0 && fMultiThreadReading <= 0;
    const unsigned char* source = plainRoad ? fData->servedFromBuffer(fStreamPos, size) : nullptr;
    if (source == nullptr) return readRequest(buffer, size);
    fStreamPos += size;
    copyFew(buffer, source, size);
    return size;
}

std::uint32_t ORVA_FileStream::readRequest(void* buffer, std::uint32_t size) {
    if (size == 0 || !DataReady()) return 0;
    ReadRequest request{static_cast<unsigned char*>(buffer), size, fStreamPos};
    if (fPreReading == 0) {
        fData->ReadDirect(request);
    } else if (fMultiThreadReading > 0 && fData->fpIOThread.IsValid() != 0) {
        fData->ReadThreaded(request);
    } else {
        fData->ReadFromBuffer(request);
        if (request._size != 0) fData->ReadUnbuffered(request);
        if (request._size != 0) fData->ReadBuffered(request);
    }
    return size - request._size;
}

std::uint32_t ORVA_FileStream::Write(const void* buffer, std::uint32_t size) {
    const bool inRange = fStreamPos <= std::numeric_limits<std::int64_t>::max() - size;
    unsigned char* target = inRange ? fData->takenByBuffer(fStreamPos, size) : nullptr;
    if (target == nullptr) return writeRequest(buffer, size);
    fData->fBufferEnd = std::max(fData->fBufferEnd, target + size);
    fData->bDirty = true;
    fStreamPos += size;
    copyFew(target, buffer, size);
    return size;
}

std::uint32_t ORVA_FileStream::writeRequest(const void* buffer, std::uint32_t size) {
    if (size == 0 || !DataReady()) return 0;
    if (fStreamPos > std::numeric_limits<std::int64_t>::max() - size) fData->pRealFile->refuseWrite(EFBIG);
    WriteRequest request{static_cast<const unsigned char*>(buffer), size, fStreamPos};
    fData->Write(request);
    return size - request._size;
}

void ORVA_FileStream::Data::ReadDirect(ReadRequest& request) {
    Flush();
    const std::uint32_t count = pRealFile->Read(request._buffer, request._size, request._pos);
    fIOPos = request._pos + count;
    bEndOfFile = count == 0;
    request.Advance(count);
}

void ORVA_FileStream::Data::ReadFromBuffer(ReadRequest& request) {
    if (!holds(request._pos)) return;
    const unsigned char* source = fBuffer + offsetOf(request._pos);
    const std::uint32_t count = std::min(request._size, static_cast<std::uint32_t>(fBufferEnd - source));
    std::memcpy(request._buffer, source, count);
    request.Advance(count);
}

void ORVA_FileStream::EnableMultiThreadReading() {
    fMultiThreadReading = 1;
    if (fData->fpIOThread.IsValid() != 0 || !DataReady()) return;
    RefCountPtr<multiThreadForFilestr> worker(new multiThreadForFilestr(&GetFile(), kBlockSize, true));
    worker->initThreads(true);
    worker->startThreads();
    fData->fpIOThread = worker;
}

void ORVA_FileStream::DisableMultiThreadReading() {
    fMultiThreadReading = 0;
}

// Every file read of this path goes through the worker, so a request of a block or more passes the buffer too.
void ORVA_FileStream::Data::ReadThreaded(ReadRequest& request) {
    copyThreaded(request);
    while (request._size > 0) {
        LoadBlock(request._pos);
        if (!holds(request._pos)) return;
        copyThreaded(request);
    }
}

void ORVA_FileStream::Data::copyThreaded(ReadRequest& request) {
    const std::uint32_t before = request._size;
    ReadFromBuffer(request);
    fIOPos += before - request._size;
}

void ORVA_FileStream::Data::LoadBlock(std::int64_t position) {
    Flush();
    dropBuffer();  // no old range stands if the request throws
    const std::int64_t block = sectorFloor(position);
    const std::uint32_t count = fpIOThread->getBlock(fBuffer, kBlockSize, block);
    fpos = block;
    fIOPos = block;
    fBufferEnd = fBuffer + count;
    bEndOfFile = count == 0;
}

void ORVA_FileStream::Data::ReadUnbuffered(ReadRequest& request) {
    if (request._size < kBlockSize) return;
    // Behind the buffered end of an enciphered file no block begins: the read through the buffer is left with the rest.
    if (pRealFile->IsEncrypted() && request._pos % CIPHER_BLOCK_SIZE != 0) return;
    // The read stops on a multiple of 512, so that the block read after it starts there.
    const std::int64_t reach =
        std::min<std::int64_t>(request._size, std::numeric_limits<std::int64_t>::max() - request._pos);
    const std::int64_t end = sectorFloor(request._pos + reach);
    if (end <= request._pos) return;
    Flush();
    const std::uint32_t count =
        pRealFile->Read(request._buffer, static_cast<std::uint32_t>(end - request._pos), request._pos);
    fIOPos = request._pos + count;
    bEndOfFile = count == 0;
    request.Advance(count);
}

void ORVA_FileStream::Data::ReadBuffered(ReadRequest& request) {
    while (request._size > 0) {
        const std::int64_t block = sectorFloor(request._pos);
        Flush();
        const std::uint32_t count = refill(block);
        if (count == 0) return;
        ReadFromBuffer(request);
        if (count < kBlockSize) return;
    }
}

// A read that fails half-way leaves bytes of two places in the buffer, so no range stands after it.
std::uint32_t ORVA_FileStream::Data::refill(std::int64_t block) {
    std::uint32_t count = 0;
    try {
        count = pRealFile->Read(fBuffer, kBlockSize, block);
    } catch (...) {
        dropBuffer();
        throw;
    }
    fIOPos = block + count;
    bEndOfFile = count == 0;
    fBufferEnd = fBuffer + count;
    fpos = block;
    bDirty = false;  // bytes that ClearAndReset dropped do not count
    return count;
}

void ORVA_FileStream::Data::Write(WriteRequest& request) {
    if (fBufferEnd != fBuffer && !writeIntoBuffer(request)) Flush();
    if (request._size >= kBlockSize) {
        writeDirect(request);
    } else if (request._size > 0) {
        startBuffer(request);
    }
}

bool ORVA_FileStream::Data::joinsClean() const {
    if (pRealFile->Appends()) return false;
    return !pRealFile->IsEncrypted() || fpos % CIPHER_BLOCK_SIZE == 0;
}

// True when the write began among the valid bytes or exactly at their end, so that the buffer never holds a gap. What
// is left of the request then goes on behind a full, flushed buffer.
bool ORVA_FileStream::Data::writeIntoBuffer(WriteRequest& request) {
    if (!bDirty && !joinsClean()) return false;
    if (request._pos < fpos || offsetOf(request._pos) > buffered() || offsetOf(request._pos) >= kBlockSize)
        return false;
    unsigned char* target = fBuffer + offsetOf(request._pos);
    const std::uint32_t count = std::min(request._size, static_cast<std::uint32_t>(fBuffer + kBlockSize - target));
    std::memcpy(target, request._buffer, count);
    fBufferEnd = std::max(fBufferEnd, target + count);
    bDirty = true;
    request.Advance(count);
    if (fBufferEnd == fBuffer + kBlockSize) Flush();
    return true;
}

// Past the buffer. Buffered bytes that the write covers are dropped first: they may neither be served to a later read
// nor written back over the new ones.
void ORVA_FileStream::Data::writeDirect(WriteRequest& request) {
    const std::int64_t begin = request._pos;
    const bool overlaps = begin < fpos + buffered() && fpos < begin + request._size;
    if (overlaps) dropBuffer();
    const std::uint32_t count = writeFile(request._buffer, request._size, begin);
    fIOPos = begin + count;
    request.Advance(count);
}

void ORVA_FileStream::Data::startBuffer(WriteRequest& request) {
    fpos = request._pos;
    std::memcpy(fBuffer, request._buffer, request._size);
    bDirty = true;
    fBufferEnd = fBuffer + request._size;
    request.Advance(request._size);
}

// A block read ahead that the write touches is out of date, also when the write fails half-way.
std::uint32_t ORVA_FileStream::Data::writeFile(const unsigned char* bytes, std::uint32_t size, std::int64_t position) {
    struct note {
        multiThreadForFilestr* worker;
        std::int64_t begin, end;
        ~note() {
            if (worker != nullptr) worker->noteWritten(begin, end);
        }
    };
    const note written{fpIOThread.get(), position, position + size};
    return pRealFile->Write(bytes, size, position);
}

void ORVA_FileStream::Data::Flush() {
    if (fBufferEnd == fBuffer || !bDirty || !pRealFile->IsOpen()) return;
    const std::uint32_t count = writeFile(fBuffer, buffered(), fpos);
    bDirty = false;
    fIOPos = fpos + count;
}
