// Large files, many blocks, long requests, signals, forks: cheap, since what is large has holes.
#include "coreTest.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>

namespace core {
namespace {

class Limits : public support::TempDir {
protected:
    const std::string fName = path("file");
    const Bytes fRows = support::RandomBytes(3).rows(100'000);
};

TEST_F(Limits, PlacesBeyond4GiB) {
    constexpr std::int64_t row0 = (std::int64_t{5} << 30) + 7;
    ORVA_FileStream file(fName.c_str(), "w+b");
    file.Seek(row0 - 100'000, ORVA_StrBaseIO::SeekFromStart);
    write(file, fRows);
    for (const int road : {0, 1, kTwo}) {
        {
            zcmpsFilestr rows(file);
            takeRoad(rows, road);
            beginRows(rows, row0);
            write(rows, fRows);
        }
        {
            const Reader appended(fName, 0, row0);
            appended->setSafeAppend(true);
            resume(*appended, row0 + 100'000);
            write(*appended, fRows);
        }
        EXPECT_TRUE(support::sameBytes(Reader(fName, road, row0).read(300'000), joined({fRows, fRows})));
    }
    Bytes found(100'000);
    file.Open(fName.c_str(), "rb");
    file.Seek(row0 - 100'000, ORVA_StrBaseIO::SeekFromStart);
    EXPECT_EQ(file.Read(found.data(), 100'000), 100'000U);
    EXPECT_TRUE(support::sameBytes(found, fRows));
}

// At two places in the file by turns, which reading allows.
TEST_F(Limits, AMillionBlocks) {
    constexpr std::int64_t count = 1'000'000;
    makeFile(fName, {fRows, fRows});
    const Bytes file = support::readBytes(fName);
    const Layout layout(file);
    const std::vector<filePosRecord> places = layout.records;
    const filePosRecord block = places[0];
    std::vector<filePosRecord> index{{-100, 0, kBlock, count}};
    for (std::int64_t i = 0; i < count; ++i) {
        index.push_back({kRow0 + i * block.orginalSize, places[static_cast<std::size_t>(i % 2)].translatePos,
                         block.orginalSize, block.translateSize});
    }
    Bytes bytes(index.size() * kRecordSize);
    std::memcpy(bytes.data(), index.data(), bytes.size());
    support::overwriteBytes(fName, layout.heading._indexPos, bytes);
    support::overwriteBytes(fName, kRow0 + 16, bytesOf(std::ssize(bytes)));
    support::RandomBytes random(6);
    for (const int road : {0, 2, kTwo}) {
        const Reader reader(fName, road, kRow0);
        for (int i = 0; i < 100; ++i) {
            const std::int64_t at = random.between(std::int64_t{1} << 31, count * block.orginalSize - 10);
            const Bytes found = reader.readAt(kRow0 + at, 10);
            const auto place = static_cast<std::size_t>(at % block.orginalSize);
            EXPECT_EQ(found, support::slice(joined({fRows, fRows}), place, 10)) << at;
        }
        EXPECT_EQ(reader.readAt(kRow0 + count * block.orginalSize - 3, 10), support::slice(fRows, 99'997, 3));
    }
}

// The memory of the request is one small piece, many times over.
TEST_F(Limits, TheLongestRequest) {
    if (support::kSanitized) GTEST_SKIP() << "maps over the sanitizer's memory";
    constexpr std::size_t piece = 1 << 24;
    constexpr std::size_t room = std::size_t{1} << 31;
    support::writeBytes(fName, {});
    std::filesystem::resize_file(fName, room + 5);
    support::overwriteBytes(fName, room - 4, {1, 2, 3, 4, 5});
    const int memory = memfd_create("piece", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(memory, piece), 0);
    auto* to = static_cast<unsigned char*>(mmap(nullptr, room, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    for (std::size_t at = 0; at < room; at += piece) {
        ASSERT_NE(mmap(to + at, piece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, memory, 0), MAP_FAILED);
    }
    ORVA_FileStream file(fName.c_str(), "rb");
    EXPECT_EQ(file.Read(to, room - 1), room - 1);
    EXPECT_EQ(file.Tell(), room - 1);
    EXPECT_EQ(Bytes(to + room - 4, to + room - 1), (Bytes{1, 2, 3}));
    munmap(to, room);
    close(memory);
}

TEST_F(Limits, NoDescriptorIsAFailureThatPasses) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer looks at objects through descriptors of its own";
#endif
    support::expectInChild([&] {
        const auto stream = freshStream(fName, 0);
        const int next = dup(0);
        close(next);
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlimit before = limit;
        limit.rlim_cur = static_cast<rlim_t>(next);
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(ORVA_FileStream(fName.c_str(), "rb").Good(), 0);
        beginRows(*stream);  // closes the file before it opens it again
        write(*stream, fRows);
        EXPECT_EQ(stream->Close(), 1) << "without a number to spare";
        setrlimit(RLIMIT_NOFILE, &before);
        EXPECT_EQ(Reader(fName, 0, kRow0).read(200'000), fRows);
    });
}

// The descriptor's own place belongs to both.
TEST_F(Limits, AReaderOpenedBeforeAForkReadsRightInParentAndChildAtOnce) {
    const Bytes rows = support::RandomBytes(3).rows(9'000'000);
    makeFile(fName, {rows});
    const Reader packed(fName, 0, kRow0);
    ORVA_FileStream plain(made("plain", Bytes(kRow0) + rows).c_str(), "rb");
    const auto readAll = [&](std::uint64_t seed) {
        support::RandomBytes places(seed);
        for (int i = 0; i < 300 && !HasFailure(); ++i) {
            ORVA_StrBaseIO& from = i % 10 == 0 ? static_cast<ORVA_StrBaseIO&>(*packed) : plain;
            const std::size_t at = places.below(rows.size());
            Bytes found(100);
            from.Seek(kRow0 + static_cast<std::int64_t>(at), ORVA_StrBaseIO::SeekFromStart);
            found.resize(from.Read(found.data(), 100));
            EXPECT_TRUE(support::sameBytes(found, support::slice(rows, at, 100))) << "read " << i;
        }
    };
    support::expectInChild([&] { readAll(2); }, [&] { readAll(1); });
}

// A child has none of its parent's threads, so it must not wait for one, nor end the parent's file.
TEST_F(Limits, AForkWhileWorkersLive) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "a child of several threads cannot start threads there";
#endif
    makeFile(path("other"), {fRows, fRows});
    for (const int road : {0, 1, kTwo}) {
        auto writer = startedWriter(fName, road);
        write(*writer, fRows);
        writer->Flush();
        auto reader = std::make_unique<Reader>(path("other"), road == 1 ? 2 : road, kRow0);
        reader->read(100'001);
        support::expectInChild([&] {
            EXPECT_EQ(writer->Close(), 0);
            writer->abandon();
            writer.reset();
            EXPECT_EQ((*reader)->Close(), 0);
            reader.reset();
            EXPECT_TRUE(support::sameBytes(Reader(path("other"), road, kRow0).read(300'000), joined({fRows, fRows})));
        });
        support::expectInChild([&] { execl("/bin/true", "true", nullptr); });
        support::expectInChild([&] {
            EXPECT_EQ(ORVA_FileStream(fName.c_str(), "r+b").Good(), 0) << "a second writer in another process";
        });
        EXPECT_EQ(reader->readAt(kRow0 + 99'999, 3).size(), 3U);
        write(*writer, fRows);
        EXPECT_EQ(writer->Close(), 1);
        EXPECT_TRUE(support::sameBytes(Reader(fName, 0, kRow0).read(300'000), joined({fRows, fRows})));
    }
}

}  // namespace
}  // namespace core
