// Files of the other byte order, made past the library. Needs no test framework, so that corpora are made by it too.
#pragma once

#include "support/bytes.h"

#include <orva/compressedLayout.h>

#include <cstring>

namespace support {

// A little-endian file with a finished part at `row0`, with every field of heading and index in the other byte order.
inline Bytes swapped(Bytes file, std::int64_t row0) {
    compressionHeading heading{};
    std::memcpy(&heading, &file.at(static_cast<std::size_t>(row0)), sizeof heading);
    const auto turn = [&](std::int64_t at, int width) { std::reverse(&file[0] + at, &file[0] + at + width); };
    for (const int field : {0, 8, 16}) turn(row0 + field, 8);
    for (std::int64_t at = heading._indexPos; at < heading._indexPos + heading._size; at += kRecordSize) {
        for (const int field : {0, 8}) turn(at + field, 8);
        for (const int field : {16, 20}) turn(at + field, 4);
    }
    return file;
}

}  // namespace support
