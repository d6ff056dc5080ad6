#include <orva/platform.h>

#include <cerrno>

#ifdef __linux__
#include <unistd.h>
#endif

namespace platform {

#ifdef __linux__
std::int64_t copyRange(int from, std::int64_t fromOffset, int to, std::int64_t toOffset, std::int64_t count) noexcept {
    for (;;) {
        const ssize_t moved = ::copy_file_range(from, &fromOffset, to, &toOffset, static_cast<std::size_t>(count), 0);
        if (moved >= 0 || errno != EINTR) return moved;
    }
}
#else
std::int64_t copyRange(int, std::int64_t, int, std::int64_t, std::int64_t) noexcept {
    errno = ENOSYS;
    return -1;
}
#endif

}  // namespace platform
