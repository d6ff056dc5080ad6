// fileWindow: searches a file through a piece of it in memory, which moves along with the search. It skips holes, since
// nothing that is searched for begins in one.
//
// Owner:   the caller owns the file.
// Failure: FileError from the disk.
#pragma once

#include "base/blockBuffer.h"
#include "format/indexTransfer.h"

#include <orva/file.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

namespace orva {

class fileWindow {
public:
    // Called with each offset that the window moves to, the number of bytes of the hole skipped before it, and the
    // number read there. find() passes its exceptions on.
    using observer = std::function<void(std::int64_t place, std::int64_t passed, std::int64_t read)>;

    explicit fileWindow(ORVA_File& file, observer moved) : fFile(file), fMoved(std::move(moved)) {}

    std::int64_t fileSize() const { return fFileSize; }

    // The first offset from `from` on that `isIt(place, bytes, count)` accepts. `bytes` are the `count` bytes there, at
    // least `size`, up to the end of the window, and none from `end` on.
    template <class Test>
    std::optional<std::int64_t> find(std::int64_t from, std::int64_t end, std::uint32_t size, Test isIt) {
        for (std::int64_t at = from; at <= std::min(end, fFileSize) - size;) {
            if (!holds(at, size)) at = moveTo(at, size);
            const std::int64_t count = std::min(fAt + fCount, end) - at;
            if (count < size) break;
            const unsigned char* bytes = fBytes.get() + (at - fAt);
            for (std::int64_t i = 0; i + size <= count; ++i) {
                if (isIt(at + i, bytes + i, static_cast<std::uint32_t>(count - i))) return at + i;
            }
            at += count - size + 1;
        }
        return std::nullopt;
    }

private:
    // No disk holds more, and the sum of two offsets below it fits in 64 bits.
    static constexpr std::int64_t kFarthest = std::int64_t{1} << 61;
    // Not larger, since each stored page between two holes costs the read of a whole window.
    static constexpr std::uint32_t kSize = 1U << 18;

    bool holds(std::int64_t at, std::uint32_t size) const { return at >= fAt && at + size <= fAt + fCount; }

    // A match may begin with zeros, so the window begins `size` - 1 bytes before the next stored byte.
    std::int64_t moveTo(std::int64_t at, std::uint32_t size) {
        const std::int64_t next = std::min(fFile.nextStored(at), fFileSize);
        fAt = std::max(at, next - size + 1);
        fCount = fFile.Read(fBytes.get(), kSize, fAt);
        fMoved(fAt, fAt - at, fCount);
        return fAt;
    }

    ORVA_File& fFile;
    const observer fMoved;
    const std::int64_t fFileSize = std::min(bytesFrom(fFile).length(), kFarthest);
    const blockBuffer fBytes{kSize};
    std::int64_t fAt = 0;
    std::int64_t fCount = 0;
};

}  // namespace orva
