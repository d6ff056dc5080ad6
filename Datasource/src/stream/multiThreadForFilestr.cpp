#include "stream/multiThreadForFilestr.h"

#include "base/assertion.h"

#include <cstring>
#include <limits>

multiThreadForFilestr::multiThreadForFilestr(ORVA_File* file, std::uint32_t blockSize, bool ownThreads)
    : pFile(file), stBlockSize(blockSize), bOwnThreads(ownThreads), pReadBuffer(blockSize) {}

multiThreadForFilestr::multiThreadForFilestr(const multiThreadForFilestr&) : multiThreadForFilestr(nullptr, 0, false) {
    ORVA_ASSERT(false, "0 && \"can't copy a multiThreadForFilestr\"");
}

multiThreadForFilestr::~multiThreadForFilestr() {
    if (!bOwnThreads) return;
    multiThreadForFilestr::stopThreads();
    multiThreadForFilestr::destroyThreads();
}

std::uint32_t multiThreadForFilestr::getBlock(void* buffer, std::uint32_t size, std::int64_t position) {
    if (size == 0 && position == 0) {
        fSlot.requestStop();
        return 0;
    }
    orva::readAheadSlot::request turn(fSlot);
    std::uint32_t count = fSlot.stCurSize;
    if (turn.hits(position)) {
        std::memcpy(buffer, pReadBuffer.get(), count);
    } else {
        count = pFile->Read(buffer, stBlockSize, position);
    }
    // No block begins past the largest offset.
    if (position <= std::numeric_limits<std::int64_t>::max() - size) turn.readAhead(position + size);
    return count;
}

std::int32_t multiThreadForFilestr::readLoopStep() {
    return fSlot.step(
        [this](std::int64_t position) { return pFile->ReadAhead(pReadBuffer.get(), stBlockSize, position); });
}
