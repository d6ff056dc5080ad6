// platformOwner: owner and permissions of a file, and calls that touch no file but the one meant.
//
// Owner:   no state.
// Threads: any.
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

// The effective user of this process.
ORVA_HOST_API std::uint32_t callingUser() noexcept;

// Gives the file of `descriptor` the group and the access list of the file `like`, and as root its owner too, so that
// the same users may read and write it. If the group cannot be given, group and others get only what `like` grants to
// both; if the list cannot, only the owner gets access. Returns the whole mode for such access, of which only the read
// and write bits are set here. A system without groups and lists leaves the file as it is.
ORVA_HOST_API std::uint32_t giveAccess(int descriptor, const char* like) noexcept;

// Removes `name` if it names the file of `descriptor`; any other file that has the name by now stays. 0 in both cases,
// -1 if the system cannot tell or does not remove it.
ORVA_HOST_API int removeIfSame(const char* name, int descriptor) noexcept;

}  // namespace platform
