#include <orva/platform.h>
#include <orva/platformOwner.h>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace platform {
namespace {

// Converts `status`, which a call has filled in if its `result` is 0.
bool converted(int result, const struct stat& status, fileAccess& access) {
    if (result != 0) return false;
    access = {static_cast<std::uint64_t>(status.st_dev),
              static_cast<std::uint64_t>(status.st_ino),
              static_cast<std::uint64_t>(status.st_nlink),
              status.st_uid,
              status.st_gid,
              static_cast<std::uint32_t>(status.st_mode & 07777),
              S_ISREG(status.st_mode)};
    return true;
}

constexpr std::uint32_t kOwners = 0600;

// The access list: who else may use a file. With one, the group bits of the mode limit everybody on it.
constexpr const char* kAccessList = "system.posix_acl_access";

// Gives the file of `descriptor` the list of `like` if it has got the group too; else removes the one that it may have
// from its directory. True if both files have the same list, or none, afterwards.
bool copyAccessList(const char* like, int descriptor, bool groupGiven) try {
    const ssize_t size = ::getxattr(like, kAccessList, nullptr, 0);
    if (size > 0 && groupGiven) {
        std::string list(static_cast<std::size_t>(size), '\0');
        return ::getxattr(like, kAccessList, list.data(), list.size()) == size &&
               ::fsetxattr(descriptor, kAccessList, list.data(), list.size(), 0) == 0;
    }
    const bool hasNone =
        ::fremovexattr(descriptor, kAccessList) == 0 || ::fgetxattr(descriptor, kAccessList, nullptr, 0) <= 0;
    return hasNone && size <= 0;
} catch (...) {
    return false;
}

bool areSame(const fileAccess& one, const fileAccess& other) {
    return one.device == other.device && one.inode == other.inode;
}

}  // namespace

bool accessOf(int descriptor, fileAccess& access) noexcept {
    struct stat status {};
    return converted(::fstat(descriptor, &status), status, access);
}

bool accessOf(const char* name, fileAccess& access) noexcept {
    struct stat status {};
    return converted(::stat(name, &status), status, access);
}

std::uint32_t callingUser() noexcept {
    return ::geteuid();
}

std::uint32_t giveAccess(int descriptor, const char* like) noexcept {
    fileAccess wanted{};
    fileAccess own{};
    if (!accessOf(like, wanted)) return kOwners;
    [[maybe_unused]] const int owned =
        ::fchown(descriptor, callingUser() == 0 ? wanted.user : static_cast<uid_t>(-1), wanted.group);
    const bool groupGiven = accessOf(descriptor, own) && own.group == wanted.group;
    const std::uint32_t forAll = wanted.mode & (wanted.mode >> 3) & 07;
    std::uint32_t mode = groupGiven ? wanted.mode : (wanted.mode & 0700) | forAll << 3 | forAll;
    if (!copyAccessList(like, descriptor, groupGiven)) mode &= 0700;
    [[maybe_unused]] const int allowed = ::fchmod(descriptor, static_cast<mode_t>(kOwners | (mode & 0066)));
    return mode;
}

bool sameFile(const char* name, const char* otherName) noexcept {
    fileAccess one{};
    fileAccess other{};
    return accessOf(name, one) && accessOf(otherName, other) && areSame(one, other);
}

bool sameFile(int descriptor, const char* name) noexcept {
    fileAccess opened{};
    fileAccess named{};
    return accessOf(descriptor, opened) && accessOf(name, named) && areSame(opened, named);
}

int removeIfSame(const char* name, int descriptor) noexcept {
    fileAccess own{};
    fileAccess named{};
    struct stat status {};
    if (!accessOf(descriptor, own)) return -1;
    if (!converted(::lstat(name, &status), status, named)) return errno == ENOENT ? 0 : -1;
    if (!areSame(own, named)) return 0;
    return removeFile(name) == 0 || errno == ENOENT ? 0 : -1;
}

}  // namespace platform
