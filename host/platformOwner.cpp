#include <orva/platform.h>
#include <orva/platformOwner.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace platform {
namespace {

fileAccess accessIn(const struct stat& status) {
    return {static_cast<std::uint64_t>(status.st_dev),
            static_cast<std::uint64_t>(status.st_ino),
            static_cast<std::uint64_t>(status.st_nlink),
            status.st_uid,
            status.st_gid,
            static_cast<std::uint32_t>(status.st_mode & 07777),
            S_ISREG(status.st_mode)};
}

bool areSame(const fileAccess& one, const fileAccess& other) {
    return one.device == other.device && one.inode == other.inode;
}

}  // namespace

bool accessOf(int descriptor, fileAccess& access) noexcept {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return false;
    access = accessIn(status);
    return true;
}

bool accessOf(const char* name, fileAccess& access) noexcept {
    struct stat status {};
    if (::stat(name, &status) != 0) return false;
    access = accessIn(status);
    return true;
}

bool accessOfDirectory(const char* name, fileAccess& access) noexcept {
    try {
        const std::string directory = std::filesystem::path(name).parent_path().string();
        return accessOf(directory.empty() ? "." : directory.c_str(), access);
    } catch (...) {
        errno = ENOMEM;
        return false;
    }
}

std::uint32_t callingUser() noexcept {
    return ::geteuid();
}

void giveAccess(int descriptor, const fileAccess& like) noexcept {
    const uid_t owner = callingUser() == 0 ? like.user : static_cast<uid_t>(-1);
    const bool grouped = ::fchown(descriptor, owner, like.group) == 0;
    const std::uint32_t forAll = like.mode & (like.mode >> 3) & 06;
    const std::uint32_t bits = grouped ? like.mode & 0066 : forAll << 3 | forAll;
    const int ignored = ::fchmod(descriptor, static_cast<mode_t>(0600 | bits));
    static_cast<void>(ignored);
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

bool linkTarget(const char* name, char* target) noexcept {
    static_assert(kLongestName + 1 >= PATH_MAX);
    struct stat own {};
    return ::lstat(name, &own) == 0 && S_ISLNK(own.st_mode) && ::realpath(name, target) != nullptr;
}

bool isNameTaken(const char* name) noexcept {
    struct stat status {};
    return ::lstat(name, &status) == 0;
}

int removeIfSame(const char* name, int descriptor) noexcept {
    fileAccess own{};
    struct stat named {};
    if (!accessOf(descriptor, own)) return -1;
    if (::lstat(name, &named) != 0) return errno == ENOENT ? 0 : -1;
    if (!areSame(own, accessIn(named))) return 0;
    return removeFile(name) == 0 || errno == ENOENT ? 0 : -1;
}

}  // namespace platform
