#include "base/fileError.h"

#include <orva/errtext.h>

#include <cerrno>

namespace orva {

void throwFileError(int error, long code, const std::string& name, const std::string& outcome) try {
    errno = error;
    ThrowError::StringSys("datasrc.err", code, name.c_str());
} catch (const FileError& failure) {
    if (outcome.empty()) throw;
    throw failure.withOutcome(outcome);
}

std::string shellWord(const std::string& name) {
    constexpr const char* plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./+,:@%=-";
    std::string word = (name.starts_with('-') ? "./" : "") + name;
    if (word.find_first_not_of(plain) == std::string::npos) return word;
    for (std::size_t at = 0; (at = word.find('\'', at)) != std::string::npos; at += 4) word.replace(at, 1, "'\\''");
    return '\'' + word + '\'';
}

}  // namespace orva
