// FILE on the command line, and where its rows begin: as the user says, as the file says, or as a search finds.
//
// Failure: orva::Error (orva/error.h); toolFailure.
#pragma once

#include <orva/orva.h>

#include <cstdint>
#include <functional>
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
    std::optional<std::int64_t> place() const { return row0 == 0 ? std::nullopt : std::optional(row0); }
};

// A finished file as it was when it was opened.
struct openedPart {
    std::string name;
    orva::Reader reader;
    orva::FileInfo info;
};

// Throws toolFailure for a file in which two parts fit, unless the user says which.
openedPart openFile(const partOptions& options);
// The same; if a search has found the part, notes on standard error where.
openedPart openFile(const std::string& verbName, const partOptions& options);

// Usage error for standard input, which is read only from start to end.
void requireName(const std::string& file);

// Throws toolFailure with the first fault of the report, if it has one.
void requireSound(const std::string& file, const orva::VerifyReport& found);

// Notes on standard error if opening the file without --row0 does not find the part at `row0`.
void noteHidden(const std::string& verbName, const std::string& file, std::int64_t row0);

// Runs `work` for each file in turn, as the one of `part`, and reports failures as they happen. Returns the first in 2,
// 5, 3, 4, 1, 7, 0 of the files' exit codes.
int forEachFile(const std::string& verbName, partOptions& part, const std::vector<std::string>& files,
                const std::function<void()>& work);
