// orva::istream and orva::ostream: the rows of a file for code that reads and writes standard streams.
//
// Both set std::ios::badbit in exceptions(), so that a failure comes out as what it is (error.h) instead of as an end
// of the rows that nobody can tell from the real one.
//
// Units:   bytes; positions count from the first byte of rows.
// Owner:   a Reader or Writer, and 64 KiB.
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

// Seeks to anywhere in the rows.
class ORVA_API istream : public std::istream {
public:
    explicit istream(const Path& path, const ReaderOptions& options = {});
    explicit istream(const Reader& reader);
    ~istream() override;

private:
    std::unique_ptr<std::streambuf> fBuffer;
};

// Does not seek; tellp() tells the bytes of rows.
class ORVA_API ostream : public std::ostream {
public:
    explicit ostream(const Path& path, const WriterOptions& options = {});
    // Takes the Writer over.
    explicit ostream(Writer&& writer);
    // Abandons what close() has not finished.
    ~ostream() override;

    // Writer::finish. flush() of a stream hands its 64 KiB on and makes nothing durable.
    void close();

private:
    class ORVA_LOCAL Buffer;
    std::unique_ptr<Buffer> fBuffer;
};

}  // namespace orva
