#include "part.h"

#include "failure.h"
#include "text.h"
#include "values.h"

#include <CLI/CLI.hpp>

#include <set>

namespace {

void addPlace(CLI::App& app, partOptions& options) {
    app.add_option("--row0", options.row0, "The file offset where the compressed part begins; found if not given")
        ->option_text("S")
        ->check(atLeastOne());
    app.add_flag("--swap", options.swap, "With --row0: the heading has the other byte order; found if not given")
        ->needs("--row0");
}

constexpr const char* kFileHelp = "A file of compressed rows";

}  // namespace

void partOptions::addTo(CLI::App& app) {
    app.add_option("FILE", file, kFileHelp)->required();
    addPlace(app, *this);
}

void partOptions::addTo(CLI::App& app, std::vector<std::string>& files) {
    app.add_option("FILE", files, kFileHelp)->required();
    addPlace(app, *this);
}

void requireName(const std::string& file) {
    if (file == "-")
        usageError("FILE cannot be standard input, which is read only from start to end: save it to a file first");
}

openedPart openFile(const partOptions& options) {
    requireName(options.file);
    try {
        const orva::Reader reader(options.file, {.row0 = options.place(), .cached_blocks = 0});
        openedPart file{options.file, reader, info(reader)};
        if (!options.swap || file.info.swapped) return file;
        throw toolFailure(kDamaged, options.file, "its heading has this machine's byte order: leave out --swap");
    } catch (const orva::UsageError& twoParts) {
        throw toolFailure(kOtherFailure, options.file, reasonOf(twoParts));
    }
}

openedPart openFile(const std::string& verbName, const partOptions& options) {
    openedPart file = openFile(options);
    if (file.info.found_by == orva::FileInfo::FoundBy::search) {
        note(verbName, options.file,
             "heading found at offset " + grouped(file.info.row0) +
                 (file.info.swapped ? ", in the other byte order" : ", in this machine's byte order"));
    }
    return file;
}

void requireSound(const std::string& file, const orva::VerifyReport& found) {
    if (found.sound()) return;
    throw toolFailure(kDamaged, file, found.bad.empty() ? found.index : found.bad.front().text);
}

void noteHidden(const std::string& verbName, const std::string& file, std::int64_t row0) {
    try {
        if (orva::Reader(file).row0() == row0) return;
    } catch (const orva::Error&) {  // NOLINT(bugprone-empty-catch): then it is not found
    }
    note(
        verbName, file,
        "its dictionary part looks like another compressed part: to read the rows, use --row0 " + std::to_string(row0));
}

int forEachFile(const std::string& verbName, partOptions& part, const std::vector<std::string>& files,
                const std::function<void()>& work) {
    std::set<int> met;
    for (const std::string& file : files) {
        part.file = file;
        try {
            work();
        } catch (...) {
            met.insert(reportFailure(verbName, file, std::current_exception()));
        }
    }
    for (const int code : {kUsage, kDamaged, kInputUnreadable, kOutputUnwritable, kOtherFailure, kPartial}) {
        if (met.contains(code)) return code;
    }
    return kAllWell;
}
