// The errors of orva::Reader, Rows, Writer, the streams and the functions on whole files. Every text says which file,
// what could not be done, why, and what to do next.
//
//   Error                  the family; itself never thrown
//   +- SystemError         the system refuses: no such file, no right, a full disk, another writer; see code()
//   +- DamagedFileError    the bytes of a file cannot be what they claim to be
//   +- UnfinishedFileError its writer has not finished, or an append to it is at work or was interrupted
//   +- FileChangedError    the file was written to since it was opened: Reader::refresh() shows it as it is now
//   +- UsageError          the call cannot be meant; nothing was changed
//
// Out of memory is std::bad_alloc. The global classes of the same names, such as ::DamagedFileError, are others: they
// belong to the streams below this face (errors.h).
//
// Owner:   copies of an error share its immutable details, so copying one cannot fail.
// Threads: plain values.
#pragma once

#include <orva/orvaApi.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>

namespace orva {

using i64 = std::int64_t;
using Path = std::filesystem::path;
using Bytes = std::span<std::byte>;

class ORVA_API Error : public std::runtime_error {
public:
    // what() is "PATH": REASON; ADVICE, without the parts that are empty.
    Error(const std::string& reason, const Path& path, std::optional<i64> offset = {}, std::optional<i64> block = {},
          const std::string& advice = {});
    ~Error() override;

    // The parts of what(), for a program that shows the file's name itself. The reason says what could not be done,
    // why, and what helps with every such failure. The advice says what to do about this file, as a command with its
    // name; it may be empty.
    const std::string& reason() const noexcept;
    const std::string& advice() const noexcept;

    // The file as the caller named it; empty if the error concerns no file, or one without a name.
    const Path& path() const noexcept;
    // Where the rows begin that could not be read, in bytes from the first one, and the number of their block, from 0;
    // each if known.
    std::optional<i64> offset() const noexcept;
    std::optional<i64> block() const noexcept;

private:
    struct Details;
    std::shared_ptr<const Details> fDetails;
};

class ORVA_API SystemError : public Error {
public:
    SystemError(std::error_code code, const std::string& reason, const Path& path, bool writing = false);
    ~SystemError() override;

    // Compares with std::errc: ENOENT no such file, EEXIST the file exists already, EWOULDBLOCK another writer is at
    // work on it, ENOSPC the disk is full.
    std::error_code code() const noexcept { return fCode; }
    // True if the file was to be made, written or replaced; false if it was to be read.
    bool writing() const noexcept { return bWriting; }

private:
    std::error_code fCode;
    bool bWriting;
};

class ORVA_API DamagedFileError : public Error {
public:
    using Error::Error;
    ~DamagedFileError() override;
};

class ORVA_API UnfinishedFileError : public Error {
public:
    using Error::Error;
    ~UnfinishedFileError() override;
};

class ORVA_API FileChangedError : public Error {
public:
    using Error::Error;
    ~FileChangedError() override;
};

class ORVA_API UsageError : public Error {
public:
    using Error::Error;
    ~UsageError() override;
};

}  // namespace orva
