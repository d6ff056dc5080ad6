// translated: the one place where what the rooms below throw becomes one of the face's errors.
//
// Threads: no state.
#pragma once

#include <orva/error.h>
#include <orva/errors.h>

#include <cstdint>
#include <exception>
#include <string>

namespace orva {

// What a ByteSource, a Progress or other code of the caller's has thrown: it comes out unchanged.
struct callersFailure {
    std::exception_ptr cause;
};
template <class Work>
auto callersOwn(Work work) {
    try {
        return work();
    } catch (...) {
        throw callersFailure{std::current_exception()};
    }
}

// In a handler: throws what was caught as one of the face's errors about `path`. `workName`: the name that the file has
// for the rooms below, where that is another one. `offset`: of the rows that cannot be had, where that is known.
[[noreturn]] void rethrowTranslated(const Path& path, const std::string& workName = {}, std::optional<i64> offset = {});

// What work() gives, or an error of the face.
template <class Work>
auto translated(const Path& path, Work work, const std::string& workName = {}) {
    try {
        return work();
    } catch (...) {
        rethrowTranslated(path, workName);
    }
}

// True for an error that says that a file is not there, or that the caller may not open it: he goes on without it. Any
// other, as where no more files can be opened, does not say whether there is one.
bool goesWithout(int error);

// A call that cannot be meant.
void require(bool fulfilled, const Path& path, const char* what);

// As many as there are cores for 0. UsageError below that.
std::uint32_t threadsAtWork(int threads, const Path& path);

// The reason of an Error about `path`: with the file's name where the caller knows it by neither that nor `workName`.
std::string withName(const std::string& file, const Path& path, const std::string& reason,
                     const std::string& workName = {});
// Without the file's name.
std::string reasonOf(const ::DamagedFileError& damage);

}  // namespace orva
