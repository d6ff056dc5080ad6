// heldSideFile: the side file of an append, held open so that no other file is taken for it. It is created exclusively,
// with access for those who may read and write the data file; trusted only if nobody else can have made it; and removed
// only while its name still leads to it.
//
// Owner:   owns its descriptor; the destructor only closes it, also in a forked child.
// Threads: one at a time.
// Failure: FileError with the side file's name; DamagedFileError for a file that is no side file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {
struct fileAccess;
}

namespace orva {

using fileBytes = std::vector<unsigned char>;

class heldSideFile {
public:
    explicit heldSideFile(const std::string& dataName);
    heldSideFile(const heldSideFile&) = delete;
    heldSideFile& operator=(const heldSideFile&) = delete;
    ~heldSideFile();

    const std::string& name() const { return fName; }
    // Creates it with this content, durably. EEXIST if the name is taken. Leaves no file behind on failure.
    void make(const fileBytes& bytes);
    // False if there is none. DamagedFileError for anything but a regular file.
    bool open();
    // False if a user who may not write the data file may have made or written it.
    bool isTrusted() const;
    // Throws FileError with EPERM unless it is trusted.
    void requireTrusted() const;
    // All of it, but at most its first `longest` bytes; empty if it shrinks meanwhile.
    fileBytes read(std::int64_t longest) const;
    // Removes it durably, unless its name leads to another file by now.
    void remove();
    // Throws DamagedFileError: the file is no side file, and is left alone.
    [[noreturn]] void refuseForeign() const;

private:
    const std::string fDataName;
    const std::string fName;
    int fDescriptor = -1;
};

// True if anything has the name of the side file. Uses no descriptor, since none may be left. FileError if the system
// cannot tell.
bool hasSideFile(const std::string& dataName);

// True if only root, the caller, or users who may write the data file can have made or written the side file, which has
// the access `side` and is in the directory of the access `directory`.
bool canBeTrusted(const platform::fileAccess& side, const platform::fileAccess& data,
                  const platform::fileAccess& directory, std::uint32_t caller);

}  // namespace orva
