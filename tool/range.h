// Ranges of rows as the user gives them, in bytes from the first byte of rows.
#pragma once

#include <orva/reader.h>

#include <cstdint>
#include <string>

// Parses "OFF:LEN", "OFF:" (to the end) or "-N" (the last N). Anything else is a usage error; a range beyond the rows
// of `file`, which are `dataSize` bytes, is a toolFailure that states their size.
orva::Range parseRange(const std::string& text, const std::string& file, std::int64_t dataSize);
// Parses "A:B" (B exclusive), "A:" (to the last whole record) or "-N:" (the last N whole ones), in records of
// `recordSize` bytes.
orva::Range parseRecords(const std::string& text, std::int64_t recordSize, const std::string& file,
                         std::int64_t dataSize);
