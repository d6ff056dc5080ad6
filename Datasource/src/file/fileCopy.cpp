#include "base/assertion.h"

#include <orva/file.h>
#include <orva/platform.h>

#include <algorithm>

// What the system does not copy, on whatever ground, is read and written: that works, or meets the reason on the side
// where it lies.
std::int64_t ORVA_File::CopyFrom(ORVA_File& source, std::int64_t sourceOffset, std::int64_t size,
                                 std::int64_t byteOffset) {
    constexpr std::int64_t piece = 1 << 20;
    const ktGuard guard(fMutex, ktMutex::Recursive);
    ORVA_ASSERT(!fEncrypted && !source.fEncrypted, "!fEncrypted");
    const std::int64_t copied = platform::copyRange(source.fDescriptor, sourceOffset, fDescriptor, byteOffset, size);
    if (copied > 0) return copied;
    const auto wanted = static_cast<unsigned int>(std::min(size, piece));
    const auto buffer = std::make_unique_for_overwrite<unsigned char[]>(wanted);
    const unsigned int count = source.Read(buffer.get(), wanted, sourceOffset);
    return count == 0 ? 0 : Write(buffer.get(), count, byteOffset);
}
