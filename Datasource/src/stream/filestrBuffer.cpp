// The paths of a stream's bytes: from the buffer, through it, and past it.
#include "stream/multiThreadForFilestr.h"

#include <orva/errtext.h>
#include <orva/filestr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

namespace {

template <std::size_t Size>
inline void copyFixed(unsigned char* to, const unsigned char* from) {
    std::memcpy(to, from, Size);
}

constexpr std::uint32_t kStep = 16;

// Values and short records are the most frequent requests, and a call of memcpy takes longer than copying them here.
constexpr bool isFewBytes(std::uint32_t size) {
    return size == sizeof(std::uint64_t) || size - kStep <= 8 * kStep;
}

// The last 16 bytes may overlap those before them.
inline void copyFew(void* dest, const void* source, std::uint32_t size) {
    auto* to = static_cast<unsigned char*>(dest);
    const auto* from = static_cast<const unsigned char*>(source);
    if (size == sizeof(std::uint64_t)) return copyFixed<sizeof(std::uint64_t)>(to, from);
    const std::uint32_t last = size - kStep;
    for (std::uint32_t at = 0; at < last; at += kStep) copyFixed<kStep>(to + at, from + at);
    copyFixed<kStep>(to + last, from + last);
}

}  // namespace

ORVA_FileStream::Data::Data(bool encrypted) : bEncrypted(encrypted) {}

ORVA_FileStream::Data::~Data() = default;

void ORVA_FileStream::Data::dropBuffer() {
    fBufferEnd = fBuffer;
    fpos = -1;
    markClean();
}

void ORVA_FileStream::Data::markClean() {
    bDirty = false;
    fDirtyBegin = -1;
    fDirtyEnd = -1;
}

std::uint32_t ORVA_FileStream::Read(void* buffer, std::uint32_t size) {
    const bool fastPath = isFewBytes(size) && fMultiThreadReading < fPreReading;  // each is 0 or 1
    const unsigned char* source = fastPath ? fData->servedFromBuffer(fStreamPos, size) : nullptr;
    if (source == nullptr) return readRequest(buffer, size);
    fStreamPos += size;
    copyFew(buffer, source, size);
    return size;
}

std::uint32_t ORVA_FileStream::readRequest(void* buffer, std::uint32_t size) {
    if (size == 0 || !DataReady()) return 0;
    if (fData->holdsAppended()) fData->Flush();
    ReadRequest request{static_cast<unsigned char*>(buffer), size, fStreamPos};
    if (fPreReading == 0) {
        fData->ReadDirect(request, size);
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
    const bool inRange = isFewBytes(size) && fStreamPos <= std::numeric_limits<std::int64_t>::max() - size;
    unsigned char* target = inRange ? fData->takenByBuffer(fStreamPos, size) : nullptr;
    if (target == nullptr) return writeRequest(buffer, size);
    fStreamPos += size;
    fData->fDirtyEnd = fStreamPos;
    fData->fBufferEnd = std::max(fData->fBufferEnd, target + size);
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

// Reads past the buffer, which stays as it is.
void ORVA_FileStream::Data::ReadDirect(ReadRequest& request, std::uint32_t size) {
    Flush();
    const std::uint32_t count = pRealFile->Read(request._buffer, size, request._pos);
    fIOPos = request._pos + count;
    bEndOfFile = count == 0;
    request.Advance(count);
}

std::uint32_t ORVA_FileStream::Data::ReadFromBuffer(ReadRequest& request) {
    if (!holds(request._pos)) return 0;
    const unsigned char* source = fBuffer + offsetOf(request._pos);
    const std::uint32_t count = std::min(request._size, static_cast<std::uint32_t>(fBufferEnd - source));
    std::memcpy(request._buffer, source, count);
    return request.Advance(count);
}

void ORVA_FileStream::EnableMultiThreadReading() {
    fMultiThreadReading = 1;
    if (fData->fpIOThread.IsValid() != 0 || !DataReady()) return;
    RefCountPtr<multiThreadForFilestr> worker(new multiThreadForFilestr(&GetFile(), kBlockSize, true));
    startWorker(*worker, true);
    fData->fpIOThread = worker;
}

void ORVA_FileStream::DisableMultiThreadReading() {
    fMultiThreadReading = 0;
}

// Every file read of this path goes through the worker, so even a request of a block or more goes through the buffer.
void ORVA_FileStream::Data::ReadThreaded(ReadRequest& request) {
    ReadFromBuffer(request);
    while (request._size > 0) {
        LoadBlock(request._pos);
        if (ReadFromBuffer(request) == 0) return;
        fIOPos = request._pos;
    }
}

void ORVA_FileStream::Data::LoadBlock(std::int64_t position) {
    emptyBuffer();
    const std::int64_t block = pRealFile->readPlace(position);
    placeBlock(block, fpIOThread->getBlock(fBuffer, kBlockSize, block));
    fIOPos = block;
}

void ORVA_FileStream::Data::ReadUnbuffered(ReadRequest& request) {
    if (request._size < kBlockSize) return;
    // An encrypted file is read from block boundaries only: the buffered read serves other positions.
    if (request._pos % pRealFile->granule() != 0) return;
    // Stops where the block that is read next begins.
    const std::int64_t reach =
        std::min<std::int64_t>(request._size, std::numeric_limits<std::int64_t>::max() - request._pos);
    const std::int64_t end = pRealFile->readPlace(request._pos + reach);
    if (end > request._pos) ReadDirect(request, static_cast<std::uint32_t>(end - request._pos));
}

void ORVA_FileStream::Data::ReadBuffered(ReadRequest& request) {
    while (request._size > 0) {
        emptyBuffer();
        const std::int64_t block = pRealFile->readPlace(request._pos);
        placeBlock(block, pRealFile->Read(fBuffer, kBlockSize, block));
        fIOPos = block + buffered();
        ReadFromBuffer(request);
        if (buffered() < kBlockSize) return;
    }
}

// Empties the buffer before a read into it: one that fails half-way leaves bytes of two places there.
void ORVA_FileStream::Data::emptyBuffer() {
    Flush();
    dropBuffer();
}

void ORVA_FileStream::Data::placeBlock(std::int64_t block, std::uint32_t count) {
    fpos = block;
    fBufferEnd = fBuffer + count;
    bEndOfFile = count == 0;
}

// Once the request has filled the buffer, its rest goes on after it.
void ORVA_FileStream::Data::Write(WriteRequest& request) {
    while (request._size > 0) {
        if (!joinsBuffer(request._pos)) {
            Flush();
            const std::uint32_t past = sizePastBuffer(request);
            if (past > 0) {
                writeDirect(request, past);
                continue;
            }
            startBuffer(request._pos);
        }
        copyIn(request);
    }
}

// True if a write may go into the buffer: it begins among the valid bytes or exactly at their end, so that the buffer
// never holds a gap. When appending, it has to follow the pending bytes, as all go to the end of the file.
bool ORVA_FileStream::Data::joinsBuffer(std::int64_t position) const {
    if (pRealFile->Appends()) return position == fDirtyEnd;
    const bool among = fBufferEnd != fBuffer && position >= fpos && offsetOf(position) <= buffered();
    return among && offsetOf(position) < kBlockSize;
}

void ORVA_FileStream::Data::copyIn(WriteRequest& request) {
    unsigned char* target = fBuffer + offsetOf(request._pos);
    const std::uint32_t count = std::min(request._size, static_cast<std::uint32_t>(fBuffer + kBlockSize - target));
    std::memcpy(target, request._buffer, count);
    fBufferEnd = std::max(fBufferEnd, target + count);
    fDirtyBegin = fDirtyBegin < 0 ? request._pos : std::min(fDirtyBegin, request._pos);
    fDirtyEnd = std::max(fDirtyEnd, request._pos + count);
    bDirty = true;
    request.Advance(count);
    if (target + count == fBuffer + kBlockSize) Flush();
}

// How many bytes of the request go straight to the file; 0 if they start the buffer. On an encrypted file, an
// appending write has to begin at the end of the data and completes a block that waits there at once, before a copy of
// the stream can pad it. If the mode cannot read the data under a write, the file itself takes or refuses the bytes.
std::uint32_t ORVA_FileStream::Data::sizePastBuffer(const WriteRequest& request) {
    const std::uint32_t granule = pRealFile->granule();
    const auto inBlock = static_cast<std::uint32_t>(request._pos % granule);
    if (pRealFile->IsEncrypted() && !pRealFile->Rewrites()) {
        const std::int64_t end = pRealFile->dataEnd();
        if (pRealFile->Appends() && request._pos != end) pRealFile->refuseWrite(EINVAL);
        if (pRealFile->Appends() && inBlock > 0) return std::min(request._size, granule - inBlock);
        if (inBlock == 0 && request._pos < end) return request._size;
    }
    return inBlock == 0 && request._size >= kBlockSize ? request._size - request._size % granule : 0;
}

// Writes past the buffer. Drops buffered bytes that the write covers: they must neither serve a later read nor be
// written back over the new ones. Drops the buffer of an encrypted file anyway: data may now follow it that the
// mode cannot read to complete a block that grows into them.
void ORVA_FileStream::Data::writeDirect(WriteRequest& request, std::uint32_t size) {
    const std::int64_t begin = request._pos;
    const bool overlaps = begin < fpos + buffered() && fpos < begin + size;
    if (overlaps || pRealFile->IsEncrypted()) dropBuffer();
    writeFile(request, size);
}

// Starts the buffer on a multiple of the granule, with what the file holds before `position`, and zeros in a gap.
void ORVA_FileStream::Data::startBuffer(std::int64_t position) {
    dropBuffer();
    const auto inBlock = static_cast<std::uint32_t>(position % pRealFile->granule());
    if (inBlock > 0) {
        const std::uint32_t count = pRealFile->completeBlock(fBuffer, 0, position - inBlock);
        if (count < inBlock) std::memset(fBuffer + count, 0, inBlock - count);
        fBufferEnd = fBuffer + std::max(count, inBlock);
    }
    fpos = position - inBlock;
}

// Writes whole cipher blocks, or up to the end of the data: the file may have more of the last block than the buffer.
// The request advances fDirtyBegin, so the next flush continues after what a failed append has written.
void ORVA_FileStream::Data::Flush() {
    if (fBufferEnd == fBuffer || !bDirty || !pRealFile->IsOpen()) return;
    const bool appends = pRealFile->Appends();
    const std::uint32_t granule = pRealFile->granule();
    fDirtyBegin -= static_cast<std::int64_t>(offsetOf(fDirtyBegin) % granule);
    const unsigned char* const from = fBuffer + offsetOf(fDirtyBegin);
    unsigned char* const last = fBuffer + (offsetOf(fDirtyEnd) - 1) / granule * granule;  // the last block's first byte
    const auto ofLast = static_cast<std::uint32_t>(fBufferEnd - last);
    if (ofLast < granule && !appends) {
        fBufferEnd = last + pRealFile->completeBlock(last, ofLast, fpos + (last - fBuffer));
    }
    const auto size = static_cast<std::uint32_t>(std::min<const unsigned char*>(fBufferEnd, last + granule) - from);
    WriteRequest pending{from, size, fDirtyBegin};
    writeFile(pending, size);
    appends ? dropBuffer() : markClean();
}

// A gap needs no bytes, as the file gives zeros where nobody wrote. Only a block that waits is filled up with them.
void ORVA_FileStream::Data::fillGap(std::int64_t position) {
    static constexpr unsigned char zeros[CIPHER_BLOCK_SIZE] = {};
    const std::int64_t end = pRealFile->dataEnd();
    const std::int64_t rest = std::min(position - end, CIPHER_BLOCK_SIZE - end % CIPHER_BLOCK_SIZE);
    if (rest > 0 && end % CIPHER_BLOCK_SIZE != 0) pRealFile->Write(zeros, static_cast<std::uint32_t>(rest), end);
}

// A block read ahead that the write touches is out of date, even if the write fails half-way; an appending write goes
// to the end, wherever that is; an encrypted file needs it named. Bytes that a failed write has appended must not be
// appended again. The file is locked from the look at its end to the one after the write, because a copy of the stream
// may append on another thread; not while waiting for a block being read ahead, which needs the lock.
void ORVA_FileStream::Data::writeFile(WriteRequest& request, std::uint32_t size) {
    struct note {
        multiThreadForFilestr* worker;
        std::int64_t begin, end;
        ~note() {
            if (worker != nullptr) worker->noteWritten(begin, end);
        }
    };
    const bool appends = pRealFile->Appends();
    const note written{fpIOThread.get(), appends ? 0 : request._pos,
                       appends ? std::numeric_limits<std::int64_t>::max() : request._pos + size};
    const ktGuard guard = pRealFile->locked();
    fillGap(request._pos);
    const bool namesEnd = appends && pRealFile->IsEncrypted();  // and cuts off what a failed write has appended
    const std::int64_t place = namesEnd ? pRealFile->dataEnd() : request._pos;
    const std::int64_t before = appends && !namesEnd ? pRealFile->Size() : -1;
    try {
        const std::uint32_t count = pRealFile->Write(request._buffer, size, place);
        fIOPos = place + count;
        request.Advance(count);
    } catch (...) {
        const std::int64_t grown = before < 0 ? 0 : pRealFile->Size() - before;
        if (grown > 0 && grown < size) request.Advance(static_cast<std::uint32_t>(grown));
        throw;
    }
}
