// The dictionary part that `orva pack` writes in front of its rows when it is given none: 512 bytes of text that say
// where the rows begin, so that the tool's own files need no flags.
//
//   orva dictionary 1 row0=0000000512      the position in fixed width
//   source=NAME                            where one named file was packed; its base name
//   size=BYTES                             and its size, where it was known
//   (blanks, up to a last line feed)
#pragma once

#include <orva/orva.h>

#include <cstdint>
#include <optional>
#include <string>

struct dictionaryText {
    std::int64_t row0Pos = 0;
    std::string source;  // empty where not known
    std::optional<std::int64_t> size;
};

std::string makeDictionary(const std::string& source, std::optional<std::int64_t> size);

// Such a dictionary part of a file, for its rows with others behind them: as long, without the lines that tell where
// the rows came from. FileError if it cannot be read.
std::string joinedDictionary(const std::string& file, std::int64_t row0Pos);

// What the file's first bytes say, if they are such a dictionary part. FileError if it cannot be read.
std::optional<dictionaryText> readDictionary(ORVA_File& file);
