// An output file that stands under a temporary name beside its final one until it is complete: under the final name
// there is the old file or the whole new one, never a part. The temporary goes on every failing path, and when a
// signal ends the process. The old file is locked against writers until it has been replaced.
//
// Threads: one pendingFile at a time in a process, for the signal handler knows one name.
// Failure: FileError (1002), with the final name.
#pragma once

#include "failure.h"

#include <orva/orva.h>

#include <filesystem>
#include <string>
#include <vector>

namespace CLI {
class App;
}

struct outputOptions {
    bool force = false;
    bool noSync = false;

    void addTo(CLI::App& app);
};

class pendingFile {
public:
    // Creates the temporary, empty. Refuses a final name that is taken, unless forced, or being written to. Who may use
    // the file: whoever may use the one that it replaces, else all of `inputs`, less the umask.
    pendingFile(const std::string& name, const outputOptions& options, const std::vector<std::string>& inputs);
    pendingFile(const pendingFile&) = delete;
    pendingFile& operator=(const pendingFile&) = delete;
    ~pendingFile();

    const std::string& temporaryName() const { return fTemporary; }
    // Makes the file durable, unless told not to, and gives it its final name.
    void commit();

    // Runs work on the temporary; what fails there is told of the final name.
    template <class Work>
    void during(Work work) {
        try {
            work();
        } catch (const FileError& e) {
            throwAsFinal(e);
        } catch (const FileReopenError& e) {
            throw asFileError(e, fName);
        }
    }

private:
    void create();
    void holdReplaced();
    void sync() const;
    void refuseIfTaken() const;
    [[noreturn]] void throwAsFinal(const FileError& failure) const;

    const std::string fName;    // as the user gave it, for messages
    const std::string fTarget;  // where links lead to
    const outputOptions fOptions;
    std::filesystem::perms fPermissions;
    std::string fTemporary;
    int fReplaced = -1;  // the old file, locked; -1 if there is none that can be read
    bool bCommitted = false;
};
