// pendingFile: an output file of any kind, under a hidden name in the same directory until it is complete. Its own name
// leads to the old file or to the whole new one, never to a part. The old file is locked against writers until it has
// been replaced. Writer, join and recover make their files by this class.
//
// Owner:   the hidden file, which every failing path removes.
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
    // Makes the hidden file, empty. EEXIST if the name is taken and `replace` is off; EISDIR or EINVAL if it is not a
    // regular file; EWOULDBLOCK if the file to replace is being written to. The new file gets mode, group and access
    // list of the one that it replaces, and its owner if root makes it; else `permissions` less the umask. A symbolic
    // link stays, and the file that it leads to is made.
    explicit pendingFile(const Path& path, bool replace = false,
                         std::filesystem::perms permissions = std::filesystem::perms{0666});
    pendingFile(const pendingFile&) = delete;
    pendingFile& operator=(const pendingFile&) = delete;
    // Removes the hidden file unless commit() has named it.
    ~pendingFile();

    // Full names of the hidden file and of the one that it becomes, links resolved.
    const std::string& temporaryName() const { return fTemporary; }
    const std::string& target() const { return fTarget; }
    // Returns once the file's content would survive a loss of power.
    void sync() const;
    // Gives the file its name, and syncs the directory if `durable`.
    void commit(bool durable);

private:
    // True if a regular file stands there and may be replaced. Throws for anything that may not.
    ORVA_LOCAL bool hasToReplace() const;
    ORVA_LOCAL void holdReplaced();
    ORVA_LOCAL void create(bool replaces);
    ORVA_LOCAL void forgetName();

    const Path fPath;  // as the caller wrote it
    std::string fTarget;
    const bool bReplace;
    std::filesystem::perms fPermissions;  // of the finished file, once the hidden one exists
    std::string fTemporary;
    hiddenName* fShown = nullptr;  // fTemporary's entry for remove_unfinished
    int fReplaced = -1;            // descriptor of the old file, locked; -1 if there is none that can be read
    bool bCommitted = false;
    const std::int64_t fProcess;
};

// The mode that all of these allow, as far as they are regular files: a file made of them should be as secret as each.
ORVA_API std::filesystem::perms commonPermissions(std::span<const Path> files);

// For a signal handler that goes on to end the process: removes all its hidden files that are not finished.
// Async-signal-safe. Does not undo rows that an append has added: its side file stays (docs/recovery.md).
ORVA_API void remove_unfinished() noexcept;

}  // namespace orva
