// Finds the compressed part of a file: by the user's word, by the tool's own dictionary part, or by looking for it.
//
// Failure: FileError (1003); toolFailure with kDamaged when there is none.
#pragma once

#include "dictionary.h"

#include <orva/orva.h>

#include <cstdint>
#include <optional>
#include <string>

namespace CLI {
class App;
}

struct partOptions {
    std::string file;
    std::int64_t row0 = 0;  // 0: not given
    bool swap = false;

    // The file, --row0 and --swap.
    void addTo(CLI::App& app);
};

struct locatedPart {
    enum way { byUser, byDictionary, bySearch };

    orva::foundPart part;
    way how;
    std::optional<dictionaryText> dictionary;
};

locatedPart locatePart(const partOptions& options);

// "heading found at offset 1,000, in the other byte order"
std::string foundText(const locatedPart& located);
// Tells on standard error where a part was found by search.
void noteFound(const std::string& verbName, const partOptions& options, const locatedPart& located);
