// How every FileError of the library is raised, and the codes of the catalog "datasrc.err" that it is raised with.
#pragma once

#include <string>

inline constexpr long kWriteFailed = 1002;  // writing and closing
inline constexpr long kReadFailed = 1003;

namespace orva {

// `error` is an errno, 0 where the cause is not known. `outcome`: what became of the file, or what to do about it, if
// there is more to say than the errno does.
[[noreturn]] void throwFileError(int error, long code, const std::string& name, const std::string& outcome = {});

// `name` as a shell takes it for a file: for the commands that messages tell to run.
std::string shellWord(const std::string& name);

}  // namespace orva
