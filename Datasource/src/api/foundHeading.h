// Where the heading of a part stands in a file: as the caller says, or the dictionary part, or as a search finds it.
//
// Failure: DamagedFileError, UnfinishedFileError and UsageError of the face; FileError; callersFailure.
#pragma once

#include "format/storedBytes.h"
#include "part/soundIndex.h"

#include <orva/compressedLayout.h>
#include <orva/dictionaryText.h>
#include <orva/error.h>
#include <orva/files.h>
#include <orva/inspect.h>

#include <cstdint>
#include <optional>
#include <string>

namespace orva {

struct foundHeading {
    FileInfo::FoundBy by{};
    rawHeading raw{};              // as it stands in the file
    compressionHeading heading{};  // in host order
    bool swapped = false;
    std::optional<dictionaryText> text{};  // in front of it
};

// `place`: the full name, to search by; empty where there is none to search. Reads `bytes` at most twice.
foundHeading findHeading(const storedBytes& bytes, std::optional<i64> row0, const Path& path, const std::string& place);

// The part can be opened.
bool isSound(const std::string& file, const foundPart& part);

}  // namespace orva
