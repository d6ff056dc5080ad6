#include "api/blockCache.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace orva {

void blockCache::moveTo(std::uint64_t part) {
    const std::lock_guard guard(fLock);
    if (part < fPart) return;
    fPart = part;
    fKept.clear();
}

// Marks the block as used, unless it is the one used last: threads that read the same block write nothing.
blockCache::blockPtr* blockCache::holding(std::int64_t offset) {
    const auto holds = [&](const blockPtr& b) {
        return offset >= b->rows.offset && offset - b->rows.offset < b->rows.length;
    };
    const auto found = std::ranges::find_if(fKept, holds);
    if (found == fKept.end()) return nullptr;
    std::atomic<std::uint64_t>& lastUse = (*found)->lastUse;
    if (lastUse.load(std::memory_order_relaxed) != fClock.load(std::memory_order_relaxed)) {
        lastUse.store(fClock.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    return &*found;
}

// By way of a buffer, because touching the caller's memory may wait for a disk.
bool blockCache::copyFew(std::int64_t offset, Bytes to) {
    std::array<std::byte, kFew> few;  // NOLINT(cppcoreguidelines-pro-type-member-init): written before it is read
    {
        const std::lock_guard guard(fLock.toRead());
        const blockPtr* kept = holding(offset);
        if (kept == nullptr) return false;
        const std::int64_t from = offset - (*kept)->rows.offset;
        if (std::ssize(to) > (*kept)->rows.length - from) return false;
        std::memcpy(few.data(), (*kept)->bytes.get() + from, to.size());
    }
    std::copy_n(few.begin(), to.size(), to.begin());
    return true;
}

blockCache::blockPtr blockCache::find(std::uint64_t part, std::int64_t offset) {
    const std::lock_guard guard(fLock.toRead());
    const blockPtr* kept = part == fPart ? holding(offset) : nullptr;
    return kept != nullptr ? *kept : nullptr;
}

std::vector<blockCache::blockPtr>::iterator blockCache::oldest() {
    return std::ranges::min_element(fKept, {}, [](const blockPtr& b) { return b->lastUse.load(); });
}

blockCache::blockPtr blockCache::memory(const partSnapshot& part) {
    {
        const std::lock_guard guard(fLock);
        if (fMost != 0 && fKept.size() == fMost && oldest()->use_count() == 1) {
            blockPtr taken = std::move(*oldest());
            std::erase(fKept, nullptr);
            return taken;
        }
    }
    auto made = std::make_shared<block>();
    made->bytes = part.rowRoom();
    return made;
}

void blockCache::keep(std::uint64_t part, Range rows, blockPtr inflated) {
    const std::lock_guard guard(fLock);
    if (fPart == 0) fPart = part;
    if (fMost == 0 || part != fPart) return;
    inflated->rows = rows;
    inflated->lastUse = ++fClock;
    if (fKept.size() < fMost) {
        fKept.push_back(std::move(inflated));
    } else {
        *oldest() = std::move(inflated);
    }
}

void blockCache::putBack(blockPtr copied) {
    const std::lock_guard guard(fLock.toRead());
    copied.reset();
}

blockBuffer blockCache::takeScratch(const partSnapshot& part) {
    {
        const std::lock_guard guard(fScratchLock);
        if (!fScratch.empty()) {
            blockBuffer scratch = std::move(fScratch.back());
            fScratch.pop_back();
            return scratch;
        }
    }
    return part.compressedRoom();
}

void blockCache::putBack(blockBuffer scratch) {
    const std::lock_guard guard(fScratchLock);
    fScratch.push_back(std::move(scratch));
}

}  // namespace orva
