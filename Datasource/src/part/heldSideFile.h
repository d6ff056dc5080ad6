// heldSideFile: the side file of an append in its directory, held open so that no other file is taken for it. Made
// beside nobody's will: exclusively, for those who may read and write the data file; believed only where nobody else
// can have made it; removed only while the name still leads to it.
//
// Owner:   its descriptor, which a forked child just closes.
// Threads: one at a time.
// Failure: FileError with the side file's name; DamagedFileError for what is no side file.
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
    // Makes it, whole and durable. EEXIST if the name is taken. Leaves nothing behind where it fails.
    void make(const fileBytes& bytes);
    // False if the name is free. What cannot be a side file by its kind is damage.
    bool open();
    // False for one that somebody may have made who may not write the data file.
    bool isTrusted() const;
    // EPERM for such a one.
    void requireTrusted() const;
    // All of it, or its first `longest` bytes.
    fileBytes read(std::int64_t longest) const;
    // Durably.
    void remove();
    // Says that it is no side file, and that it stays.
    [[noreturn]] void refuseForeign() const;

private:
    void fill(const fileBytes& bytes);

    const std::string fDataName;
    const std::string fName;
    int fDescriptor = -1;
};

// Something stands under the name of the side file. Looking takes no descriptor, of which none may be left. FileError
// where the system cannot tell.
bool hasSideFile(const std::string& dataName);

// Whether a side file that `side` tells of is one that those made who may write the data file, root, or the caller.
bool canBeTrusted(const platform::fileAccess& side, const platform::fileAccess& data,
                  const platform::fileAccess& directory, std::uint32_t caller);

}  // namespace orva
