#include "part/soundIndex.h"

#include "format/indexTransfer.h"

#include <orva/errors.h>

namespace orva {

namespace {

// Far beyond any file, and sums of the sizes of as many blocks as an index can hold stay in range.
constexpr std::int64_t kLargestPlace = std::int64_t{1} << 62;

}  // namespace

std::optional<soundIndex> soundIndexOf(const rawHeading& raw, std::int64_t row0Pos, bytesFrom file) {
    if (row0Pos <= 0 || row0Pos > kLargestPlace) return std::nullopt;
    for (const bool swap : {false, true}) {
        const std::optional<compressionHeading> heading = headingOf(raw.data(), row0Pos, swap);
        if (!heading) continue;
        try {
            soundIndex index{*heading, readRecords(file, *heading, swap).records};
            if (!firstGap(*heading, index.records)) return index;
        } catch (const DamagedFileError&) {  // NOLINT(bugprone-empty-catch): it cannot be believed
        }
    }
    return std::nullopt;
}

}  // namespace orva
