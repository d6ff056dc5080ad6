// pendingFile: an output of any kind that stands under a hidden name beside its own until it is complete: under its
// name there is the old file or the whole new one, never a part. The old one is locked against writers until it has
// been replaced. Writer, join and recover make their files by it.
//
// Owner:   the hidden file, which goes on every failing path.
// Threads: one at a time.
// Fork:    a child removes and unlocks nothing.
// Failure: SystemError.
#pragma once

#include <orva/error.h>
#include <orva/orvaApi.h>

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>

namespace orva {

struct hiddenName;

class ORVA_API pendingFile {
public:
    // Makes the hidden file, empty. EEXIST for a name that is taken, unless it is to be replaced, EISDIR or EINVAL for
    // what is no file to replace; EWOULDBLOCK for one that is being written to. Who may use the file: whoever may use
    // the one that it replaces, whose group and access list it gets, and by root its owner, else `permissions` less the
    // umask. A link keeps standing, and the file that it leads to is made.
    explicit pendingFile(const Path& path, bool replace = false,
                         std::filesystem::perms permissions = std::filesystem::perms{0666});
    pendingFile(const pendingFile&) = delete;
    pendingFile& operator=(const pendingFile&) = delete;
    // Removes the hidden file, if it has not got its name.
    ~pendingFile();

    // Full names: of the hidden file, and of the one that it becomes, where links lead to.
    const std::string& temporaryName() const { return fTemporary; }
    const std::string& target() const { return fTarget; }
    // Returns once what is in the file would survive a loss of power.
    void sync() const;
    // Gives the file its name, `durable` durably.
    void commit(bool durable);

private:
    // Throws where the name is taken by what is not to be replaced.
    ORVA_LOCAL bool hasToReplace() const;
    ORVA_LOCAL void holdReplaced();
    ORVA_LOCAL void create(bool replaces);
    ORVA_LOCAL void forgetName();

    const Path fPath;  // as the caller wrote it
    std::string fTarget;
    const bool bReplace;
    std::filesystem::perms fPermissions;  // once the hidden file is there, as the finished one will have them
    std::string fTemporary;
    hiddenName* fShown = nullptr;  // fTemporary, for remove_unfinished
    int fReplaced = -1;            // the old file, locked; -1 if there is none that can be read
    bool bCommitted = false;
    const std::int64_t fProcess;
};

// What those allow to whom they all allow it, as far as they are regular files: for who makes one file of them, which
// is then no less of a secret.
ORVA_API std::filesystem::perms commonPermissions(std::span<const Path> files);

// For a handler of a signal that goes on to end the process: removes the hidden file of everything in it that is not
// finished. Async-signal-safe. Rows that an append has added are not undone by it: its side file stays
// (docs/recovery.md).
ORVA_API void remove_unfinished() noexcept;

}  // namespace orva
