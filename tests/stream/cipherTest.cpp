// Encrypted files by calls of the file itself. The model in core/modelTest.cpp covers streams over them.
#include "file/namedFile.h"
#include "stream/streamTest.h"

using namespace support;

struct Cipher : TempDir {
    Cipher() { SetKeepEncrypt(true); }
    ~Cipher() override { SetKeepEncrypt(false); }
    void open(const char* mode) {
        file = new ORVA_File(true);
        orva::openOrThrow(*file, fPath, mode, 1003);
    }
    void write(const Bytes& bytes, std::int64_t offset) {
        EXPECT_EQ(file->Write(bytes.data(), static_cast<unsigned int>(bytes.size()), offset), bytes.size());
        EXPECT_EQ(file->Tell(), offset + std::ssize(bytes));
    }
    Bytes read(std::int64_t offset, unsigned int size) {
        Bytes bytes(size);
        bytes.resize(file->Read(bytes.data(), size, offset));
        return bytes;
    }

    const std::string fPath = path("f");
    const Bytes fNoise = RandomBytes(1).noise(1'000);
    RefCountPtr<ORVA_File> file;
};

std::unique_ptr<ORVA_FileStream> gLast;  // destroyed after objects of the library that are made later

TEST_F(Cipher, AStreamEndsWholeWithItsProcess) {
    expectInChild([&] {
        gLast = std::make_unique<ORVA_FileStream>(fPath.c_str(), "wb", true);
        gLast->Write(fNoise.data(), 9);
        std::exit(0);
    });
    EXPECT_EQ(std::filesystem::file_size(fPath), 16U);
}

struct WriteCase {
    const char* name;
    bool taken;
    std::size_t held;  // bytes in the file; those after the last whole block are pending, or padded if finished
    std::int64_t offset;
    std::size_t size;
    bool finished = false;
};
constexpr WriteCase kWrites[] = {
    {"BelowTheFile", false, 32, -16, 16},       {"InABlockThatCannotEnd", false, 32, INT64_MAX - 15, 8},
    {"OverSomeOfWhatWaits", false, 40, 32, 4},  {"InsideThePaddedBlock", false, 40, 40, 8, true},
    {"BehindAGap", true, 32, 64, 20},           {"OverThePaddedBlock", true, 40, 32, 20, true},
    {"NothingBelowTheFile", false, 32, -16, 0},
};

TEST_F(Cipher, AFileTakesWhatNeedsNoOtherBytesOfABlock) {
    for (const WriteCase& c : kWrites) {
        SCOPED_TRACE(c.name);
        open("w+b");
        const Bytes held = slice(fNoise, 0, c.held), more = slice(fNoise, 500, c.size);
        write(held, 0);
        if (c.finished) file->FinishEncryption();
        const Bytes before = readBytes(fPath);
        const CallHook calls;
        EXPECT_EQ(failureOf([&] { write(more, c.offset); }), c.taken ? "" : fileError(1002, EINVAL, fPath));
        EXPECT_TRUE(c.taken || (calls.count == 0 && readBytes(fPath) == before && !file->Good()));
        EXPECT_TRUE(sameBytes(read(0, 256), c.taken ? with(held, c.offset, more) : held));
    }
    file->FinishEncryption();
    EXPECT_NE(slice(readBytes(fPath), 0, 16), slice(fNoise, 0, 16)) << "the ciphertext";
    // Part of a block, left by a dead process, is no data, and counts as nothing in a gap.
    file->Close();
    std::filesystem::resize_file(fPath, 41);
    open("r+b");
    const Bytes whole = read(0, 256);
    EXPECT_EQ(whole.size(), 32U);
    write(slice(fNoise, 0, 16), 64);
    EXPECT_TRUE(sameBytes(read(0, 256), with(whole, 64, slice(fNoise, 0, 16))));
    const auto breach = testing::HasSubstr("&& \"byteOffset and byteSize shoule be multiple of 16.\"");
    EXPECT_DEATH(read(0, 8), breach);
    EXPECT_DEATH(read(8, 16), breach);
    SetKeepEncrypt(false);
    EXPECT_FALSE(ORVA_File(true).IsEncrypted());
}

TEST_F(Cipher, TransfersCostOneCallEachAndACloseLosesWhatWaits) {
    open("w+b");
    FileCalls calls;
    EXPECT_EQ(file->FinishEncryption(), 0U);  // no run has begun
    for (int i = 0; i < 5; ++i) write(slice(fNoise, 0, i < 4 ? 100 : 5), i * 100);
    file->Close();
    EXPECT_EQ(calls.transfers(), "W0+96 W96+16 W112+80 W192+16 W208+80 W288+16 W304+96 E ");
    open("w+b");
    write(slice(fNoise, 0, 9), 0);
    calls.fail(Call::RunEnd, EIO);
    EXPECT_EQ(failureOf([&] { file->FinishEncryption(); }), fileError(1002, EIO, fPath));
    EXPECT_EQ(file->FinishEncryption(), 0U);
    file->Close();
    EXPECT_EQ(calls.transfers(), "W0+16 E E ") << "once for a run, and for its failure";
    orva::openOrThrow(*file, fPath, "rb", 1003);
    calls.fail(Call::Seek, EIO);
    EXPECT_THROW(read(0, 16), FileError) << "its pad would pass for data";
    ORVA_FileStream stream(fPath.c_str(), "r+b", true);
    zcmpsFilestr compressed(stream);
    EXPECT_THROW(compressed.setRow0Pos(112), FileError) << "a compressed stream over it";
    EXPECT_THROW(compressed.readFilePosInfo(112, false), FileError);
    EXPECT_EQ(std::filesystem::file_size(fPath), 16U);
}
