// Finds the heading of a part: where the caller says, else where the dictionary part says, else by a search.
//
// Failure: DamagedFileError, UnfinishedFileError and UsageError of orva::; FileError; callbackFailure.
#pragma once

#include "format/indexTransfer.h"

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
    rawHeading raw{};              // as stored
    compressionHeading heading{};  // in host order
    bool swapped = false;
    std::optional<dictionaryText> text{};  // before it, if that text names this place
};

// `place` is the full name for a search; empty if there can be none. Reads `bytes` at most twice. `progress` is of the
// search.
foundHeading findHeading(const storedBytes& bytes, std::optional<i64> row0, const Path& path, const std::string& place,
                         const Progress& progress = {});

// True if the part can be opened.
bool isSound(const std::string& name, const foundPart& part);

}  // namespace orva
