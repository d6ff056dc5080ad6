#include <orva/iostream.h>

#include <ios>
#include <streambuf>
#include <vector>

namespace orva {

namespace {

constexpr std::size_t kBuffer = 65'536;

class ReadBuffer final : public std::streambuf {
public:
    explicit ReadBuffer(const Reader& reader) : fReader(reader), fBytes(kBuffer) {}

protected:
    int_type underflow() override {
        moveTo(place());
        const std::size_t got = fReader.read_at(fNext, std::as_writable_bytes(std::span(fBytes)));
        setg(fBytes.data(), fBytes.data(), fBytes.data() + got);
        return got == 0 ? traits_type::eof() : traits_type::to_int_type(fBytes[0]);
    }
    // Bypasses the buffer: whole blocks go straight into the caller's memory.
    std::streamsize xsgetn(char* to, std::streamsize count) override {
        if (count < std::ssize(fBytes)) return std::streambuf::xsgetn(to, count);
        const std::span wanted(to, static_cast<std::size_t>(count));
        const i64 at = place();
        const auto got = static_cast<std::streamsize>(fReader.read_at(at, std::as_writable_bytes(wanted)));
        moveTo(at + got);
        return got;
    }
    // Called where the buffer has no byte before the position: at its border, and after a seek or a long read.
    int_type pbackfail(int_type c) override {
        if (seekoff(-1, std::ios_base::cur, std::ios_base::in) == pos_type(off_type(-1))) return traits_type::eof();
        const int_type before = sgetc();
        if (c == traits_type::eof() || c == before) return before;
        sbumpc();
        return traits_type::eof();
    }
    pos_type seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode) override {
        const i64 base = from == std::ios_base::beg ? 0 : from == std::ios_base::cur ? place() : fReader.size();
        i64 target = 0;
        if (__builtin_add_overflow(base, static_cast<i64>(offset), &target)) return pos_type(off_type(-1));
        return seekpos(pos_type(target), std::ios_base::in);
    }
    pos_type seekpos(pos_type position, std::ios_base::openmode) override {
        const i64 target = off_type(position);
        if (target < 0 || target > fReader.size()) return pos_type(off_type(-1));
        if (target >= fNext && target <= fNext + (egptr() - eback())) {
            setg(eback(), eback() + (target - fNext), egptr());
        } else {
            moveTo(target);
        }
        return position;
    }

private:
    i64 place() const { return fNext + (gptr() - eback()); }
    void moveTo(i64 place) {
        setg(nullptr, nullptr, nullptr);
        fNext = place;
    }

    const Reader fReader;
    std::vector<char> fBytes;
    i64 fNext = 0;  // the offset of the buffer's first byte
};

}  // namespace

istream::istream(const Path& path, const ReaderOptions& options) : istream(Reader(path, options)) {}
istream::istream(const Reader& reader) : std::istream(nullptr), fBuffer(std::make_unique<ReadBuffer>(reader)) {
    rdbuf(fBuffer.get());
    exceptions(std::ios::badbit);
}
istream::~istream() = default;

class ostream::Buffer final : public std::streambuf {
public:
    explicit Buffer(Writer&& writer) : fWriter(std::move(writer)), fBytes(kBuffer) { empty(); }

    // Later bytes go to the Writer at once, which refuses them.
    void finish() {
        sync();
        setp(nullptr, nullptr);
        fWriter.finish();
    }

protected:
    int_type overflow(int_type c) override {
        pass();
        if (!traits_type::eq_int_type(c, traits_type::eof())) sputc(traits_type::to_char_type(c));
        return traits_type::not_eof(c);
    }
    std::streamsize xsputn(const char* from, std::streamsize count) override {
        if (count < std::ssize(fBytes)) return std::streambuf::xsputn(from, count);
        pass();
        fWriter.write(std::as_bytes(std::span(from, static_cast<std::size_t>(count))));
        return count;
    }
    int sync() override {
        if (pptr() != pbase()) pass();
        return 0;
    }
    pos_type seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode) override {
        if (offset != 0 || from != std::ios_base::cur) return pos_type(off_type(-1));
        return pos_type(fWriter.size() + (pptr() - pbase()));
    }

private:
    void empty() { setp(fBytes.data(), fBytes.data() + fBytes.size()); }
    void pass() {
        const std::span waiting(pbase(), static_cast<std::size_t>(pptr() - pbase()));
        setp(nullptr, nullptr);
        fWriter.write(std::as_bytes(waiting));
        empty();
    }

    Writer fWriter;
    std::vector<char> fBytes;
};

ostream::ostream(const Path& path, const WriterOptions& options) : ostream(Writer(path, options)) {}
ostream::ostream(Writer&& writer) : std::ostream(nullptr), fBuffer(std::make_unique<Buffer>(std::move(writer))) {
    rdbuf(fBuffer.get());
    exceptions(std::ios::badbit);
}
ostream::~ostream() = default;

void ostream::close() {
    fBuffer->finish();
}

}  // namespace orva
