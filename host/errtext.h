// errtext: the failure that reaches whoever called a file operation. It carries what a program needs to decide (the
// errno, the message catalog and code, the file) and a text that the person in front of it can act on.
//
// Owner:   a FileError shares its immutable details with its copies, so copying one cannot fail.
// Threads: a FileError may be read and copied from any thread.
// Failure: making one needs memory: bad_alloc takes its place when there is none.
#pragma once

#include <orva/hostApi.h>

#include <memory>
#include <string>
#include <system_error>

class ORVA_HOST_API FileError : public std::system_error {
public:
    // `error` is an errno, 0 where the cause is not known. Null texts count as empty ones.
    FileError(int error, const char* catalog, long messageCode, const char* fileName);
    FileError(const FileError&) noexcept = default;
    FileError& operator=(const FileError&) noexcept = default;
    ~FileError() override;

    const std::string& catalog() const noexcept;
    // 1002: writing, closing, syncing or cutting. 1003: reading.
    long messageCode() const noexcept;
    const std::string& fileName() const noexcept;
    // One line: what could not be done to which file, why, and what to do about it where that is clear.
    const char* what() const noexcept override;
    // The same without the file's name and the catalog, for who tells the name elsewhere.
    const std::string& reason() const noexcept;
    // The same failure, with what became of the file at the end of its text.
    FileError withOutcome(const std::string& outcome) const;

private:
    struct Details;
    std::shared_ptr<const Details> fDetails;
};

class ORVA_HOST_API ThrowError {
public:
    // Throws FileError with the errno of the call that has just failed; `text` is the file's name. Nothing that may
    // change errno belongs between the two.
    [[noreturn]] static void StringSys(const char* catalog, long code, const char* text);
};
