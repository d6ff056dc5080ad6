// Large files, which are cheap since they have holes, and forks.
#include "coreTest.h"

namespace core {
namespace {

class Limits : public TempDir {
protected:
    const std::string fName = path("file");
    const Bytes fRows = RandomBytes(3).rows(100'000);
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
            const Reader rows(fName, 0, row0);
            rows->setSafeAppend(true);
            resume(*rows, row0 + 100'000);
            write(*rows, fRows);
        }
        EXPECT_TRUE(sameBytes(Reader(fName, road, row0).read(300'000), fRows + fRows));
    }
    file.Open(fName.c_str(), "rb");
    file.Seek(row0 - 100'000, ORVA_StrBaseIO::SeekFromStart);
    EXPECT_TRUE(sameBytes(read(file, 100'000), fRows));
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
        expectInChild([&] {
            EXPECT_EQ(ORVA_FileStream(fName.c_str(), "r+b").Good(), 0) << "a second writer in another process";
            EXPECT_EQ(writer->Close() + reader->Close(), 0);
            writer->abandon();
            writer.reset();
            reader.release().reset();
            EXPECT_TRUE(sameBytes(Reader(other, road, kRow0).read(300'000), fRows + fRows));
        });
        expectInChild([&] { execl("/bin/true", "true", nullptr); });
        EXPECT_EQ(reader.readAt(kRow0 + 99'999, 3).size(), 3U);
        write(*writer, fRows);
        EXPECT_EQ(writer->Close(), 1);
        EXPECT_TRUE(sameBytes(Reader(fName, 0, kRow0).read(300'000), fRows + fRows));
    }
}

}  // namespace
}  // namespace core
