// Large files, many blocks, long requests, signals, forks: cheap, since what is large has holes.
#include "coreTest.h"
#include "format/filePosInfo.h"

#include <sys/mman.h>

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
    const auto seek = [&] { file.Seek(row0 - 100'000, ORVA_StrBaseIO::SeekFromStart); };
    seek();
    write(file, fRows);
    for (const int road : {0, 1, kTwo}) {
        auto rows = std::make_unique<zcmpsFilestr>(file);
        takeRoad(*rows, road);
        beginRows(*rows, row0);
        write(*rows, fRows);
        rows.reset();
        rows = Reader(fName, 0, row0).release();
        rows->setSafeAppend(true);
        resume(*rows, row0 + 100'000);
        write(*rows, fRows);
        rows.reset();
        EXPECT_TRUE(support::sameBytes(Reader(fName, road, row0).read(300'000), fRows + fRows));
    }
    Bytes found(100'000);
    file.Open(fName.c_str(), "rb");
    seek();
    EXPECT_EQ(file.Read(found.data(), 100'000), 100'000U);
    EXPECT_TRUE(support::sameBytes(found, fRows));
}

// At two places in the file by turns, which reading allows.
TEST_F(Limits, AMillionBlocks) {
    constexpr std::int64_t count = 1'000'000;
    makeFile(fName, {fRows, fRows});
    const Layout layout(support::readBytes(fName));
    filePosInfo index(kBlock);
    for (std::int64_t i = 0; i < count; ++i) {
        const filePosRecord& block = layout.records[static_cast<std::size_t>(i % 2)];
        index.addRecord(kRow0 + i * 100'000, block.translatePos, block.orginalSize, block.translateSize);
    }
    std::uint32_t length = 0;
    const unsigned char* bytes = index.serialize(length);
    support::overwriteBytes(fName, layout.heading._indexPos, Bytes(bytes, bytes + length));
    support::overwriteBytes(fName, kRow0 + 16, bytesOf(std::int64_t{length}));
    support::RandomBytes random(6);
    for (const int road : {0, 2, kTwo}) {
        const Reader reader(fName, road, kRow0);
        for (int i = 0; i < 100; ++i) {
            const std::int64_t at = i == 0 ? count * 100'000 - 3 : random.between(1LL << 31, count * 100'000 - 10);
            EXPECT_EQ(reader.readAt(kRow0 + at, 10), support::slice(i == 0 ? fRows : fRows + fRows, at % 100'000, 10))
                << at;
        }
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
        mmap(to + at, piece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, memory, 0);
    }
    ORVA_FileStream file(fName.c_str(), "rb");
    EXPECT_EQ(file.Read(to, room - 1), room - 1);
    EXPECT_EQ(file.Tell(), room - 1);
    EXPECT_EQ(Bytes(to + room - 4, to + room - 1), (Bytes{1, 2, 3}));
    munmap(to, room), close(memory);
}

// The descriptor's own place belongs to both.
TEST_F(Limits, AReaderOpenedBeforeAForkReadsRightInParentAndChildAtOnce) {
    const Bytes rows = support::RandomBytes(3).rows(9'000'000);
    makeFile(fName, {rows});
    const Reader packed(fName, 0, kRow0);
    ORVA_FileStream plain(made("plain", Bytes(kRow0) + rows).c_str(), "rb");
    const auto readAll = [&](std::uint64_t seed) {
        support::RandomBytes places(seed);
        Bytes found(100);
        for (int i = 0; i < 300 && !HasFailure(); ++i) {
            ORVA_StrBaseIO& from = i % 10 == 0 ? static_cast<ORVA_StrBaseIO&>(*packed) : plain;
            const std::size_t at = places.below(rows.size() - 100);
            from.Seek(kRow0 + static_cast<std::int64_t>(at), ORVA_StrBaseIO::SeekFromStart);
            from.Read(found.data(), 100);
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
    const std::string other = path("other");
    makeFile(other, {fRows, fRows});
    for (const int road : {0, 1, kTwo}) {
        auto writer = startedWriter(fName, road);
        writeBlocks(*writer, {fRows});
        Reader reader(other, road == 1 ? 2 : road, kRow0);
        reader.read(100'001);
        support::expectInChild([&] {
            EXPECT_EQ(ORVA_FileStream(fName.c_str(), "r+b").Good(), 0) << "a second writer in another process";
            EXPECT_EQ(writer->Close() + reader->Close(), 0);
            writer->abandon();
            writer.reset();
            reader.release().reset();
            EXPECT_TRUE(support::sameBytes(Reader(other, road, kRow0).read(300'000), fRows + fRows));
        });
        support::expectInChild([&] { execl("/bin/true", "true", nullptr); });
        EXPECT_EQ(reader.readAt(kRow0 + 99'999, 3).size(), 3U);
        write(*writer, fRows);
        EXPECT_EQ(writer->Close(), 1);
        EXPECT_TRUE(support::sameBytes(Reader(fName, 0, kRow0).read(300'000), fRows + fRows));
    }
}

}  // namespace
}  // namespace core
