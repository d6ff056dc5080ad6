// Numbers and names as people read them.
#pragma once

#include <orva/reader.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The number, 0 or more, that `digits` spell; empty if they hold anything else.
std::optional<std::int64_t> parseNumber(std::string_view digits);
// 61,234,567
std::string grouped(std::int64_t number);
// 58.4 MiB
std::string humanSize(std::int64_t bytes);
// 4.96:1; a dash if nothing was stored
std::string ratioText(std::int64_t before, std::int64_t after);
// "1 block", "2 blocks"
std::string counted(std::int64_t number, const std::string& what);
// bytes 10 to 20 of the rows are lost
std::string lostText(const orva::Range& rows);
// A name or other text from outside, with escapes for all that a terminal interprets or that disguises the text:
// control characters, characters that change the direction of writing, bytes that are not UTF-8.
std::string printable(const std::string& text);
