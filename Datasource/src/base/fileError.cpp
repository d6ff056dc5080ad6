#include "base/fileError.h"

#include <orva/errtext.h>
#include <orva/platform.h>

namespace orva {

void throwFileError(int error, long code, const std::string& name) {
    platform::setErrno(error);
    ThrowError::StringSys("datasrc.err", code, name.c_str());
}

void throwFileError(int error, long code, const std::string& name, const std::string& outcome) try {
    throwFileError(error, code, name);
} catch (const FileError& failure) {
    throw failure.withOutcome(outcome);
}

}  // namespace orva
