#include "format/storedBytes.h"

#include "base/fileError.h"
#include "file/namedFile.h"

#include <orva/platform.h>

#include <algorithm>
#include <cerrno>

namespace orva {

namespace {

// The file takes less than 2 GiB at a time, and an index can be twice as long.
constexpr std::uint64_t kLongestTransfer = std::uint64_t{1} << 30;

}  // namespace

const std::string& bytesFrom::name() const {
    return fFile != nullptr ? fFile->GetNameStr().GetGeneric() : fOther->name();
}

// A disk that cannot tell is no damaged file.
std::int64_t bytesFrom::length() const {
    if (fFile == nullptr) return fOther->length();
    platform::setErrno(0);
    const std::int64_t length = fFile->Size();
    if (length < 0) throwFileError(errno, kReadFailed, name());
    return length;
}

bool bytesFrom::read(void* to, std::uint64_t size, std::int64_t place, bool ahead) const {
    if (fFile == nullptr) return fOther->read(to, size, place);
    const auto transfer = ahead ? &ORVA_File::ReadAhead : &ORVA_File::Read;
    auto* at = static_cast<unsigned char*>(to);
    while (size != 0) {
        const auto piece = static_cast<std::uint32_t>(std::min(size, kLongestTransfer));
        if ((fFile->*transfer)(at, piece, place) != piece) {
            if (!fFile->IsOpen()) throwClosed(*fFile, kReadFailed);
            return false;
        }
        at += piece;
        size -= piece;
        place += piece;
    }
    return true;
}

}  // namespace orva
