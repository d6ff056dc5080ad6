#include "part.h"

#include "failure.h"
#include "input.h"
#include "text.h"

#include <CLI/CLI.hpp>

#include <limits>

namespace {

// The heading repeats its own offset, so it shows its byte order by itself. --swap remains for an offset that reads
// the same both ways, and to have a wrong heading named as what the user took it for.
bool isSwapped(const std::string& name, std::int64_t row0Pos) {
    namedStream stream(name);
    std::int64_t found = 0;
    stream.DisablePreReading();
    stream.Seek(row0Pos, ORVA_StrBaseIO::SeekFromStart);
    if (stream.Read(&found, sizeof found) != sizeof found) return false;
    return found != row0Pos && orva::swapBytes(found) == row0Pos;
}

orva::foundPart search(const std::string& file) {
    if (const auto found = orva::findPart(file)) return *found;
    throw toolFailure(kDamaged, file,
                      "holds no finished compressed part: check that it is the file you mean and that its writer "
                      "finished, or give the position of its rows with --row0");
}

}  // namespace

void partOptions::addTo(CLI::App& app) {
    app.add_option("FILE", file, "A file with a compressed part")->required();
    app.add_option("--row0", row0, "The file offset where the compressed part begins")
        ->check(CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max()));
    app.add_flag("--swap", swap, "Heading and index have the other byte order")->needs("--row0");
}

locatedPart locatePart(const partOptions& options) {
    const std::string& file = options.file;
    if (options.row0 != 0) {
        return {{options.row0, options.swap || isSwapped(file, options.row0)}, locatedPart::byUser, {}};
    }
    if (auto dictionary = readDictionary(file)) {
        const std::int64_t row0 = dictionary->row0Pos;
        return {{row0, isSwapped(file, row0)}, locatedPart::byDictionary, std::move(dictionary)};
    }
    return {search(file), locatedPart::bySearch, {}};
}

std::string foundText(const locatedPart& located) {
    return "heading found at offset " + grouped(located.part.row0Pos) +
           (located.part.swapped ? ", in the other byte order" : ", in this machine's byte order");
}

void noteFound(const std::string& verbName, const partOptions& options, const locatedPart& located) {
    if (located.how == locatedPart::bySearch) note(verbName, options.file, foundText(located));
}
