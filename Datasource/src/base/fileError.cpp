#include "base/fileError.h"

#include <orva/errtext.h>
#include <orva/platform.h>

namespace orva {

void throwFileError(int error, long code, const std::string& name, const std::string& outcome) try {
    platform::setErrno(error);
    ThrowError::StringSys("datasrc.err", code, name.c_str());
} catch (const FileError& failure) {
    if (outcome.empty()) throw;
    throw failure.withOutcome(outcome);
}

}  // namespace orva
