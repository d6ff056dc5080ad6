#include "part/heldSideFile.h"

#include "base/fileError.h"
#include "file/namedFile.h"
#include "format/storedBytes.h"

#include <orva/errors.h>
#include <orva/platform.h>
#include <orva/platformOwner.h>
#include <orva/sideFile.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace orva {

// That of a dangling link is beside the link.
std::string sideFileName(const std::string& dataName) {
    std::error_code none;
    fs::path target;
    if (fs::is_symlink(fs::symlink_status(dataName, none))) target = fs::canonical(dataName, none);
    return (target.empty() ? dataName : target.string()) + ".orva-undo";
}

bool hasSideFile(const std::string& dataName) {
    const std::string name = sideFileName(dataName);
    std::error_code unknown;
    const fs::file_status status = fs::symlink_status(name, unknown);
    // No side file can have a name that is too long.
    if (!fs::status_known(status) && unknown.value() != ENAMETOOLONG)
        throwFileError(unknown.value(), kReadFailed, name);
    return fs::exists(status);
}

// Group and directory together prove membership. Users cannot give a file to a group that they are not in, but a
// directory with the set-group-ID bit does, and in one that all may write to, anybody's file can get the name.
bool canBeTrusted(const platform::fileAccess& side, const platform::fileAccess& data,
                  const platform::fileAccess& directory, std::uint32_t caller) {
    using namespace platform;
    const bool groupWrites = (data.mode & kGroupWrite) != 0 && side.group == data.group;
    const bool othersWrite = (data.mode & kOthersWrite) != 0;
    if (!side.regular || side.links > 1) return false;  // some file systems report 0 for every file
    if ((side.mode & kOthersWrite) != 0 && !othersWrite) return false;
    if ((side.mode & kGroupWrite) != 0 && !groupWrites && !othersWrite) return false;
    const bool provesGroup = (directory.mode & (kSetGroup | kOthersWrite)) == 0;
    return side.user == 0 || side.user == caller || side.user == data.user || (groupWrites && provesGroup);
}

heldSideFile::heldSideFile(const std::string& dataName) : fDataName(dataName), fName(sideFileName(dataName)) {}

heldSideFile::~heldSideFile() {
    if (fDescriptor != -1) platform::closeAnyway(fDescriptor);
}

void heldSideFile::make(const fileBytes& bytes) {
    using namespace platform;
    fDescriptor = openShared(fName.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_NOFOLLOW, 0, _S_IREAD | _S_IWRITE);
    if (fDescriptor == -1) throwFileError(errno, kWriteFailed, fName);
    const auto write = [&](const unsigned char* from, std::uint32_t piece, std::int64_t place) {
        return static_cast<std::uint32_t>(writeAt(fDescriptor, from, piece, place));
    };
    try {
        giveAccess(fDescriptor, fDataName.c_str());
        errno = 0;  // failing to give access says nothing about the write
        if (!inPieces(bytes.data(), bytes.size(), 0, write) || syncData(fDescriptor) != 0)
            throwFileError(errno, kWriteFailed, fName);
        syncName(fName);
    } catch (...) {
        removeIfSame(fName.c_str(), fDescriptor);
        throw;
    }
}

bool heldSideFile::open() {
    fDescriptor = platform::openShared(fName.c_str(), platform::_O_RDONLY | platform::_O_NOFOLLOW, 0, 0);
    platform::fileAccess side{};
    if (fDescriptor != -1 && platform::accessOf(fDescriptor, side)) {
        if (!side.regular) refuseForeign();
        return true;
    }
    const int error = errno;
    if (error == ENOENT || error == ENAMETOOLONG) return false;
    if (error == ELOOP || error == EISDIR || error == ENXIO) refuseForeign();  // a link, a directory, a socket
    throwFileError(error, kReadFailed, fName);
}

bool heldSideFile::isTrusted() const {
    platform::fileAccess side{};
    platform::fileAccess data{};
    platform::fileAccess directory{};
    const fs::path around = fs::path(fName).parent_path() / ".";
    if (!platform::accessOf(fDescriptor, side) || !platform::accessOf(fDataName.c_str(), data) ||
        !platform::accessOf(around.c_str(), directory)) {
        throwFileError(errno, kReadFailed, fName);
    }
    return canBeTrusted(side, data, directory, platform::callingUser());
}

void heldSideFile::requireTrusted() const {
    if (isTrusted()) return;
    throwFileError(EPERM, kReadFailed, fName,
                   "it may have been made by a user who cannot write \"" + fDataName +
                       "\": remove it, or give it to the owner of that file if it is genuine");
}

fileBytes heldSideFile::read(std::int64_t longest) const {
    const std::int64_t size = platform::_lseeki64(fDescriptor, 0, SEEK_END);
    if (size < 0) throwFileError(errno, kReadFailed, fName);
    fileBytes bytes(sizeInMemory(std::min(size, longest)));
    const auto readAt = [&](unsigned char* to, std::uint32_t piece, std::int64_t place) {
        const int count = platform::readAt(fDescriptor, to, piece, place);
        if (count == -1) throwFileError(errno, kReadFailed, fName);
        return static_cast<std::uint32_t>(count);
    };
    if (!inPieces(bytes.data(), bytes.size(), 0, readAt)) bytes.clear();  // it has become shorter
    return bytes;
}

void heldSideFile::remove() {
    if (platform::removeIfSame(fName.c_str(), fDescriptor) != 0) throwFileError(errno, kWriteFailed, fName);
    syncName(fName);
}

void heldSideFile::refuseForeign() const {
    throw DamagedFileError(
        fName, "mark of a side file",
        "no append has made it, so it was left unchanged: move it away before adding rows to \"" + fDataName + '"');
}

}  // namespace orva
