// Breaches of a caller's duty end the program, with the text of the assertion.
#include "coreTest.h"
#include "format/filePosInfo.h"

#include <orva/lz4Compress.h>
#include <orva/zlibCompress.h>

namespace core {
namespace {

using Breaches = TempDir;

TEST_F(Breaches, OfACallersDutyEndTheProgramInWords) {
    const auto fresh = freshStream(path("fresh"), 0);
    const auto stream = startedWriter(path("rows.orva"), 1);
    const auto closed = startedWriter(path("closed"), 0);
    closed->Close();
    const auto flushedBy = [&](int withoutWorker) {
        const auto wrong = startedWriter(path("other"), withoutWorker);
        write(*wrong, Bytes(10, 'x'));
        wrong->Flush();
    };
    write(*stream, Bytes(10, 'x'));
    filePosInfo unread(kBlock), lies(kBlock);
    Bytes index = bytesOf(filePosRecord{-100, 0, kBlock, 1}) + bytesOf(filePosRecord{0, 24, kBlock, 1'000});
    lies.parseForRead(index.data(), false);
    std::uint32_t none = 0;
    char b[8] = {};
    const std::string jump = "(req._pos == fpos + sizeof(fBuffer) - availBuffSize) && ";
    const struct {
        std::string text;
        std::function<void()> call;
    } breaches[] = {
        {"bIsWriting == true", [&] { fresh->Write("x", 1); }},
        {"bIsWriting == false", [&] { stream->Read(nullptr, 1); }},
        {"seek from end with zcmpsFilestr::Seek", [&] { stream->Seek(0, ORVA_StrBaseIO::SeekFromEnd); }},
        {jump + "\"Jumped write in zcmpsFilestr::Data::Write\"",
         [&] { stream->Seek(1, ORVA_StrBaseIO::SeekFromStart), stream->Write("x", 1); }},
        {"fData->fpIOThread == 0", [&] { stream->setMultiThread(0); }},
        {"fData->bClosed == false", [&] { closed->Write("x", 1); }},
        {"fData->bClosed == false", [&] { closed->setRow0Pos(kRow0); }},
        {"fData->bClosed == false", [&] { closed->readFilePosInfo(kRow0, false); }},
        {"fpIOThread != 0", [&] { flushedBy(2); }},
        {"fpIOThread != 0", [&] { flushedBy(-1); }},
        {"pInfoBuffer != 0", [&] { unread.findRecord(1); }},
        {"buff != 0", [&] { unread.parseForAppend(nullptr, false); }},
        {"pInfoBuffer->orginalPos != 0", [&] { lies.findRecord(1); }},
        {"souce||dest||outCount||inCount", [&] { zlibCompressBlock().compressBlock(nullptr, 0, nullptr, none); }},
        {"souce && dest && outCount && inCount", [&] { lz4CompressBlock::compressBlock(nullptr, 8, b, 8, 0); }},
        {"souce && dest && outCount && inCount", [&] { lz4CompressBlock::decompressBlock(b, 0, b, 8); }},
    };
    for (const auto& breach : breaches) EXPECT_ASSERTION(breach.call(), breach.text);
    EXPECT_EQ(stream->Close(), 1);
}

}  // namespace
}  // namespace core
