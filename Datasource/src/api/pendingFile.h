// pendingFile: an output that stands under a hidden name beside its own until it is complete: under its name there is
// the old file or the whole new one, never a part. The old one is locked against writers until it has been replaced.
//
// Owner:   the hidden file, which goes on every failing path.
// Threads: one at a time.
// Fork:    a child removes nothing.
// Failure: SystemError, FileError with the file's full name.
#pragma once

#include <orva/error.h>
#include <orva/platform.h>

#include <cstdint>
#include <filesystem>
#include <string>

namespace orva {

class pendingFile {
public:
    // Makes the hidden file, empty. EEXIST for a name that is taken, unless it is to be replaced; EWOULDBLOCK for one
    // that is being written to. Who may use the file: whoever may use the one that it replaces, else all less the
    // umask.
    pendingFile(const Path& path, bool replace);
    pendingFile(const pendingFile&) = delete;
    pendingFile& operator=(const pendingFile&) = delete;
    ~pendingFile();

    // Full names: of the hidden file, and of the one that it becomes, where links lead to.
    const std::string& temporaryName() const { return fTemporary; }
    const std::string& target() const { return fTarget; }
    // Gives the file its name, `durable` durably. What is in it is the caller's to sync before.
    void commit(bool durable);

private:
    void refuseIfTaken() const;
    void holdReplaced();
    void create();

    const Path fPath;  // as the caller wrote it
    const std::string fTarget;
    const bool bReplace;
    std::filesystem::perms fPermissions{0666};
    std::string fTemporary;
    int fReplaced = -1;  // the old file, locked; -1 if there is none that can be read
    bool bCommitted = false;
    const std::int64_t fProcess = platform::processId();
};

}  // namespace orva
