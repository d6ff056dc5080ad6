#include "pendingFile.h"

#include "signals.h"
#include "system.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

// What all of these allow, as far as they are regular files.
fs::perms commonPermissions(const std::vector<std::string>& names) {
    fs::perms common{0666};
    std::error_code none;
    for (const std::string& name : names) {
        const fs::file_status status = fs::status(name, none);
        if (fs::is_regular_file(status)) common &= status.permissions();
    }
    return common;
}

}  // namespace

void outputOptions::addTo(CLI::App& app) {
    app.add_flag("-f,--force", force, "Replace an existing output");
    app.add_flag("--no-sync", noSync, "Leave it to the system when the output reaches the disk");
}

pendingFile::pendingFile(const std::string& name, const outputOptions& options, const std::vector<std::string>& inputs)
    : fName(name), fTarget(orva::outputTarget(name)), fOptions(options), fPermissions(commonPermissions(inputs)) {
    refuseIfTaken();
    holdReplaced();
    create();
}

pendingFile::~pendingFile() {
    if (!bCommitted) platform::removeFile(fTemporary.c_str());
    removeOnSignal({});
    if (fReplaced >= 0) platform::closeAnyway(fReplaced);
}

// Exclusively: in a directory that others can write to, nobody can have put a link there. Never for more people than
// the finished file, and its user can write to it until then.
void pendingFile::create() {
    std::error_code none;
    const fs::file_status old = fs::status(fTarget, none);
    if (fs::is_regular_file(old)) fPermissions = old.permissions();
    const fs::perms meanwhile = fPermissions | fs::perms::owner_write;
    int descriptor = -1;
    do {
        fTemporary = orva::hiddenNameBeside(fTarget);
        removeOnSignal(fTemporary);
        constexpr int mode = platform::_O_WRONLY | platform::_O_CREAT | platform::_O_EXCL;
        descriptor = platform::openShared(fTemporary.c_str(), mode, 0, static_cast<int>(meanwhile & fs::perms::all));
    } while (descriptor < 0 && errno == EEXIST);
    if (descriptor < 0) {
        removeOnSignal({});
        throwWriteFailed(fName);
    }
    platform::closeAnyway(descriptor);
    if (fs::is_regular_file(old)) fs::permissions(fTemporary, meanwhile, none);
}

// Whoever appends to the old file would add to one that nobody can find any more.
void pendingFile::holdReplaced() {
    if (fReplaced >= 0 && platform::sameFile(fReplaced, fTarget.c_str())) return;
    if (fReplaced >= 0) platform::closeAnyway(fReplaced);
    fReplaced = lockAgainstWriters(fTarget);
    if (fReplaced < 0 && errno == EWOULDBLOCK) throwWriteFailed(fName);
}

void pendingFile::refuseIfTaken() const {
    std::error_code none;
    const fs::file_status status = fs::status(fTarget, none);
    if (!fs::exists(status)) return;
    if (!fs::is_regular_file(status)) {
        throw toolFailure(kOutputUnwritable, fName, "is not a regular file: name one that can be made or replaced");
    }
    if (!fOptions.force) {
        throw toolFailure(kOutputUnwritable, fName, "already exists: use -f to replace it, or -o to name another file");
    }
}

void pendingFile::sync() const {
    const int descriptor = platform::openShared(fTemporary.c_str(), platform::_O_RDONLY, 0, 0);
    if (descriptor < 0) throwWriteFailed(fName);
    const int result = platform::syncData(descriptor);
    const int error = errno;
    platform::_close(descriptor);
    platform::setErrno(error);
    if (result != 0) throwWriteFailed(fName);
}

void pendingFile::commit() {
    if (!fOptions.noSync) sync();
    refuseIfTaken();  // by somebody else, meanwhile
    holdReplaced();
    std::error_code none;
    if ((fPermissions & fs::perms::owner_write) == fs::perms::none) {
        fs::permissions(fTemporary, fs::perms::owner_write, fs::perm_options::remove, none);
    }
    if (platform::renameFile(fTemporary.c_str(), fTarget.c_str()) != 0) throwWriteFailed(fName);
    bCommitted = true;
    removeOnSignal({});
    if (!fOptions.noSync && platform::syncDirectoryOf(fTarget.c_str()) != 0) throwWriteFailed(fName);
}

void pendingFile::throwAsFinal(const FileError& failure) const {
    if (failure.fileName() != fTemporary) throw;
    throw FileError(failure.code().value(), failure.catalog().c_str(), failure.messageCode(), fName.c_str());
}
