// platformOwner: whose a file is and who may write it, and what takes care not to touch another file than was meant.
//
// Owner:   nothing is kept.
// Threads: every call, from any thread.
// Failure: false or -1 with errno. Nothing throws.
#pragma once

#include <orva/hostApi.h>

#include <cstdint>

namespace platform {

struct fileAccess {
    std::uint64_t device;
    std::uint64_t inode;
    std::uint64_t links;
    std::uint32_t user;
    std::uint32_t group;
    std::uint32_t mode;  // the permission bits with set-group-id (02000)
    bool regular;
};
inline constexpr std::uint32_t kSetGroup = 02000, kGroupWrite = 020, kOthersWrite = 02;

ORVA_HOST_API bool accessOf(int descriptor, fileAccess& access) noexcept;
// Follows links.
ORVA_HOST_API bool accessOf(const char* name, fileAccess& access) noexcept;
// Of the directory that holds `name`.
ORVA_HOST_API bool accessOfDirectory(const char* name, fileAccess& access) noexcept;

// The user in whose right this process works.
ORVA_HOST_API std::uint32_t callingUser() noexcept;

// Gives the file of `descriptor` the group and the access list of the file `like`, and root gives it the owner too;
// then the same people may read and write it. Where the group cannot be given, only those may whom `like` lets whatever
// their group, and where the list cannot, its owner alone. Tells the whole mode by which that holds. A system that
// knows no such things leaves the file as it is.
ORVA_HOST_API std::uint32_t giveAccess(int descriptor, const char* like) noexcept;

// Whatever it is: a link that leads nowhere counts. False, with an errno, too where the system cannot tell.
ORVA_HOST_API bool isNameTaken(const char* name) noexcept;

// Removes `name` if it is the file of `descriptor`; another file that has the name by now stays. -1 if the system does
// not remove it.
ORVA_HOST_API int removeIfSame(const char* name, int descriptor) noexcept;

}  // namespace platform
