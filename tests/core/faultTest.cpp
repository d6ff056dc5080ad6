// Each request of a script fails in turn, with every threading. There must be the right failure or the right bytes; no
// hang, no leak, no abort; a Close that returned 1 was right; and once nothing fails any more, the stream goes on, or
// the file is as it was found.
#include "recovery/recoveryTest.h"
#include "scarcity.h"

using namespace support;

using testing::AnyOf, testing::ContainsRegex, testing::HasSubstr, testing::Not, testing::StartsWith;

constexpr const char* kNoMemory = "bad_alloc|Cannot allocate memory";
constexpr const char* kNoThread = "Resource temporarily unavailable|Cannot allocate memory";
constexpr Fault kFaults[] = {
    {"EioOnce", Fault::Calls, EIO, "Input/output error"},
    {"EioFromThenOn", Fault::Calls, EIO, "Input/output error", true},
    {"FullFromThenOn", Fault::Writes, ENOSPC, "No space left on device", true},
    {"FullAfterAPart", Fault::Calls, ENOSPC, "No space left on device", true, true},
    {"NoMemoryOnce", Fault::Memory, ENOMEM, kNoMemory},
    {"NoMemoryFromThenOn", Fault::Memory, ENOMEM, kNoMemory, true},
    {"NoCodecFromThenOn", Fault::Codecs, ENOMEM, kNoMemory, true},
    {"NoThreadOnce", Fault::Threads, ENOMEM, kNoThread},
    {"NoThreadFromThenOn", Fault::Threads, ENOMEM, kNoThread, true},
};

struct Faults : ShortBlocks {
    // Runs `body(variant, scarcity)` for all faults and places.
    void everywhere(const std::vector<int>& variants, auto body) {
        std::map<std::string, int> refused;
        for (const int variant : variants) {
            for (const Fault& fault : kFaults) {
                for (std::uint64_t k = 1; !HasFailure(); ++k) {
                    SCOPED_TRACE(fault.name + (", k " + std::to_string(k)) + ", variant " + std::to_string(variant));
                    Scarcity scarcity(fault, k);
                    body(variant, scarcity);
                    if (!scarcity.reached()) break;
                    ++refused[fault.name];
                    EXPECT_LT(k, 3'000U);
                }
            }
        }
        std::printf("%s refused\n", testing::PrintToString(refused).c_str());
        EXPECT_TRUE(refused["EioOnce"] > 6 && refused["NoMemoryOnce"] > 2);
    }

    // The failure must name the request that failed.
    std::string tried(Scarcity& s, auto body) const {
        const std::string failure = s.heard(body);
        EXPECT_THAT(failure, AnyOf("", fileError(1002, s.fault.error, fName), fileError(1003, s.fault.error, fName),
                                   StartsWith("other "), StartsWith("SystemFileException 1201 ")));
        EXPECT_THAT(failure + s.text, AnyOf("", StartsWith("System"), ContainsRegex(s.fault.pattern)));
        return failure;
    }
    // Repeats a failed body, without faults.
    void untilDone(Scarcity& s, auto body) const {
        if (!tried(s, body).empty()) body();
    }
};

// A new file, and then its blocks, each read until it succeeds.
TEST_F(Faults, H2_H4_M3_ANewFileAndItsReader) {
    const std::vector<filePosRecord> records = Layout(fFile).records;
    everywhere({0, 1, kOneOfSeveral, kTwo}, [&](int threading, Scarcity& s) {
        writeBytes(fName, Bytes(kRow0, 0xD5));
        std::unique_ptr<zcmpsFilestr> stream;
        bool isWriter = false;
        std::string heard = tried(s, [&] {
            stream = std::make_unique<zcmpsFilestr>(ORVA_FileStream(fName.c_str(), "r+b"));
            setThreading(*stream, threading);
            stream->setCompressionLevel(threading == 0 || threading == kTwo ? 2 : 1);
            beginRows(*stream);
            isWriter = true;
            writeBlocks(*stream, fBlocks);
        });
        if (stream != nullptr) {
            const std::string atClose = tried(s, [&] { EXPECT_EQ(stream->Close(), 1); });
            // The first failure is final; a stream that never was a writer has nothing to finish.
            EXPECT_TRUE(heard.empty() || atClose == (isWriter ? heard : "")) << atClose << " after " << heard;
            if (heard.empty()) heard = atClose;
            EXPECT_TRUE(heard.empty() || !isWriter || failureOf([&] { stream->Write("z", 1); }) == heard);
        }
        EXPECT_EQ(s.heard([&] { stream.reset(); }), "") << "told before";
        if (!heard.empty()) {
            Bytes found;
            const std::string back = failureOf([&] { found = Reader(fName, 0, kRow0).read(100'000); });
            EXPECT_TRUE(back.empty() ? found == joined(fBlocks) : back.starts_with("DamagedFileError")) << back;
            return;
        }
        std::unique_ptr<Reader> reader;
        untilDone(s, [&] { reader = std::make_unique<Reader>(fName, threading == 1 ? 2 : threading, kRow0); });
        for (const std::size_t i : {0u, 1u, 2u, 3u, 5u, 0u, 4u}) {
            Bytes rows;
            untilDone(s, [&] { rows = reader->readAt(records[i].orginalPos, fBlocks[i].size()); });
            EXPECT_EQ(rows, fBlocks[i]) << "block " << i;
        }
    });
}

TEST_F(Faults, A2_ThreadsThatCouldNotBeStartedAreStartedWithTheNextRequest) {
    const auto threads = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
    const Reader reader(fName, kTwo, kRow0);
    const std::ptrdiff_t before = threads();
    EXPECT_NE(Scarcity({"", Fault::Threads}, 2).heard([&] { reader.read(1); }), "");
    EXPECT_EQ(reader.readAt(kRow0, 1).size(), 1U);
    EXPECT_EQ(threads(), before + 2);
}

// A Writer that flushes, another that appends, a join and a Reader: each file is there whole or not at all, an append
// is whole or undone, and what did not fail goes on.
TEST_F(Faults, TheFace) {
    const Bytes rows = fBlocks[0];
    const std::string directory = path("face"), one = path("face/one"), both = path("face/both");
    everywhere({0, 1, 2}, [&](int threads, Scarcity& s) {
        std::filesystem::remove_all(directory);
        std::filesystem::create_directory(directory);
        int done = 0;  // files, or how often the rows are in one
        std::optional<orva::Reader> reader;
        const auto expectRows = [&] { EXPECT_EQ(allRows(*reader), joined(std::vector(6, rows))); };
        const std::string heard = s.heard([&] {
            orva::Writer writer(one, {.threads = threads, .block = 65'536});
            for (; done < 2; ++done) {
                writer.write(spanOf(rows));
                done == 0 ? writer.flush_rows() : writer.finish();
            }
            writeAll(orva::Writer::append(one, {.threads = threads}), rows);
            done = 3;
            orva::join(std::vector<orva::Path>{one, one}, both);
            done = 4;
            reader.emplace(orva::Path(both), orva::ReaderOptions{.threads = threads});
            expectRows();
        });
        EXPECT_THAT(heard, AnyOf("", ContainsRegex(s.fault.pattern)));
        EXPECT_THAT(s.text, AnyOf("", ContainsRegex(s.fault.kind == Fault::Threads ? "use fewer" : "")));
        EXPECT_TRUE(threads != 0 || s.fault.kind != Fault::Threads || heard.empty()) << "nobody asked for the thread";
        EXPECT_THAT(s.text, Not(HasSubstr("copy it"))) << "the file has a length";
        for (const std::filesystem::path& file : std::filesystem::directory_iterator(directory)) {
            // Failing calls cannot remove it either, and failing writes cannot undo an append.
            const bool side = file == one + ".orva-undo" && s.fault.kind == Fault::Writes;
            EXPECT_TRUE(file == one || file == both || side || s.fault.kind == Fault::Calls) << file;
        }
        if (done > 0 || std::filesystem::exists(one)) {
            orva::roll_back(one);
            const orva::i64 times = orva::Reader(orva::Path(one)).size() / std::ssize(rows);
            // Rows may have been finished by a call that then failed.
            EXPECT_TRUE(times == std::min(done, 3) || times == std::min(done, 2) + 1) << times << " after " << done;
        }
        const bool tells = s.fault.kind == Fault::Memory || s.text.find("has its name") != std::string::npos;
        EXPECT_TRUE(done != 3 || !std::filesystem::exists(both) || tells) << s.text;
        if (!reader && (done == 4 || std::filesystem::exists(both))) reader.emplace(orva::Path(both));
        if (reader) expectRows();
    });
}

TEST_F(Faults, WhatMemoryHeldBeforeMakesNoBlockLonger) {
    Bytes rows(100'000);
    for (std::size_t i = 0; i < rows.size(); ++i) rows[i] = static_cast<Bytes::value_type>(i % 168);
    makeFile(path("rows"), {rows});
    EXPECT_LT(readBytes(path("rows")).size(), 4'000);
}

TEST_F(Faults, AHostileHeadingCostsLittleMemory) {
    const compressionHeading sound = Layout(fFile).heading;
    constexpr std::int64_t kSizes[] = {24, 24 * (std::int64_t{1} << 26), 178'956'970LL * 24, INT64_MAX / 24 * 24};
    mostAtOnce = 16 << 20;
    for (const std::int64_t size : kSizes) {
        for (const std::int64_t place : {sound._indexPos, std::int64_t{kRow0 + 24}, INT64_MAX - size}) {
            overwriteBytes(fName, kRow0, bytesOf(compressionHeading{kRow0, place, size}));
            for (const int threading : {0, 2, kTwo})
                EXPECT_THAT(failureOf([&] { Reader(fName, threading, kRow0); }), StartsWith("DamagedFileError"));
            EXPECT_EQ(failureOf([&] { orva::recover(fName, path("out"), {}); }), "") << size << " at " << place;
        }
    }
    // Nor does an index of a first record and a hole.
    const auto end = std::ssize(fFile);
    overwriteBytes(fName, kRow0, bytesOf(compressionHeading{kRow0, end, kSizes[1]}));
    overwriteBytes(fName, end, bytesOf(filePosRecord{kFirstRecordMark, 0, kBlockSize, kSizes[1] / 24 - 1}));
    std::filesystem::resize_file(fName, static_cast<std::uintmax_t>(end + kSizes[1]));
    EXPECT_THROW(orva::Reader(orva::Path(fName), {.row0 = kRow0}), orva::DamagedFileError);
    EXPECT_THAT(failureOf([&] { Reader(fName, 0, kRow0); }), StartsWith("DamagedFileError"));
    mostAtOnce = SIZE_MAX;
}

// A plain stream. Bits: 1 read-ahead, 2 requests bypass the buffer, 4 encrypted.
TEST_F(Faults, AStreamThatIsWrittenAndRead) {
    const Bytes content = RandomBytes(7).noise(kBlock + 40'955);
    everywhere({1, 2, 5}, [&](int variant, Scarcity& s) {
        SetKeepEncrypt((variant & 4) != 0);
        std::filesystem::remove(fName);
        ORVA_FileStream stream((variant & 4) != 0);
        untilDone(s, [&] {
            if (stream.Open(fName.c_str(), "w+b") == 0) throw FileReopenError(errno, fName, {1201, "", "", 0, true});
            if ((variant & 1) != 0) stream.EnableMultiThreadReading();
            if ((variant & 2) != 0) stream.DisablePreReading();
        });
        for (const std::int64_t end : {std::int64_t{100}, std::int64_t{1'000}, kBlock + 1'960, kBlock + 40'955}) {
            untilDone(s, [&] {
                stream.Clear();
                const std::int64_t at = stream.Tell();  // writes the bytes that were not taken or are pending
                stream.Write(content.data() + at, static_cast<std::uint32_t>(end - at));
                stream.Flush();
            });
        }
        for (const std::int64_t at : {std::int64_t{0}, kBlock - 512}) {
            Bytes found;
            untilDone(s, [&] {
                stream.Clear();
                stream.Seek(at, ORVA_StrBaseIO::SeekFromStart);
                found = read(stream, content.size() - static_cast<std::size_t>(at));
            });
            EXPECT_TRUE(sameBytes(found, slice(content, at, content.size()))) << at;
        }
        untilDone(s, [&] { EXPECT_EQ(stream.Close(), 1); });
        ORVA_FileStream written(fName.c_str(), "rb", (variant & 4) != 0);
        EXPECT_TRUE(sameBytes(read(written, content.size()), content));
    });
    SetKeepEncrypt(false);
}

// A failed append leaves the file as it was, or its text says how to restore it. TheFace covers safe appends.
TEST_F(Faults, OfAnAppendLeaveTheRowsOrSayWhatGetsThem) {
    for (Append append : std::span(kAppends).first(kWriting)) {
        SCOPED_TRACE(append.name);
        makeFile(fName, blocksOf(append.old));
        const Bytes old = readBytes(fName);
        const std::vector<Bytes> added = blocksOf(append.added, 100);
        const std::int64_t end = append.keptEnd();
        int undone = 0;
        everywhere({0, 2}, [&](int variant, Scarcity& s) {
            append.variant = variant;
            writeBytes(fName, old);
            std::unique_ptr<Reader> stream;
            bool writes = false;
            const std::string failure = tried(s, [&] {
                stream = std::make_unique<Reader>(fName);
                append.begin(*stream, end);
                writes = true;
                writeBlocks(**stream, added);
                writes = false;
                EXPECT_EQ((*stream)->Close(), 1);
            });
            const auto says = [&, text = s.text](const char* part) { return (failure + text).find(part) != text.npos; };
            EXPECT_EQ(failureOf([&] { writes ? resume(**stream, end) : void(); }), writes ? failure : "");
            EXPECT_EQ(s.heard([&] { stream.reset(); }), "") << "told before";
            undone += says("holds the rows that it held before") ? 1 : 0;
            if (failure.empty() || says("the append itself is complete") || says("\"rb\")")) {
                EXPECT_TRUE(sameBytes(rowsOf(fName), append.newRows()));
            } else if (says("use 'orva recover'")) {
                EXPECT_TRUE(s.fault.kind != Fault::Writes || readBytes(fName) != old) << "nothing had to be put back";
                // A torn block that cannot be restored costs the rows of the block that it overwrote.
                const bool torn = s.fault.afterAPart;
                EXPECT_TRUE(orva::recover(fName, path("out"), {kPart}).lost.empty() || torn);
                const std::size_t kept = torn ? (append.old.empty() ? 0 : append.old[0]) : append.keptRows().size();
                EXPECT_TRUE(sameBytes(slice(rowsOf(path("out")), 0, kept), slice(append.oldRows(), 0, kept)));
            } else {
                // Without memory no text says whether the append was completed.
                const bool mute = s.fault.kind != Fault::Calls;
                EXPECT_TRUE(readBytes(fName) == old || (mute && rowsOf(fName) == append.newRows())) << s.text;
            }
        });
        EXPECT_GT(undone, 15);
    }
}
