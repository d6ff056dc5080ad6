// blockCache: inflated blocks that a reader keeps, for callers that go back and forth between places. The least
// recently used one makes room for the next.
//
// Owner:   the stream. A block's memory is made when it is first needed, and kept.
// Threads: the caller's thread only.
#pragma once

#include "base/blockBuffer.h"

#include <orva/blockSize.h>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace orva {

class blockCache {
public:
    // Keeps up to `blocks` blocks. Forgets what it holds.
    void resize(std::uint32_t blocks) { fBlocks = std::vector<entry>(blocks); }
    void clear() { resize(static_cast<std::uint32_t>(fBlocks.size())); }
    bool enabled() const { return !fBlocks.empty(); }

    // The rows of the block at logical position `pos`, or null.
    unsigned char* find(std::int64_t pos) {
        const auto held = std::find_if(fBlocks.begin(), fBlocks.end(), [pos](const entry& e) { return e.pos == pos; });
        if (held == fBlocks.end()) return nullptr;
        held->lastUse = ++fClock;
        return held->rows.get();
    }

    // Has `load(rows)` bring the block at `pos` into memory of the cache. If that throws, the cache holds one block
    // less.
    template <class Load>
    unsigned char* add(std::int64_t pos, Load load) {
        entry& oldest = *std::min_element(fBlocks.begin(), fBlocks.end(),
                                          [](const entry& a, const entry& b) { return a.lastUse < b.lastUse; });
        oldest.pos = kNone;
        if (!oldest.rows) oldest.rows = blockBuffer(kBlockSize);
        load(oldest.rows.get());
        oldest.pos = pos;
        oldest.lastUse = ++fClock;
        return oldest.rows.get();
    }

private:
    static constexpr std::int64_t kNone = -1;
    struct entry {
        blockBuffer rows;
        std::int64_t pos = kNone;
        std::uint64_t lastUse = 0;
    };

    std::vector<entry> fBlocks;
    std::uint64_t fClock = 0;
};

}  // namespace orva
