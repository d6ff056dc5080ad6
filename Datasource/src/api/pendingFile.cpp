#include "api/pendingFile.h"

#include "base/fileError.h"
#include "file/namedFile.h"

#include <orva/outputName.h>

#include <cerrno>

namespace fs = std::filesystem;

namespace orva {

pendingFile::pendingFile(const Path& path, bool replace)
    : fPath(path), fTarget(outputTarget(fs::absolute(path).string())), bReplace(replace) {
    refuseIfTaken();
    try {
        holdReplaced();
        create();
    } catch (...) {
        if (fReplaced >= 0) platform::closeAnyway(fReplaced);
        throw;
    }
}

pendingFile::~pendingFile() {
    if (!bCommitted && fProcess == platform::processId()) platform::removeFile(fTemporary.c_str());
    if (fReplaced >= 0) platform::closeAnyway(fReplaced);
}

void pendingFile::refuseIfTaken() const {
    std::error_code none;
    const fs::file_status status = fs::status(fTarget, none);
    if (fs::is_directory(status)) throwFileError(EISDIR, kWriteFailed, fTarget);
    if (!fs::exists(status) || (bReplace && fs::is_regular_file(status))) return;
    const char* what = fs::is_regular_file(status) ? "\" exists already: name another file, or have it replaced"
                                                   : "\" exists and is no file that can be replaced: name another one";
    throw SystemError(std::error_code(EEXIST, std::generic_category()), '"' + fPath.string() + what, fPath);
}

// Whoever appends to the old file would add to one that nobody can find any more. To hold it takes no right to write: a
// file that nobody may write to can still be replaced.
void pendingFile::holdReplaced() {
    if (fReplaced >= 0 && platform::sameFile(fReplaced, fTarget.c_str())) return;
    if (fReplaced >= 0) platform::closeAnyway(fReplaced);
    fReplaced = platform::openShared(fTarget.c_str(), platform::_O_RDONLY | platform::_O_NOFOLLOW, 0, 0);
    if (fReplaced < 0 || platform::lockAgainstWriters(fReplaced) == 0 || errno != EWOULDBLOCK) return;
    throwFileError(EWOULDBLOCK, kWriteFailed, fTarget);
}

// Exclusively: in a directory that others can write to, nobody can have put a link there. Never for more people than
// the finished file, and its user can write to it until then.
void pendingFile::create() {
    std::error_code none;
    const fs::file_status old = fs::status(fTarget, none);
    if (fs::is_regular_file(old)) fPermissions = old.permissions();
    const fs::perms meanwhile = fPermissions | fs::perms::owner_read | fs::perms::owner_write;
    int descriptor = -1;
    do {
        fTemporary = hiddenNameBeside(fTarget);
        constexpr int mode = platform::_O_WRONLY | platform::_O_CREAT | platform::_O_EXCL;
        descriptor = platform::openShared(fTemporary.c_str(), mode, 0, static_cast<int>(meanwhile & fs::perms::all));
    } while (descriptor < 0 && errno == EEXIST);
    if (descriptor < 0) throwFileError(errno, kWriteFailed, fTarget);
    platform::closeAnyway(descriptor);
    if (fs::is_regular_file(old)) fs::permissions(fTemporary, meanwhile, none);
}

void pendingFile::commit(bool durable) {
    refuseIfTaken();  // by somebody else, meanwhile
    holdReplaced();
    std::error_code none;
    if (fs::is_regular_file(fs::status(fTarget, none))) fs::permissions(fTemporary, fPermissions, none);
    const auto rename = bReplace ? &platform::renameFile : &platform::renameNew;
    if (rename(fTemporary.c_str(), fTarget.c_str()) != 0) throwFileError(errno, kWriteFailed, fTarget);
    bCommitted = true;
    if (durable) syncName(fTarget);
}

}  // namespace orva
