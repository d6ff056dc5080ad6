// The dictionary part that `orva pack` writes in front of its rows when it is given none: orva/dictionaryText.h.
#pragma once

#include <orva/orva.h>

#include <cstdint>
#include <optional>
#include <string>

std::string makeDictionary(const std::string& source, std::optional<std::int64_t> size);

// Such a dictionary part of a file, for its rows with others behind them: as long, without the lines that tell where
// the rows came from. FileError if it cannot be read.
std::string joinedDictionary(const std::string& file, std::int64_t row0Pos);

// What the file's first bytes say, if they are such a dictionary part. FileError if it cannot be read.
std::optional<orva::dictionaryText> readDictionary(ORVA_File& file);
