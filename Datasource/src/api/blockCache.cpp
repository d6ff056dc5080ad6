#include "api/blockCache.h"

#include "format/blockTransfer.h"

#include <algorithm>
#include <utility>

namespace orva {

blockCache::rows blockCache::find(std::uint64_t part, std::uint32_t number) {
    const std::lock_guard guard(fLock);
    for (entry& e : fEntries) {
        if (e.part != part || e.number != number) continue;
        e.lastUse = ++fClock;
        return e.kept;
    }
    return nullptr;
}

blockCache::entry& blockCache::oldest() {
    return *std::ranges::min_element(fEntries, {}, &entry::lastUse);
}

blockCache::rows blockCache::memory(const partSnapshot& part) {
    {
        const std::lock_guard guard(fLock);
        if (fMost != 0 && fEntries.size() == fMost && oldest().kept.use_count() == 1) {
            oldest().part = 0;
            return std::exchange(oldest().kept, nullptr);
        }
    }
    return std::make_shared<blockBuffer>(rowRoom(part.records()));
}

void blockCache::keep(std::uint64_t part, std::uint32_t number, rows kept) {
    const std::lock_guard guard(fLock);
    if (fMost == 0) return;
    (fEntries.size() < fMost ? fEntries.emplace_back() : oldest()) = entry{part, number, ++fClock, std::move(kept)};
}

void blockCache::putBack(rows copied) {
    const std::lock_guard guard(fLock);
    copied.reset();
}

void blockCache::clear() {
    const std::lock_guard guard(fLock);
    fEntries.clear();
}

blockBuffer blockCache::takeScratch(const partSnapshot& part) {
    {
        const std::lock_guard guard(fLock);
        if (!fScratch.empty()) {
            blockBuffer scratch = std::move(fScratch.back());
            fScratch.pop_back();
            return scratch;
        }
    }
    return compressedRoom(part.records());
}

void blockCache::putBack(blockBuffer scratch) {
    const std::lock_guard guard(fLock);
    fScratch.push_back(std::move(scratch));
}

}  // namespace orva
