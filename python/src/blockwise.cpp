#include "blockwise.h"

#include "signals.h"

#include <algorithm>

using orva::i64;

void blockwise::request(i64 offset, orva::Bytes to) {
    while (!to.empty()) {
        if (offset >= fBlockEnd) {
            if (fBegun == fBlocks) finish();
            fBlockFirst = offset;
            fBlockEnd = fReader.end_of_block(offset);
            ++fBegun;
        }
        // A row across a border, if requested twice, begins in an earlier block.
        const i64 end = offset >= fBlockFirst ? fBlockEnd : fReader.end_of_block(offset);
        const auto size = std::min(to.size(), static_cast<std::size_t>(end - offset));
        fRequests.push_back({offset, to.first(size)});
        offset += static_cast<i64>(size);
        to = to.subspan(size);
    }
}

void blockwise::finish() {
    if (fRequests.empty()) return;
    if (fLost != nullptr) {
        readAroundDamage();
    } else {
        fReader.read_ranges(fRequests);
    }
    fRequests.clear();
    fBegun = 0;
    checkSignals();
}

// Each round ends at the next damaged block and has read the requests before it.
void blockwise::readAroundDamage() {
    while (!fRequests.empty()) {
        try {
            return fReader.read_ranges(fRequests);
        } catch (const orva::DamagedFileError& damage) {
            if (!damage.offset()) throw;
            const i64 begin = *damage.offset();
            const i64 end = fReader.end_of_block(begin);
            fLost->push_back({begin, end - begin});
            for (const orva::ReadRequest& request : fRequests) {
                if (request.offset >= begin && request.offset < end) std::ranges::fill(request.to, std::byte());
            }
            std::erase_if(fRequests, [&](const orva::ReadRequest& request) { return request.offset < end; });
        }
    }
}
