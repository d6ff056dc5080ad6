#include "part.h"

#include "failure.h"
#include "input.h"
#include "text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <limits>
#include <set>

namespace fs = std::filesystem;

namespace {

std::optional<compressionHeading> headingAt(ORVA_File& file, std::int64_t place) {
    compressionHeading heading{};
    if (file.Read(&heading, sizeof heading, place) != sizeof heading) return {};
    return heading;
}

// The heading repeats its own offset, so it shows its byte order by itself. --swap remains for an offset that reads
// the same both ways, and to have a wrong heading named as what the user took it for.
bool isSwapped(ORVA_File& file, std::int64_t row0Pos) {
    const auto heading = headingAt(file, row0Pos);
    return heading && heading->_caseStartPos != row0Pos && orva::swapBytes(heading->_caseStartPos) == row0Pos;
}

std::string nameOf(const ORVA_File& file) {
    return file.GetNameStr().GetGeneric();
}

orva::foundPart search(ORVA_File& file) {
    if (const auto found = orva::findPart(file)) return *found;
    throw toolFailure(kDamaged, nameOf(file),
                      "holds no finished compressed part: check that it is the file you mean and that its writer "
                      "finished, or give the position of its rows with --row0");
}

bool isSound(const std::shared_ptr<ORVA_File>& file, orva::foundPart part) {
    try {
        const orva::finishedPart opened(file, part);
        return true;
    } catch (const DamagedFileError&) {
        return false;
    }
}

// Behind the index of a part nothing needs to stand. What does may be the part that was meant: a finished file that was
// taken for a dictionary part stands before it.
void refuseSecond(const std::shared_ptr<ORVA_File>& file, orva::foundPart first) {
    const auto heading = headingAt(*file, first.row0Pos);
    if (!heading) return;
    const auto inOrder = [&](std::int64_t field) { return first.swapped ? orva::swapBytes(field) : field; };
    const std::int64_t end = inOrder(heading->_indexPos) + inOrder(heading->_size);
    if (inOrder(heading->_caseStartPos) != first.row0Pos || end <= first.row0Pos) return;
    if (const std::int64_t size = file->Size(); size > 0 && end >= size) return;
    const auto second = orva::findPart(*file, end);
    if (!second || !isSound(file, *second) || !isSound(file, first)) return;
    throw toolFailure(kOtherFailure, nameOf(*file),
                      "holds two compressed parts, at offset " + std::to_string(first.row0Pos) + " and at " +
                          std::to_string(second->row0Pos) + ": say by --row0 which one you mean");
}

locatedPart find(const std::shared_ptr<ORVA_File>& file) {
    if (auto dictionary = readDictionary(*file)) {
        const std::int64_t row0 = dictionary->row0Pos;
        return {file, {row0, isSwapped(*file, row0)}, locatedPart::byDictionary, std::move(dictionary)};
    }
    return {file, search(*file), locatedPart::bySearch, {}};
}

void addPlace(CLI::App& app, partOptions& options) {
    app.add_option("--row0", options.row0, "The file offset where the compressed part begins")
        ->check(CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max()));
    app.add_flag("--swap", options.swap, "Heading and index have the other byte order")->needs("--row0");
}

constexpr const char* kFileHelp = "A file with a compressed part";

}  // namespace

void partOptions::addTo(CLI::App& app) {
    app.add_option("FILE", file, kFileHelp)->required();
    addPlace(app, *this);
}

void partOptions::addTo(CLI::App& app, std::vector<std::string>& files) {
    app.add_option("FILE", files, kFileHelp)->required();
    addPlace(app, *this);
}

std::shared_ptr<ORVA_File> openPart(const std::string& name) {
    if (name == "-") usageError("standard input has no name and cannot be read at any place: put it into a file first");
    std::error_code unknown;
    const fs::file_status status = fs::status(name, unknown);
    if (fs::exists(status) && !fs::is_regular_file(status) && !fs::is_block_file(status) && !fs::is_directory(status)) {
        throw toolFailure(kInputUnreadable, name,
                          "is a pipe or a device, which cannot be read at any place: put its bytes into a file first");
    }
    auto file = std::make_shared<ORVA_File>();
    ExtNameStr fileName;
    fileName.SetGeneric(name);
    if (file->Open(fileName, "rb")) return file;
    platform::setErrno(file->OpenErrno());
    throwReadFailed(name);
}

locatedPart locatePart(const partOptions& options) {
    const std::shared_ptr<ORVA_File> file = openPart(options.file);
    if (options.row0 != 0) {
        if (const std::int64_t size = file->Size(); size > 0 && options.row0 >= size) {
            throw toolFailure(kDamaged, options.file,
                              "has no offset " + std::to_string(options.row0) + ", for it ends at " +
                                  std::to_string(size) + ": check --row0, or leave it out to have the part looked for");
        }
        return {file, {options.row0, options.swap || isSwapped(*file, options.row0)}, locatedPart::byUser, {}};
    }
    locatedPart located = find(file);
    refuseSecond(file, located.part);
    return located;
}

bool needsRow0(const std::string& file, std::int64_t row0Pos) {
    try {
        return locatePart({file}).part.row0Pos != row0Pos;
    } catch (const toolFailure&) {
        return true;
    }
}

int forEachFile(const std::string& verbName, const std::vector<std::string>& files,
                const std::function<int(const std::string&)>& work) {
    constexpr int order[] = {kDamaged, kInputUnreadable, kOutputUnwritable, kOtherFailure, kPartial};
    std::set<int> met;
    for (const std::string& file : files) {
        try {
            met.insert(work(file));
        } catch (...) {
            met.insert(reportFailure(verbName, file, std::current_exception()));
        }
    }
    const auto* worst = std::find_if(std::begin(order), std::end(order), [&](int code) { return met.contains(code); });
    return met.contains(kUsage) ? kUsage : worst == std::end(order) ? kAllWell : *worst;
}

std::string foundText(const locatedPart& located) {
    return "heading found at offset " + grouped(located.part.row0Pos) +
           (located.part.swapped ? ", in the other byte order" : ", in this machine's byte order");
}

void noteFound(const std::string& verbName, const partOptions& options, const locatedPart& located) {
    if (located.how == locatedPart::bySearch) note(verbName, options.file, foundText(located));
}
