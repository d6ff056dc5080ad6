// What goes wrong in orva::Reader, Rows, Writer, the streams and the functions on whole files, as one family: every
// text says what could not be done to which file, why, and what to do next.
//
//   Error                  the family; itself never thrown
//   +- SystemError         the system refuses: no such file, no right, a full disk, another writer. code() tells
//   +- DamagedFileError    the bytes of a file cannot be what they claim to be
//   +- UnfinishedFileError its writer has not finished, or an append to it is at work or was interrupted
//   +- FileChangedError    the file was written to since it was opened: Reader::refresh() shows it as it is now
//   +- UsageError          the call cannot be meant; nothing was changed
//
// Out of memory is std::bad_alloc. The global names beside these, as ::DamagedFileError, are other classes, of the
// streams below (errors.h).
//
// Owner:   errors share their immutable details with their copies, so copying one cannot fail.
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
    // what() gives the path, quoted, `reason` and `advice`, as far as there are these: "PATH": REASON; ADVICE
    Error(const std::string& reason, const Path& path, std::optional<i64> offset = {}, std::optional<i64> block = {},
          const std::string& advice = {});
    ~Error() override;

    // The parts of what(), for a program that shows the file's name itself. The reason: what could not be done, why,
    // and what helps with every such failure. The advice: what to do about this file, as a command with its name;
    // empty where there is none.
    const std::string& reason() const noexcept;
    const std::string& advice() const noexcept;

    // The file, as the caller named it; empty where no file has to do with it, or one without a name.
    const Path& path() const noexcept;
    // Where the rows begin that cannot be had, in bytes from the first one, and the number of their block, from 0; each
    // where it is known.
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

    // Compares with std::errc: ENOENT no such file, EEXIST it is there already, EWOULDBLOCK another writer is at work
    // on it, ENOSPC the disk is full.
    std::error_code code() const noexcept { return fCode; }
    // The file was to be made, written or replaced, and not read.
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
