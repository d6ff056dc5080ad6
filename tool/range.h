// Ranges of rows as the user gives them, in bytes from the first byte of rows.
#pragma once

#include <orva/reader.h>

#include <cstdint>
#include <string>

// "OFF:LEN"; "OFF:" goes to the end; "-N" is the last N. Anything else is a usage error; one that leaves the rows of
// `file`, which are `dataSize` bytes, a failure that tells their size.
orva::Range parseRange(const std::string& text, const std::string& file, std::int64_t dataSize);
// "A:B", B exclusive, in records of `recordSize` bytes; "A:" goes to the last whole one, "-N:" is the last
// N whole ones.
orva::Range parseRecords(const std::string& text, std::int64_t recordSize, const std::string& file,
                         std::int64_t dataSize);
