// What the library throws beside FileError (errtext.h): DamagedFileError for bytes that cannot be what they claim to
// be, SystemFileException for a file that could not be opened again.
//
// Threads: plain values; what a worker met on its own thread is thrown on the thread of the stream's caller.
#pragma once

#include <orva/orvaApi.h>

#include <cstdint>
#include <stdexcept>
#include <string>

// A file's heading, index or block is damaged, or the file is not what the caller takes it for. The message names the
// file, the place, the check that failed, and what to do. The stream stays usable for the file's sound blocks.
class ORVA_API DamagedFileError : public std::runtime_error {
public:
    // `file`: the file's name. `check`: the text of the check that failed. `detail`: where, and with which values.
    DamagedFileError(const std::string& file, const std::string& check, const std::string& detail);
    DamagedFileError(const DamagedFileError&) = default;
    DamagedFileError& operator=(const DamagedFileError&) = default;
    ~DamagedFileError() override;
};

// The file could not be opened again in setRow0Pos, setFileToAppend or Close of a compressed stream. A plain class: a
// host knows it by its name and fields.
class ORVA_API SystemFileException {
public:
    SystemFileException(std::int32_t code, const char* expression, const char* fileName, std::int32_t line, bool flag);

    std::string fFileName;    // the source file that throws
    std::string fExpression;  // the expression that failed
    std::int32_t fCode;       // 1201
    std::int32_t fLine;       // source line of the throw
    bool fFlag;               // always true
};
