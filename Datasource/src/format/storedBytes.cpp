#include "format/storedBytes.h"

#include "base/fileError.h"
#include "file/namedFile.h"

#include <cerrno>

namespace orva {

const std::string& bytesFrom::name() const {
    return fFile != nullptr ? fFile->GetNameStr().GetGeneric() : fOther->name();
}

// A disk error is no damage of the file.
std::int64_t bytesFrom::length() const {
    if (fFile == nullptr) return fOther->length();
    errno = 0;
    const std::int64_t length = fFile->Size();
    if (length < 0) throwFileError(errno, kReadFailed, name());
    return length;
}

bool bytesFrom::read(void* to, std::uint64_t size, std::int64_t place) const {
    if (fFile == nullptr) return fOther->read(to, size, place);
    const auto transfer = bAhead ? &ORVA_File::ReadAhead : &ORVA_File::Read;
    return inPieces(static_cast<unsigned char*>(to), size, place,
                    [&](unsigned char* at, std::uint32_t piece, std::int64_t from) {
                        const unsigned int count = (fFile->*transfer)(at, piece, from);
                        if (count != piece && !fFile->IsOpen()) throwClosed(*fFile, kReadFailed);
                        return count;
                    });
}

}  // namespace orva
