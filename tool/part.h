// FILE on the command line, and where its rows begin: by the user's word, by its own, or found by looking for them.
//
// Failure: the face's errors (orva/error.h); toolFailure.
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
struct shownFile {
    std::string name;
    orva::Reader reader;
    orva::FileInfo info;
};

// Refuses a file in which two parts fit, unless the user says which.
shownFile openFile(const partOptions& options);
// The same; where a search has found the part is told on standard error.
shownFile openFile(const std::string& verbName, const partOptions& options);

// A name of standard input, which cannot be read at any place, is a usage error.
void requireName(const std::string& file);

// Throws what was found to be wrong first.
void requireSound(const std::string& file, const orva::VerifyReport& found);

// Tells on standard error if that of `row0` is not the part that is found in the file without the user's word.
void noteHidden(const std::string& verbName, const std::string& file, std::int64_t row0);

// Runs `work` for one of the files after the other, as the one of `part`; failures are reported where they happen. The
// exit code: of those of the files the first in 5, 3, 4, 1, 7, 0.
int forEachFile(const std::string& verbName, partOptions& part, const std::vector<std::string>& files,
                const std::function<void()>& work);
