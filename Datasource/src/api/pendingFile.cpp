#include "api/translated.h"
#include "base/fileError.h"
#include "file/namedFile.h"

#include <orva/pendingFile.h>
#include <orva/platform.h>
#include <orva/platformOwner.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace fs = std::filesystem;

namespace orva {

namespace {

constexpr fs::perms kOwners = fs::perms::owner_read | fs::perms::owner_write;

// The file that links lead to. Replacing a link itself would leave its target as it was, and turn the link into a file.
// The target of the last link need not exist, unless `name` leads to a file all the same: one without a name.
std::string outputTarget(const std::string& name) {
    constexpr int mostLinks = 40;
    fs::path target = name;
    std::error_code none;
    if (fs::is_other(fs::status(target, none))) return name;  // the last link to a pipe may name nothing
    for (int links = 0; fs::is_symlink(fs::symlink_status(target, none)); ++links) {
        if (links == mostLinks) throwFileError(ELOOP, kWriteFailed, name);
        target = target.parent_path() / fs::read_symlink(target, none);
    }
    if (fs::exists(name, none) && !fs::exists(target, none)) throwFileError(ENOENT, kWriteFailed, name);
    return target.string();
}

// A name in the directory of `target` that hardly any file has, and that differs the next instant. Cut to stay within
// every file system's limit, and between characters, since some file systems take only whole ones.
std::string hiddenNameBeside(const std::string& target) {
    constexpr std::size_t longest = 100;
    const auto isContinued = [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0) == 0x80; };
    const fs::path path = target;
    const auto time = std::chrono::steady_clock::now().time_since_epoch().count();
    char mark[16];
    std::snprintf(mark, sizeof mark, "%08x", static_cast<unsigned>(time));
    const std::string name = path.filename().string();
    std::size_t cut = std::min(name.size(), longest);
    while (cut > 0 && cut < name.size() && isContinued(name[cut])) --cut;
    return (path.parent_path() / ('.' + name.substr(0, cut) + '.' + mark + ".tmp")).string();
}

}  // namespace

// A name that a signal handler can read at any instant. It is written between unused and shown, and read by whoever has
// taken it from shown. It is never freed, but used again for the next file.
struct hiddenName {
    enum state : int { unused, beingWritten, shown, beingRemoved };
    bool take(state from, state to) { return fState.compare_exchange_strong(from, to); }

    std::atomic<state> fState{beingWritten};
    char fName[platform::kLongestName + 1];
    std::int64_t fProcess;
    hiddenName* fNext;
};

namespace {

std::atomic<hiddenName*> gHiddenNames{nullptr};

// Null if the name is too long for any file.
hiddenName* show(const std::string& name) {
    if (name.size() > platform::kLongestName) return nullptr;
    hiddenName* place = gHiddenNames;
    while (place != nullptr && !place->take(hiddenName::unused, hiddenName::beingWritten)) place = place->fNext;
    if (place == nullptr) {
        place = new hiddenName;
        place->fNext = gHiddenNames;
        while (!gHiddenNames.compare_exchange_weak(place->fNext, place)) {
        }
    }
    std::memcpy(place->fName, name.c_str(), name.size() + 1);
    place->fProcess = platform::processId();
    place->fState = hiddenName::shown;
    return place;
}

}  // namespace

void remove_unfinished() noexcept {
    const std::int64_t process = platform::processId();
    for (hiddenName* one = gHiddenNames; one != nullptr; one = one->fNext) {
        // Also a name in beingRemoved: this handler may have interrupted the one that removes it, and may end the
        // process first.
        if (!one->take(hiddenName::shown, hiddenName::beingRemoved) && one->fState != hiddenName::beingRemoved)
            continue;
        if (one->fProcess == process) platform::removeFile(one->fName);
    }
}

void pendingFile::forgetName() {
    if (fShown != nullptr) fShown->take(hiddenName::shown, hiddenName::unused);
    fShown = nullptr;
}

fs::perms commonPermissions(std::span<const Path> files) {
    fs::perms common{0666};
    std::error_code none;
    for (const Path& file : files) {
        const fs::file_status status = fs::status(file, none);
        if (fs::is_regular_file(status)) common &= status.permissions();
    }
    return common;
}

pendingFile::pendingFile(const Path& path, bool replace, fs::perms permissions)
    : fPath(path), bReplace(replace), fPermissions(permissions), fProcess(platform::processId()) {
    try {
        translated(
            fPath,
            [&] {
                fTarget = fullName(path.string());
                fTarget = outputTarget(fTarget);
                const bool replaces = hasToReplace();
                holdReplaced();
                create(replaces);
            },
            fTarget);
    } catch (...) {
        forgetName();
        if (fReplaced >= 0) platform::closeAnyway(fReplaced);
        throw;
    }
}

pendingFile::~pendingFile() {
    const bool mine = fProcess == platform::processId();
    if (!bCommitted && mine) platform::removeFile(fTemporary.c_str());
    forgetName();
    if (fReplaced >= 0) mine ? platform::closeAnyway(fReplaced) : platform::closeInherited(fReplaced);
}

bool pendingFile::hasToReplace() const {
    std::error_code unknown;
    const fs::file_status status = fs::status(fTarget, unknown);
    if (fTarget.empty()) throwFileError(ENOENT, kWriteFailed, fTarget);
    // For example a name that is too long, while the hidden one is not.
    if (!fs::status_known(status)) throwFileError(unknown.value(), kWriteFailed, fTarget);
    const bool isFile = fs::is_regular_file(status);
    if (!fs::exists(status) || (bReplace && isFile)) return isFile;
    const int error = isFile ? EEXIST : fs::is_directory(status) ? EISDIR : EINVAL;
    const char* const what = isFile ? "already exists: choose another name, or allow it to be replaced"
                                    : "not a regular file, so it cannot be replaced: choose another name";
    throw SystemError(std::error_code(error, std::generic_category()), what, fPath, true);
}

// A writer that appends to the old file would add rows to a file that nobody can find any more. Holding it needs no
// write permission: a file that nobody may write to can still be replaced.
void pendingFile::holdReplaced() {
    if (fReplaced >= 0 && platform::sameFile(fReplaced, fTarget.c_str())) return;
    if (fReplaced >= 0) platform::closeAnyway(fReplaced);
    fReplaced = platform::openShared(fTarget.c_str(), platform::_O_RDONLY | platform::_O_NOFOLLOW, 0, 0);
    const bool opened = fReplaced >= 0;
    if (opened && (platform::lockAgainstWriters(fReplaced) == 0 || errno != EWOULDBLOCK)) return;
    if (opened || !isAbsentOrForbidden(errno)) throwFileError(errno, kWriteFailed, fTarget);
}

// Exclusive creation: in a directory that others can write to, nobody can have put a link there. The file is never open
// to more users than the finished one, and its owner can write to it until then, whatever the umask.
void pendingFile::create(bool replaces) {
    const auto mode = static_cast<int>((replaces ? kOwners : fPermissions) & fs::perms::all);
    int descriptor = -1;
    fs::path hidden;  // from here on nothing may need memory while the file exists
    do {
        forgetName();
        hidden = fTemporary = hiddenNameBeside(fTarget);
        fShown = show(fTemporary);
        constexpr int flags = platform::_O_WRONLY | platform::_O_CREAT | platform::_O_EXCL;
        descriptor = platform::openShared(fTemporary.c_str(), flags, 0, mode);
    } while (descriptor < 0 && errno == EEXIST);
    if (descriptor < 0) throwFileError(errno, kWriteFailed, fTarget);
    platform::fileAccess own{};
    if (replaces) {
        fPermissions = fs::perms{platform::giveAccess(descriptor, fTarget.c_str())};
    } else if (platform::accessOf(descriptor, own)) {
        fPermissions = fs::perms{own.mode};
    }
    platform::closeAnyway(descriptor);
    std::error_code none;
    if ((fPermissions & kOwners) != kOwners) fs::permissions(hidden, kOwners, fs::perm_options::add, none);
}

void pendingFile::sync() const {
    translated(
        fPath,
        [&] {
            ORVA_File file;
            openOrThrow(file, fTemporary, "r+b", kWriteFailed);
            file.Sync();
        },
        fTemporary);
}

void pendingFile::commit(bool durable) {
    translated(
        fPath,
        [&] {
            hasToReplace();  // somebody else may have made a file meanwhile
            holdReplaced();
            std::error_code none;
            fs::permissions(fTemporary, fPermissions, none);
            const auto rename = bReplace ? &platform::renameFile : &platform::renameNew;
            if (rename(fTemporary.c_str(), fTarget.c_str()) != 0) throwFileError(errno, kWriteFailed, fTarget);
            bCommitted = true;
            forgetName();
            if (durable && platform::syncDirectoryOf(fTarget.c_str()) != 0) {
                throwFileError(errno, kWriteFailed, fTarget,
                               "the file is complete and has its name, but a power failure may undo the renaming");
            }
        },
        fTarget);
}

}  // namespace orva
