// Shared by the tests of streams: a stream beside a byte vector, the file calls that it makes, and scripts of steps.
#pragma once

#include "support/tempDir.h"

namespace support {

// A stream beside a model: the vector holds what it must read, and position where it must be. The bytes of an
// appending stream belong at the end, wherever it is.
struct ModelStream {
    ORVA_FileStream stream;
    std::int64_t position = 0;

    ModelStream(const std::string& file, const std::string& mode, Bytes& content, bool encrypted)
        : stream(file.c_str(), mode.c_str(), encrypted), fContent(content), fMode(mode), fEncrypted(encrypted) {
        begin(appends());
    }
    // Starts at the end, or at 0 for a copy, which shares the file and so the content.
    void begin(bool atEnd = false) {
        fPadded = padded();
        moveTo(atEnd ? std::ssize(fContent) : 0);
    }

    std::int64_t end() const { return std::max<std::int64_t>(std::ssize(fContent), fEncrypted ? fPadded : 0); }
    bool reads() const { return fMode.find_first_of("r+") != std::string::npos; }
    bool appends() const { return fMode[0] == 'a'; }

    void read(std::size_t size) {
        Bytes bytes(size);
        try {
            bytes.resize(stream.Read(bytes.data(), sizeOf(bytes)));
        } catch (const FileError& error) {
            if (reads() || error.code().value() != EBADF) throw;
            bytes.resize(static_cast<std::size_t>(stream.Tell() - position));
            size = bytes.size();
        }
        EXPECT_TRUE(sameBytes(bytes, slice(fContent, position, size)));
        moveTo(position + std::ssize(bytes));
    }
    // A failed write has taken the bytes before the position.
    void write(const Bytes& bytes) {
        try {
            EXPECT_EQ(stream.Write(bytes.data(), sizeOf(bytes)), bytes.size());
        } catch (const FileError&) {
            took(slice(bytes, 0, stream.Tell() - position));
            throw;
        }
        took(bytes);
    }
    void seek(std::int64_t offset, ORVA_StrBaseIO::SeekDirection direction = ORVA_StrBaseIO::SeekFromStart) {
        const std::int64_t bases[] = {0, position, end()};
        std::int64_t target = 0;
        const bool legal = !__builtin_add_overflow(bases[direction], offset, &target) && target >= 0;
        EXPECT_EQ(stream.Seek(offset, direction), legal ? 0 : -1);
        moveTo(legal ? target : position);
    }
    // From then on the file has the pad; the stream itself knows which bytes are pad.
    void close() {
        EXPECT_EQ(stream.Close(), 1);
        fPadded = std::max(fPadded, padded());
    }
    // Opens its own file again: a new object takes the pad for data.
    void reopen() {
        EXPECT_EQ(stream.Open(stream.GetNameStr(), fMode.c_str()), 1);
        if (fMode[0] == 'w') fContent.clear();
        if (fEncrypted) fContent.resize(static_cast<std::size_t>(padded()));
        begin(appends());
    }
    void moveTo(std::int64_t to) { EXPECT_EQ(stream.Tell(), position = to); }

private:
    void took(const Bytes& bytes) {
        const std::int64_t at = appends() ? end() : position;
        if (!bytes.empty()) fContent = with(std::move(fContent), at, bytes);
        moveTo(position + std::ssize(bytes));
    }
    std::int64_t padded() const { return (std::ssize(fContent) + 15) / 16 * 16; }

    Bytes& fContent;
    const std::string fMode;
    const bool fEncrypted;
    std::int64_t fPadded = 0;
};

// Records each call of the library as a word, even if the system needed several: "R512+1000" is a read at offset 512
// that asked for 1,000 bytes, "R512" one for a block, "W" a write; lower case if another thread than the test's made
// it. "E" ends a run of the cipher.
struct FileCalls : CallHook {
    // The calls since the last time, a blank after each. Only while no call is under way: another thread's may be
    // missing.
    std::string transfers() {
        const std::lock_guard guard(fLock);
        return std::exchange(fTransfers, {});
    }
    // Waits until other threads have ended so many reads since the hook was installed.
    void awaitReads(int reads) const {
        while (fOtherReads < reads) std::this_thread::yield();
    }
    void after(const Step& step) override {
        const std::lock_guard guard(fLock);
        if (step.call == Call::RunEnd) fTransfers += "E ";
        if (step.call != Call::Read && step.call != Call::Write) return;
        const bool continues = fRest != 0 && fRest == step.size;
        fRest = step.result > 0 ? step.size - static_cast<std::uint64_t>(step.result) : 0;
        if (step.call == Call::Read && onOtherThread() && fRest == 0) ++fOtherReads;
        if (continues) return;
        const std::int64_t offset = step.offset >= 0 ? step.offset : ::lseek(step.descriptor, 0, SEEK_CUR);
        fTransfers += (onOtherThread() ? "rw" : "RW")[step.call == Call::Write ? 1 : 0];
        fTransfers += std::to_string(offset) + (step.size == kBlockSize ? " " : '+' + std::to_string(step.size) + ' ');
    }

private:
    bool onOtherThread() const { return std::this_thread::get_id() != fTestThread; }

    const std::thread::id fTestThread = std::this_thread::get_id();
    std::atomic<int> fOtherReads{0};
    std::mutex fLock;  // guards the next two
    std::string fTransfers;
    std::uint64_t fRest = 0;  // bytes that the system left undone of the current call
};

// A file, a stream over it beside the content that it should have, and steps for both.
struct StreamTest : TempDir {
    ~StreamTest() override { SetKeepEncrypt(false); }
    static const Bytes& noise() {
        static const Bytes bytes = RandomBytes(17).noise(35'000'000);
        return bytes;
    }
    // Opens a stream over a file of these bytes.
    void open(Bytes bytes, const std::string& mode = "r+b", bool encrypted = false) {
        model = nullptr;
        SetKeepEncrypt(fEncrypted = encrypted);
        content = std::move(bytes);
        write(*std::make_unique<ORVA_FileStream>(path("data").c_str(), "wb", encrypted), content);
        model = std::make_unique<ModelStream>(path("data"), mode, content, encrypted);
    }
    // Without this stream: another one reads encrypted bytes, and takes the pad for data.
    void expectFile() {
        model = nullptr;
        ORVA_FileStream reader(path("data").c_str(), "rb", fEncrypted);
        const Bytes found = read(reader, content.size() + 16);
        if (fEncrypted) content.resize((content.size() + 15) / 16 * 16);
        EXPECT_TRUE(sameBytes(found, content));
    }
    ORVA_FileStream& s() { return model->stream; }
    void step(char kind, std::int64_t number = 0) { kinds.at(kind)(number); }
    void run(const std::string& script) {
        std::istringstream steps(script);
        // Stops at a failure: what a later step waits for may never come.
        for (std::string step; !HasFailure() && steps >> step;) {
            SCOPED_TRACE(step + " at " + std::to_string(model->position));
            this->step(step[0], std::atoll(step.c_str() + 1));
        }
    }
    const std::map<char, std::function<void(std::int64_t)>> kinds = {
        {'s', [&](auto n) { model->seek(n); }},
        {'m', [&](auto n) { model->seek(n, ORVA_StrBaseIO::SeekFromCurrent); }},
        {'e', [&](auto n) { model->seek(n, ORVA_StrBaseIO::SeekFromEnd); }},
        {'r', [&](auto n) { model->read(static_cast<std::size_t>(n)); }},
        {'w', [&](auto n) { model->write(slice(noise(), written += 1'009, n)); }},
        {'f', [&](auto) { EXPECT_EQ(s().Flush(), 1); }},
        {'k', [&](auto) { model = std::make_unique<ModelStream>(*model), model->begin(); }},  // goes on with a copy
        {'p', [&](auto on) { on ? s().EnablePreReading() : s().DisablePreReading(); }},
        {'t', [&](auto on) { on ? s().EnableMultiThreadReading() : s().DisableMultiThreadReading(); }},
        // x: the next write fails; q: the next seek fails; E: a seek to the end fails; W: a write fails.
        {'x', [&](auto) { calls->fail(Call::Write, ENOSPC); }},
        {'q', [&](auto error) { calls->fail(Call::Seek, static_cast<int>(error)); }},
        {'E', [&](auto) { EXPECT_EQ(s().Seek(0, ORVA_StrBaseIO::SeekFromEnd), -1), model->moveTo(model->position); }},
        {'W', [&](auto n) { EXPECT_NE(failureOf([&] { model->write(slice(noise(), 0, n)), s().Flush(); }), ""); }},
        // Waits for the n-th read of another thread.
        {'a', [&](auto n) { calls->awaitReads(static_cast<int>(n)); }},
    };
    std::int64_t written = 0;  // place in noise() of the last write's bytes
    Bytes content;
    bool fEncrypted = false;
    std::unique_ptr<ModelStream> model;
    std::optional<FileCalls> calls;
};

}  // namespace support
