#include "base/assertion.h"
#include "base/blockBuffer.h"

#include <orva/file.h>
#include <orva/platform.h>

#include <algorithm>

namespace {

// Fits into a core's cache between reading and writing.
constexpr std::int64_t kPiece = 1 << 18;
constexpr std::int64_t kPage = 4096;

// The size of the next piece to read and write. It ends at the end of a page of the target: the system takes whole
// pages twice as fast as halves.
std::int64_t pieceAt(std::int64_t byteOffset, std::int64_t size) {
    return std::min(size, kPiece - byteOffset % kPage);
}

}  // namespace

// The system copies only bytes with the same place within their page in both files: others it would move page by page
// in two halves, which takes a third longer than reading and writing. Bytes that it does not copy, for whatever reason,
// are read and written, which works or fails on the side with the problem.
std::int64_t ORVA_File::CopyFrom(ORVA_File& source, std::int64_t sourceOffset, std::int64_t size,
                                 std::int64_t byteOffset) {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    ORVA_ASSERT(!fEncrypted && !source.fEncrypted, "!fEncrypted");
    const orva::blockBuffer buffer(kPiece);
    bool bySystem = (sourceOffset - byteOffset) % kPage == 0;
    std::int64_t done = 0;
    while (done < size) {
        const std::int64_t to = byteOffset + done;
        std::int64_t count = 0;
        if (bySystem && to % kPage == 0) {
            count = platform::copyRange(source.fDescriptor, sourceOffset + done, fDescriptor, to, size - done);
            bySystem = count > 0;
        }
        if (count <= 0) {
            const auto piece = static_cast<unsigned int>(pieceAt(to, size - done));
            count = Write(buffer.get(), source.Read(buffer.get(), piece, sourceOffset + done), to);
        }
        if (count == 0) break;
        done += count;
    }
    return done;
}
