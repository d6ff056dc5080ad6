// What the tests of the compressed layers share: compressed files made through the library and looked at past it, what
// an operation threw as a text that can be compared, a hook for system calls, and an end for a test that hangs.
#pragma once

#include "support/tempDir.h"

#include <orva/compressedLayout.h>
#include <orva/errors.h>
#include <orva/errtext.h>
#include <orva/filestr.h>
#include <orva/platformFaults.h>
#include <orva/zcmpsFilestr.h>

#include <signal.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace core {

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
        return "SystemFileException " + std::to_string(error.fCode) + " " + error.fExpression;
    } catch (const std::exception& error) {
        return std::string("other ") + error.what();
    }
}

inline std::string fileError(long code, int error, const std::string& name) {
    return "FileError " + std::to_string(code) + " errno " + std::to_string(error) + " " + name;
}

// A file that holds a dictionary part only, open for what comes behind it.
class Dictionary {
public:
    explicit Dictionary(const std::string& name, std::int64_t row0 = kRow0) {
        support::writeBytes(name, Bytes(static_cast<std::size_t>(row0), 0xD5));
        fStream = std::make_unique<ORVA_FileStream>(name.c_str(), "r+b");
    }
    const ORVA_FileStream& stream() const { return *fStream; }

private:
    std::unique_ptr<ORVA_FileStream> fStream;
};

// A road: a setting of setMultiThread, or kSeveral for three threads at once.
inline constexpr int kSeveral = 103;
inline void takeRoad(zcmpsFilestr& stream, int road) {
    road == kSeveral ? stream.setThreadCount(3) : stream.setMultiThread(road);
}

// A stream that writes rows from kRow0 on.
inline std::unique_ptr<zcmpsFilestr> startedWriter(const Dictionary& dictionary, int road, std::int64_t row0 = kRow0) {
    auto stream = std::make_unique<zcmpsFilestr>(dictionary.stream());
    takeRoad(*stream, road);
    stream->setRow0Pos(row0);
    stream->Seek(row0, ORVA_StrBaseIO::SeekFromStart);
    return stream;
}

inline void write(ORVA_StrBaseIO& stream, const Bytes& bytes) {
    EXPECT_EQ(stream.Write(bytes.data(), static_cast<std::uint32_t>(bytes.size())), bytes.size());
}

// A finished file whose blocks, apart from what deflate cuts, are these.
inline void makeFile(const std::string& name, const std::vector<Bytes>& blocks, std::int64_t row0 = kRow0) {
    const Dictionary dictionary(name, row0);
    const auto stream = startedWriter(dictionary, 0, row0);
    for (const Bytes& block : blocks) {
        write(*stream, block);
        stream->Flush();
    }
    ASSERT_EQ(stream->Close(), 1);
}

// A stream that reads a finished file.
class Reader {
public:
    explicit Reader(const std::string& name, int road = 0)
        : fSource(name.c_str(), "rb"), fStream(std::make_unique<zcmpsFilestr>(fSource)) {
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
    ORVA_FileStream fSource;
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
    using Call = platform::faults::Call;
    using Verdict = platform::faults::Verdict;
    using Ask = std::function<Verdict(Call call, std::uint64_t number)>;

    explicit CallHook(Ask ask) : fAsk(std::move(ask)) {}
    Verdict before(Call call, int, std::uint64_t) override { return fAsk(call, ++fCount); }
    std::uint64_t count() const { return fCount; }

private:
    Ask fAsk;
    std::atomic<std::uint64_t> fCount{0};
};

// Every call of one kind fails while this lives.
class Failing {
public:
    Failing(platform::faults::Call call, int error)
        : fHook([=](auto asked, std::uint64_t) {
              return asked == call ? CallHook::Verdict::fail(error) : CallHook::Verdict::goOn();
          }),
          fInstalled(fHook) {}

private:
    CallHook fHook;
    platform::faults::Installed fInstalled;
};

// Ends the process with a message instead of hanging for ever. One at a time.
class Watchdog {
public:
    explicit Watchdog(const char* what) {
        text() = what;
        signal(SIGALRM, [](int) {
            const char* waiting = text();
            const ssize_t written = ::write(2, waiting, std::strlen(waiting));
            abort();
            static_cast<void>(written);
        });
        alarm(90);
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;
    ~Watchdog() { alarm(0); }

private:
    static const char*& text() {
        static const char* what = "";
        return what;
    }
};

// Assertion texts are looked for in the last words of a child that is started anew, since threads may be running here.
#define EXPECT_ASSERTION(statement, text)                  \
    do {                                                   \
        GTEST_FLAG_SET(death_test_style, "threadsafe");    \
        EXPECT_DEATH(statement, testing::HasSubstr(text)); \
    } while (false)

}  // namespace core
