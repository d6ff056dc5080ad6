// Raises every FileError of the library, with the codes of the catalog "datasrc.err".
#pragma once

#include <string>

inline constexpr long kWriteFailed = 1002;  // writing and closing
inline constexpr long kReadFailed = 1003;

namespace orva {

// `error` is an errno, or 0 if the cause is unknown. `outcome` says what became of the file, or what to do about it, if
// the errno does not say enough.
[[noreturn]] void throwFileError(int error, long code, const std::string& name, const std::string& outcome = {});

// Quotes `name` so that a shell takes it for a file, for commands that messages advise.
std::string shellWord(const std::string& name);

}  // namespace orva
