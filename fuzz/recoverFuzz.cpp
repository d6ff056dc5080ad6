// Recovering a file: the output verifies clean, every row in it comes from a stream that stands whole in the input, and
// of a sound file nothing is lost.
#include "fuzzTarget.h"

namespace {

using fuzz::Bytes;
using fuzz::require;

// All rows that a whole stream of the file holds.
std::vector<Bytes> streamsOf(const Bytes& file) {
    std::vector<Bytes> streams;
    for (std::size_t at = 0; at + 2 <= file.size(); ++at) {
        if ((file[at] & 0xF) != 8 || (file[at] * 256 + file[at + 1]) % 31 != 0) continue;
        if (auto found = fuzz::streamAt(file, at)) streams.push_back(std::move(found->rows));
    }
    return streams;
}

// The rows are streams, one behind the other.
bool madeOf(const std::vector<Bytes>& streams, const Bytes& rows) {
    std::vector<bool> reached(rows.size() + 1);
    reached[0] = true;
    for (std::size_t at = 0; at < rows.size(); ++at) {
        if (!reached[at]) continue;
        for (const Bytes& stream : streams) {
            if (stream.size() > rows.size() - at) continue;
            if (std::equal(stream.begin(), stream.end(), rows.begin() + static_cast<std::ptrdiff_t>(at))) {
                reached[at + stream.size()] = true;
            }
        }
    }
    return reached[rows.size()];
}

// Holds the rows of the output against the streams of the input, and the ranges told as lost against zeros.
void checkRows(const Bytes& rows, const std::vector<Bytes>& streams, const orva::recoverReport& report, bool dropped) {
    const std::int64_t row0 = report.part.row0Pos;
    std::int64_t gone = 0;  // positions of the input that the output does not have
    std::int64_t at = 0;
    std::int64_t recovered = 0;
    const auto take = [&](std::int64_t end) {
        require(end >= at && end <= std::ssize(rows), "lost ranges ascend and lie in the rows");
        require(madeOf(streams, fuzz::slice(rows, at, end - at)), "a row recovered stands in the input");
        recovered += end - at;
        at = end;
    };
    for (const orva::lostRange& lost : report.lost) {
        take(lost.begin - row0 - gone);
        const std::int64_t size = lost.end - lost.begin;
        if (dropped || (lost.estimated && at == std::ssize(rows))) {
            gone += size;
            continue;
        }
        require(at + size <= std::ssize(rows), "lost rows are filled");
        const Bytes zeros = fuzz::slice(rows, at, size);
        require(std::all_of(zeros.begin(), zeros.end(), [](unsigned char byte) { return byte == 0; }),
                "lost rows are zeros");
        at += size;
    }
    take(std::ssize(rows));
    require(recovered == report.rows, "the rows recovered are counted");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > fuzz::kLongestInput) return 0;
    auto [file, steps] = fuzz::Input(data, size);
    const std::string name = fuzz::pathOf("file");
    const std::string output = fuzz::pathOf("recovered");
    fuzz::putFile(name, file);
    std::filesystem::remove(output);
    orva::recoverOptions options;
    const bool swapped = steps.ConsumeBool();
    if (steps.ConsumeBool()) options.part = orva::foundPart{fuzz::kRow0, swapped};
    options.onlyCommitted = steps.ConsumeBool();
    options.dropLost = steps.ConsumeBool();

    orva::recoverReport report;
    const bool recovers = fuzz::soundFor([&] { report = orva::recover(name, output, options); });
    require(fuzz::getFile(name) == file, "the input stays as it is");
    const fuzz::ReferencePart before(file, fuzz::kRow0, swapped);
    const bool whole = options.part && before.sound();
    require(recovers || !whole, "a sound file recovers");
    if (!recovers) return 0;

    const Bytes result = fuzz::getFile(output);
    const fuzz::ReferencePart after(result, report.part.row0Pos, false);
    require(after.sound(), "what was recovered verifies clean");
    require(fuzz::slice(result, 0, report.part.row0Pos) == fuzz::slice(file, 0, report.part.row0Pos),
            "the dictionary part is a copy");
    checkRows(after.allRows(), streamsOf(file), report, options.dropLost);
    if (whole) require(report.lost.empty() && after.allRows() == before.allRows(), "of a sound file nothing is lost");
    return 0;
}
