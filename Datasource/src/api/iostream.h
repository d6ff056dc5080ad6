// orva::istream and orva::ostream: the rows of a file for code that reads and writes standard streams.
//
// Both set std::ios::badbit in exceptions(), so that a failure is thrown as its own error (error.h) instead of looking
// like the end of the rows.
//
// Units:   bytes; positions count from the first byte of rows.
// Owner:   a Reader or Writer, and a buffer of 64 KiB.
// Threads: one at a time.
#pragma once

#include <orva/error.h>
#include <orva/orvaApi.h>
#include <orva/reader.h>
#include <orva/writer.h>

#include <istream>
#include <memory>
#include <ostream>

namespace orva {

// Seeks to any offset in the rows.
class ORVA_API istream : public std::istream {
public:
    explicit istream(const Path& path, const ReaderOptions& options = {});
    explicit istream(const Reader& reader);
    ~istream() override;

private:
    std::unique_ptr<std::streambuf> fBuffer;
};

// Does not seek; tellp() gives the bytes of rows so far.
class ORVA_API ostream : public std::ostream {
public:
    explicit ostream(const Path& path, const WriterOptions& options = {});
    // Takes over `writer`.
    explicit ostream(Writer&& writer);
    // Abandons the rows that close() has not finished.
    ~ostream() override;

    // Finishes the file, as Writer::finish() does. flush() only passes the buffer on to the Writer and makes nothing
    // durable.
    void close();

private:
    class ORVA_LOCAL Buffer;
    std::unique_ptr<Buffer> fBuffer;
};

}  // namespace orva
