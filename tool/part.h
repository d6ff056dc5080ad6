// Finds the compressed part of a file: by the user's word, by the tool's own dictionary part, or by looking for it.
//
// Failure: FileError (1003); toolFailure with kDamaged when there is none.
#pragma once

#include "dictionary.h"

#include <orva/orva.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

struct partOptions {
    std::string file;
    std::int64_t row0 = 0;  // 0: not given
    bool swap = false;

    // The file, --row0 and --swap.
    void addTo(CLI::App& app);
    // --row0 and --swap, and any number of files.
    void addTo(CLI::App& app, std::vector<std::string>& files);
};

struct locatedPart {
    enum way { byUser, byDictionary, bySearch };

    std::shared_ptr<ORVA_File> file;  // open for reading, so that who goes on with it reads the same one
    orva::foundPart part;
    way how;
    std::optional<orva::dictionaryText> dictionary;
};

// The file, open for reading. Refuses what cannot be read at any place, and never waits for a pipe.
std::shared_ptr<ORVA_File> openPart(const std::string& file);

// Refuses a file in which two parts fit, unless the user says which. Opens it once.
locatedPart locatePart(const partOptions& options);

// Whether that of `row0Pos` is not the part that is found without the user's word.
bool needsRow0(const std::string& file, std::int64_t row0Pos);

// Runs `work` for one file after the other; failures are reported where they happen. The exit code: of those of the
// files the first in 5, 3, 4, 1, 7, 0.
int forEachFile(const std::string& verbName, const std::vector<std::string>& files,
                const std::function<int(const std::string&)>& work);

// "heading found at offset 1,000, in the other byte order"
std::string foundText(const locatedPart& located);
// Tells on standard error where a part was found by search.
void noteFound(const std::string& verbName, const partOptions& options, const locatedPart& located);
