#include "base/assertion.h"
#include "base/blockBuffer.h"

#include <orva/file.h>
#include <orva/platform.h>

#include <algorithm>

// The system copies only bytes with the same place within their page in both files: others it would move page by page
// in two halves, which takes a third longer than reading and writing. Bytes that it does not copy, for whatever reason,
// are read and written, which works or fails on the side with the problem; in pieces that fit into a core's cache and
// end at the end of a page of the target, since the system takes whole pages twice as fast as halves.
std::int64_t ORVA_File::CopyFrom(ORVA_File& source, std::int64_t sourceOffset, std::int64_t size,
                                 std::int64_t byteOffset) {
    constexpr std::int64_t most = 1 << 18;
    constexpr std::int64_t page = 4096;
    const ktGuard guard(fMutex, ktMutex::Recursive);
    ORVA_ASSERT(!fEncrypted && !source.fEncrypted, "!fEncrypted");
    const orva::blockBuffer buffer(most);
    bool bySystem = (sourceOffset - byteOffset) % page == 0;
    std::int64_t done = 0;
    while (done < size) {
        const std::int64_t to = byteOffset + done;
        std::int64_t count = 0;
        if (bySystem && to % page == 0) {
            count = platform::copyRange(source.fDescriptor, sourceOffset + done, fDescriptor, to, size - done);
            bySystem = count > 0;
        }
        if (count <= 0) {
            const auto piece = static_cast<unsigned int>(std::min(size - done, most - to % page));
            count = Write(buffer.get(), source.Read(buffer.get(), piece, sourceOffset + done), to);
        }
        if (count == 0) break;
        done += count;
    }
    return done;
}
