// fileWindow: a piece of a file in memory, which moves along with whoever looks through the file for something. Holes
// are passed over, since nothing that is looked for begins in one.
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
    // Called with each place that it moves to, the bytes passed over in a hole before it, and those read there. What it
    // throws comes out of find().
    using observer = std::function<void(std::int64_t place, std::int64_t passed, std::int64_t read)>;

    explicit fileWindow(ORVA_File& file, observer moved)
        : fFile(file), fMoved(std::move(moved)), fFileSize(std::min(lengthOf(file), kFarthest)), fBytes(kSize) {}

    std::int64_t fileSize() const { return fFileSize; }

    // The first place from `from` on, where `size` bytes end at `end` at the latest, that `isIt(place, bytes, count)`
    // takes. It is shown the bytes from there to the window's end, `size` or more.
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
    // No disk holds more, and no sum of two places passes the 64-bit range then.
    static constexpr std::int64_t kFarthest = std::int64_t{1} << 61;
    // Not more, since each page between two holes costs one.
    static constexpr std::uint32_t kSize = 1U << 18;

    bool holds(std::int64_t at, std::uint32_t size) const { return at >= fAt && at + size <= fAt + fCount; }

    // What is looked for may have zeros in front, so `size` - 1 bytes before the next ones that are stored count too.
    std::int64_t moveTo(std::int64_t at, std::uint32_t size) {
        const std::int64_t next = std::min(fFile.nextStored(at), fFileSize);
        fAt = std::max(at, next - size + 1);
        fCount = fFile.Read(fBytes.get(), kSize, fAt);
        fMoved(fAt, fAt - at, fCount);
        return fAt;
    }

    ORVA_File& fFile;
    const observer fMoved;
    const std::int64_t fFileSize;
    const blockBuffer fBytes;
    std::int64_t fAt = 0;
    std::int64_t fCount = 0;
};

}  // namespace orva
