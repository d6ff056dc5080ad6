// A stream beside a byte vector that says what it must read and a position that says where it must stand.
#pragma once

#include "support/tempDir.h"

#include <orva/filestr.h>

#include <gtest/gtest.h>

#include <memory>

namespace support {

class ModelStream {
public:
    ModelStream(const std::string& file, const char* mode, Bytes& content, bool encrypted = false)
        : fStream(new ORVA_FileStream(file.c_str(), mode, encrypted)), fContent(content) {}
    // A copy: at position 0, sharing the file and so the content.
    ModelStream(const ModelStream& source) : fStream(new ORVA_FileStream(*source.fStream)), fContent(source.fContent) {}

    ORVA_FileStream& stream() { return *fStream; }
    std::int64_t position() const { return fPosition; }

    void read(std::size_t size) {
        Bytes bytes(size);
        bytes.resize(fStream->Read(bytes.data(), static_cast<std::uint32_t>(size)));
        EXPECT_TRUE(sameBytes(bytes, slice(fContent, static_cast<std::size_t>(fPosition), size)));
        moveTo(fPosition + std::ssize(bytes));
    }
    void write(const Bytes& bytes) {
        EXPECT_EQ(fStream->Write(bytes.data(), static_cast<std::uint32_t>(bytes.size())), bytes.size());
        const auto begin = static_cast<std::size_t>(fPosition);
        if (!bytes.empty()) fContent.resize(std::max(fContent.size(), begin + bytes.size()));
        std::copy(bytes.begin(), bytes.end(), fContent.begin() + fPosition);
        moveTo(fPosition + std::ssize(bytes));
    }
    void seek(std::int64_t offset, ORVA_StrBaseIO::SeekDirection direction = ORVA_StrBaseIO::SeekFromStart) {
        const std::int64_t bases[] = {0, fPosition, std::ssize(fContent)};
        std::int64_t target = 0;
        const bool legal = !__builtin_add_overflow(bases[direction], offset, &target) && target >= 0;
        EXPECT_EQ(fStream->Seek(offset, direction), legal ? 0 : -1);
        moveTo(legal ? target : fPosition);
    }
    // Bytes that wait are dropped.
    void reset() {
        fStream->ClearAndReset();
        moveTo(0);
    }
    void moveTo(std::int64_t position) { EXPECT_EQ(fStream->Tell(), fPosition = position); }

private:
    std::unique_ptr<ORVA_FileStream> fStream;
    Bytes& fContent;
    std::int64_t fPosition = 0;
};

}  // namespace support
