// Ranges of rows as the user gives them, in bytes from the first byte of rows.
#pragma once

#include <cstdint>
#include <string>

struct span {
    std::int64_t offset;
    std::int64_t length;
};

// "OFF:LEN"; "OFF:" goes to the end; "-N" is the last N. Anything else is a usage error; a span that leaves the rows of
// `file`, which are `dataSize` bytes, a failure that tells their size.
span parseRange(const std::string& text, const std::string& file, std::int64_t dataSize);
// "A:B", B exclusive, in records of `recordSize` bytes; "A:" goes to the last whole one, "-N:" is the last
// N whole ones.
span parseRecords(const std::string& text, std::int64_t recordSize, const std::string& file, std::int64_t dataSize);
