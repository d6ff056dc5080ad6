// The exceptions of the library beside FileError (errtext.h): DamagedFileError for bytes that cannot be what they claim
// to be, FileChangedError if another process's append is the reason, SystemFileException for a file that could not be
// opened again.
//
// Owner:   copies of a DamagedFileError share its immutable details, so copying one cannot fail.
// Threads: plain values; a failure on a worker's thread is thrown on the thread of the stream's caller.
#pragma once

#include <orva/orvaApi.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

// A file's heading, index or block is damaged, or the file is not what the caller takes it for. The message names the
// file, the place, the check that failed, and what to do. The stream stays usable for the file's sound blocks.
class ORVA_API DamagedFileError : public std::runtime_error {
public:
    // Where the damage lies, as far as it is known.
    struct Place {
        std::optional<std::int64_t> block;   // its number in the index, from 0
        std::optional<std::int64_t> offset;  // in the file, in bytes
    };

    // `file`: the file's name. `check`: the text of the check that failed. `detail`: where, and with which values.
    DamagedFileError(const std::string& file, const std::string& check, const std::string& detail,
                     const Place& place = {});
    DamagedFileError(const DamagedFileError&) noexcept = default;
    DamagedFileError& operator=(const DamagedFileError&) noexcept = default;
    ~DamagedFileError() override;

    const std::string& fileName() const noexcept;
    const std::string& check() const noexcept;
    const std::string& detail() const noexcept;
    const Place& place() const noexcept;

protected:
    // The same damage with `text` as its message.
    DamagedFileError(const DamagedFileError& damage, const std::string& text);

private:
    struct Details;
    std::shared_ptr<const Details> fDetails;
};

// A check failed because another process has changed the file since this stream read its index. The index is out of
// date, and the file may be sound: opening it again, or reading the index again, shows it as it is now.
class ORVA_API FileChangedError : public DamagedFileError {
public:
    // `damage`: the failure of the check.
    explicit FileChangedError(const DamagedFileError& damage);
    FileChangedError(const FileChangedError&) noexcept = default;
    FileChangedError& operator=(const FileChangedError&) noexcept = default;
    ~FileChangedError() override;
};

// The file could not be opened again in setRow0Pos, setFileToAppend or Close of a compressed stream. A plain class,
// since hosts use its name and fields. The object thrown is a FileReopenError.
class ORVA_API SystemFileException {
public:
    SystemFileException(std::int32_t code, const char* expression, const char* fileName, std::int32_t line, bool flag);

    std::string fFileName;    // the source file that throws
    std::string fExpression;  // the expression that failed
    std::int32_t fCode;       // 1201
    std::int32_t fLine;       // source line of the throw
    bool fFlag;               // always true
};

// A SystemFileException that also says which file and why: code() is the errno of the failed open.
class ORVA_API FileReopenError : public SystemFileException, public std::system_error {
public:
    FileReopenError(int error, const std::string& name, const SystemFileException& told);
    FileReopenError(const FileReopenError&) = default;
    FileReopenError& operator=(const FileReopenError&) = default;
    ~FileReopenError() override;

    // The name of the file; fFileName is that of the source.
    const std::string& fileName() const noexcept { return fName; }

private:
    std::string fName;
};
