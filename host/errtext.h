// errtext: FileError, the exception of a failed file operation. It carries what a program needs to decide (the errno,
// the message catalog and code, the file's name) and a text that its user can act on.
//
// Owner:   copies of a FileError share its immutable details, so copying one cannot fail.
// Threads: any thread may read and copy a FileError.
// Failure: constructing one may throw bad_alloc instead.
#pragma once

#include <orva/hostApi.h>

#include <memory>
#include <string>
#include <system_error>

class ORVA_HOST_API FileError : public std::system_error {
public:
    // `error` is an errno, or 0 if the cause is unknown. A null text counts as empty.
    FileError(int error, const char* catalog, long messageCode, const char* fileName);
    FileError(const FileError&) noexcept = default;
    FileError& operator=(const FileError&) noexcept = default;
    ~FileError() override;

    const std::string& catalog() const noexcept;
    // 1002: writing, closing, syncing or cutting. 1003: reading.
    long messageCode() const noexcept;
    const std::string& fileName() const noexcept;
    // One line: what could not be done to which file, why, and, if that is clear, what to do about it.
    const char* what() const noexcept override;
    // The same without the file's name, the catalog and the code, for a caller that shows the name itself.
    const std::string& reason() const noexcept;
    // A copy whose texts end in `outcome`, which says what became of the file.
    FileError withOutcome(const std::string& outcome) const;

private:
    struct Details;
    std::shared_ptr<const Details> fDetails;
};

class ORVA_HOST_API ThrowError {
public:
    // Throws FileError with the current errno; `text` is the file's name. Call it right after the failed call, before
    // anything can change errno.
    [[noreturn]] static void StringSys(const char* catalog, long code, const char* text);
};
