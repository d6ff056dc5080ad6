// translated: the only place that turns exceptions of the library's lower rooms into orva:: errors.
//
// Threads: no state.
#pragma once

#include <orva/error.h>
#include <orva/errors.h>
#include <orva/reader.h>

#include <cstdint>
#include <exception>
#include <string>

namespace orva {

// An exception of a ByteSource, a Progress or other code of the caller, which comes out unchanged.
struct callbackFailure {
    std::exception_ptr cause;
};
template <class Work>
auto callBack(Work work) {
    try {
        return work();
    } catch (...) {
        throw callbackFailure{std::current_exception()};
    }
}
inline void reportProgress(const Progress& progress, i64 done, i64 total) {
    if (progress) callBack([&] { progress(done, total); });
}

// For a catch block: throws the current exception as an orva:: error about `path`. `workName` is the file's name in the
// lower rooms, if it differs. `offset` is that of the rows that could not be read, if known.
[[noreturn]] void rethrowTranslated(const Path& path, const std::string& workName = {}, std::optional<i64> offset = {});

// Returns work(), or throws an orva:: error.
template <class Work>
auto translated(const Path& path, Work work, const std::string& workName = {}) {
    try {
        return work();
    } catch (...) {
        rethrowTranslated(path, workName);
    }
}

// True if the error says that the file does not exist or that the caller may not open it: the caller then goes on
// without the file. Other errors, such as too many open files, do not tell whether it exists.
bool isAbsentOrForbidden(int error);

// Throws UsageError about `path` unless `fulfilled`.
void require(bool fulfilled, const Path& path, const char* what);

// `threads`, at most 256; for 0 the number of cores. UsageError below 0.
std::uint32_t threadsAtWork(int threads, const Path& path);

// The reason for an Error about `path`, with the name of `file` unless that is `path` or `workName`.
std::string withName(const std::string& file, const Path& path, const std::string& reason,
                     const std::string& workName = {});
// The reason without the file's name.
std::string reasonOf(const ::DamagedFileError& damage);

}  // namespace orva
