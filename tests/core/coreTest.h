// What the tests of the compressed layers share: compressed files made through the library and looked at past it, what
// an operation threw as a text that can be compared, and a hook for system calls.
#pragma once

#include "support/tempDir.h"

#include <orva/compressedLayout.h>
#include <orva/errors.h>
#include <orva/errtext.h>
#include <orva/filestr.h>
#include <orva/platformFaults.h>
#include <orva/zcmpsFilestr.h>

#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace core {

using platform::faults::Call;
using platform::faults::Verdict;
using support::Bytes;

inline constexpr std::int64_t kRow0 = 1'000;
inline constexpr std::int64_t kBlock = 4'190'208;

// "" when `body` came to its end, else what left it. A DamagedFileError tells its whole message.
template <class Body>
std::string failureOf(Body body) {
    try {
        body();
        return {};
    } catch (const FileError& error) {
        return "FileError " + std::to_string(error.messageCode()) + " errno " + std::to_string(error.code().value()) +
               " " + error.fileName();
    } catch (const DamagedFileError& error) {
        return std::string("DamagedFileError ") + error.what();
    } catch (const SystemFileException& error) {
        return "SystemFileException " + std::to_string(error.fCode) + " " + error.fExpression +
               (error.fFlag ? "" : " without its flag");
    } catch (const std::exception& error) {
        return std::string("other ") + error.what();
    }
}

inline std::string fileError(long code, int error, const std::string& name) {
    return "FileError " + std::to_string(code) + " errno " + std::to_string(error) + " " + name;
}

// A road: a setting of setMultiThread, or 100 and the number of several threads at once.
inline constexpr int kOneOfSeveral = 101, kTwo = 102, kSeveral = 103;
inline void takeRoad(zcmpsFilestr& stream, int road) {
    road > 100 ? stream.setThreadCount(road - 100) : stream.setMultiThread(road);
}

// A stream over a new file that holds a dictionary part only.
inline std::unique_ptr<zcmpsFilestr> freshStream(const std::string& name, int road, std::int64_t row0 = kRow0) {
    support::writeBytes(name, Bytes(static_cast<std::size_t>(row0), 0xD5));
    auto stream = std::make_unique<zcmpsFilestr>(ORVA_FileStream(name.c_str(), "r+b"));
    takeRoad(*stream, road);
    return stream;
}

inline void beginRows(zcmpsFilestr& stream, std::int64_t row0 = kRow0) {
    stream.setRow0Pos(row0);
    stream.Seek(row0, ORVA_StrBaseIO::SeekFromStart);
}

inline std::unique_ptr<zcmpsFilestr> startedWriter(const std::string& name, int road, std::int64_t row0 = kRow0) {
    auto stream = freshStream(name, road, row0);
    beginRows(*stream, row0);
    return stream;
}

inline void write(ORVA_StrBaseIO& stream, const Bytes& bytes) {
    EXPECT_EQ(stream.Write(bytes.data(), static_cast<std::uint32_t>(bytes.size())), bytes.size());
}

// A finished file whose blocks, apart from what deflate cuts, are these.
inline void makeFile(const std::string& name, const std::vector<Bytes>& blocks, std::int64_t row0 = kRow0) {
    const auto stream = startedWriter(name, 0, row0);
    for (const Bytes& block : blocks) {
        write(*stream, block);
        stream->Flush();
    }
    ASSERT_EQ(stream->Close(), 1);
}

// Ends the program, with the name of the case, when it goes a minute without being fed: a thread that waits for ever
// fails instead of hanging.
class Watchdog {
public:
    Watchdog() {
        std::signal(SIGALRM, [](int) {
            if (::write(STDERR_FILENO, fCase, std::strlen(fCase)) >= 0) std::abort();
        });
        feed("hangs: before the first case\n");
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;
    ~Watchdog() { alarm(0); }
    static void feed(const std::string& name = "hangs\n") {
        fCase[name.copy(fCase, sizeof fCase - 1)] = 0;
        alarm(60);
    }

private:
    static inline char fCase[200] = "";
};

// A finished file of six short blocks.
class ShortBlocks : public support::TempDir {
protected:
    ShortBlocks() {
        support::RandomBytes random(41);
        for (const std::size_t size : {3'000u, 1u, 20'000u, 700u, 5'000u, 100u}) fBlocks.push_back(random.rows(size));
        makeFile(fName, fBlocks);
        fFile = support::readBytes(fName);
    }
    const Watchdog fWatchdog;
    const std::string fName = path("rows.orva");
    std::vector<Bytes> fBlocks;
    Bytes fFile;
};

// A stream that reads a finished file.
class Reader {
public:
    explicit Reader(const std::string& name, int road = 0)
        : fStream(std::make_unique<zcmpsFilestr>(ORVA_FileStream(name.c_str(), "rb"))) {
        takeRoad(*fStream, road);
    }
    Reader(const std::string& name, int road, std::int64_t row0, bool swap = false) : Reader(name, road) {
        fStream->readFilePosInfo(row0, swap);
    }
    zcmpsFilestr* operator->() const { return fStream.get(); }
    Bytes read(std::size_t size) const {
        Bytes bytes(size);
        bytes.resize(fStream->Read(bytes.data(), static_cast<std::uint32_t>(size)));
        return bytes;
    }
    Bytes readAt(std::int64_t position, std::size_t size) const {
        fStream->Seek(position, ORVA_StrBaseIO::SeekFromStart);
        return read(size);
    }

private:
    std::unique_ptr<zcmpsFilestr> fStream;
};

// Heading and index as they stand in a file, read past the library.
struct Layout {
    Layout() = default;
    explicit Layout(const Bytes& file, std::int64_t row0 = kRow0) {
        copy(file, row0, &heading, sizeof heading);
        copy(file, heading._indexPos, &first, sizeof first);
        records.resize(static_cast<std::size_t>(heading._size / kRecordSize - 1));
        copy(file, heading._indexPos + kRecordSize, records.data(), records.size() * sizeof(filePosRecord));
    }
    static void copy(const Bytes& file, std::int64_t offset, void* to, std::size_t size) {
        const Bytes bytes = support::slice(file, static_cast<std::size_t>(offset), size);
        if (bytes.size() != size) throw std::runtime_error("no such bytes in the file");
        if (size != 0) std::memcpy(to, bytes.data(), size);
    }
    std::vector<std::int32_t> sizes() const {
        std::vector<std::int32_t> all;
        for (const filePosRecord& record : records) all.push_back(record.orginalSize);
        return all;
    }

    compressionHeading heading{};
    filePosRecord first{};
    std::vector<filePosRecord> records;
};

// A file with heading and index in the other byte order.
inline Bytes swapped(Bytes file) {
    const compressionHeading heading = Layout(file).heading;
    const auto turn = [&](std::int64_t at, int width) { std::reverse(&file[at], &file[at] + width); };
    for (const int field : {0, 8, 16}) turn(kRow0 + field, 8);
    for (std::int64_t at = heading._indexPos; at < heading._indexPos + heading._size; at += kRecordSize) {
        for (const int field : {0, 8}) turn(at + field, 8);
        for (const int field : {16, 20}) turn(at + field, 4);
    }
    return file;
}

inline Bytes joined(const std::vector<Bytes>& parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

template <class Struct>
Bytes bytesOf(const Struct& value) {
    Bytes bytes(sizeof value);
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

// A hook made of one function, which is asked before each raw call. Counts the calls.
class CallHook : public platform::faults::Hook {
public:
    using Verdict = platform::faults::Verdict;
    using Ask = std::function<Verdict(Call call, std::uint64_t number)>;

    explicit CallHook(Ask ask) : fAsk(std::move(ask)) {}
    Verdict before(Call call, int, std::uint64_t) override { return fAsk(call, ++fCount); }
    std::uint64_t count() const { return fCount; }

private:
    Ask fAsk;
    std::atomic<std::uint64_t> fCount{0};
};

// Transfers of one kind that begin in a range of the file fail while this lives, as on a disk with a bad spot or with
// no room behind a place. `allow` says how many still do.
class BadPlace : public platform::faults::Hook {
public:
    BadPlace(Call call, int error, std::int64_t begin = 0, std::int64_t end = INT64_MAX)
        : fCall(call), fError(error), fBegin(begin), fEnd(end) {}
    Verdict before(Call call, int descriptor, std::uint64_t) override {
        if (call != fCall) return Verdict::goOn();
        const std::int64_t at = lseek(descriptor, 0, SEEK_CUR);
        return at >= fBegin && at < fEnd && fLeft-- > 0 ? Verdict::fail(fError) : Verdict::goOn();
    }
    void allow(int failures) { fLeft = failures; }

private:
    const Call fCall;
    const int fError;
    const std::int64_t fBegin, fEnd;
    std::atomic<int> fLeft{INT32_MAX};
    platform::faults::Installed fInstalled{*this};
};

// Assertion texts are looked for in the last words of a child that is started anew, since threads may be running here.
#define EXPECT_ASSERTION(statement, text)                  \
    do {                                                   \
        GTEST_FLAG_SET(death_test_style, "threadsafe");    \
        EXPECT_DEATH(statement, testing::HasSubstr(text)); \
    } while (false)

}  // namespace core
