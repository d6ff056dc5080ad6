// Rows as bytes, for the face and from it. Needs no test framework, so that fuzz targets use it too.
#pragma once

#include "support/bytes.h"

#include <orva/reader.h>

#include <cstdint>
#include <span>

namespace support {

inline std::span<const std::byte> spanOf(const Bytes& rows) {
    return std::as_bytes(std::span(rows));
}

// The rows at `offset`, as many as there are.
inline Bytes rowsAt(const orva::Reader& reader, std::int64_t offset, std::size_t size) {
    Bytes rows(size);
    rows.resize(reader.read_at(offset, std::as_writable_bytes(std::span(rows))));
    return rows;
}
inline Bytes allRows(const orva::Reader& reader) {
    return rowsAt(reader, 0, static_cast<std::size_t>(reader.size()));
}

}  // namespace support
