// The failures of the tool, the exit code of each, and the one place where exceptions become messages.
#pragma once

#include <orva/error.h>

#include <exception>
#include <stdexcept>
#include <string>

// Scripts depend on these values.
enum exitCode : int {
    kAllWell = 0,
    kOtherFailure = 1,
    kUsage = 2,
    kInputUnreadable = 3,   // an input cannot be opened or read
    kOutputUnwritable = 4,  // the output cannot be written
    kDamaged = 5,           // damaged or unfinished data
    kPartial = 7,           // done in part; the rest was impossible
};

// A failure that the tool itself found. `text` says what, where, and what to do next.
class toolFailure : public std::runtime_error {
public:
    toolFailure(exitCode code, std::string file, const std::string& text);

    exitCode code() const { return fCode; }
    const std::string& file() const { return fFile; }

private:
    exitCode fCode;
    std::string fFile;  // empty if no file is to blame
};

[[noreturn]] void usageError(const std::string& text);

// Throw orva::SystemError with the current errno.
[[noreturn]] void throwReadFailed(const std::string& file);
[[noreturn]] void throwWriteFailed(const std::string& file);

// Prints "orva: VERB: FILE: text" for the exception to standard error and returns its exit code. `subject` is the file
// of the verb, for failures that name none.
int reportFailure(const std::string& verbName, const std::string& subject, const std::exception_ptr& failure);

// The reason of the error, with dashes before the name of an option.
std::string reasonOf(const orva::Error& error);

// Prints a line on standard error that is no failure.
void note(const std::string& verbName, const std::string& file, const std::string& text);
