// Recovers a file: the output verifies clean, every row in it comes from a stream that is whole in the input, and a
// sound file loses nothing.
#include "fuzzTarget.h"

using namespace support;

// The rows of every whole stream in the file.
std::vector<Bytes> streamsOf(const Bytes& file) {
    std::vector<Bytes> streams;
    for (std::size_t at = 0; at + 2 <= file.size(); ++at) {
        if ((file[at] & 0xF) != 8 || (file[at] * 256 + file[at + 1]) % 31 != 0) continue;
        Inflated found = inflated(std::span(file).subspan(at, std::min<std::size_t>(kBlockSize, file.size() - at)));
        if (found.whole && !found.rows.empty()) streams.push_back(std::move(found.rows));
    }
    return streams;
}

// The rows are streams, one after the other.
bool madeOf(const std::vector<Bytes>& streams, const Bytes& rows) {
    std::set<std::size_t> ends{0};
    for (const std::size_t end : ends) {
        for (const Bytes& stream : streams) {
            if (slice(rows, end, stream.size()) == stream) ends.insert(end + stream.size());
        }
    }
    return ends.count(rows.size()) != 0;
}

// Removes the zeros that replace lost rows.
Bytes withoutLost(Bytes rows, const orva::recoverReport& report) {
    for (auto lost = report.lost.rbegin(); lost != report.lost.rend(); ++lost) {
        const std::int64_t at = lost->begin - report.part.row0Pos, size = lost->end - lost->begin;
        if (lost->estimated && at == std::ssize(rows)) continue;  // nothing comes after it
        require(at >= 0 && size > 0 && size <= std::ssize(rows) - at, "lost rows are filled");
        require(std::count(rows.begin() + at, rows.begin() + at + size, 0) == size, "lost rows are zeros");
        rows.erase(rows.begin() + at, rows.begin() + at + size);
    }
    return rows;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input in(data, size);
    const std::string output = pathOf("recovered");
    orva::recoverOptions options{std::nullopt, in.steps.ConsumeBool(), in.steps.ConsumeBool()};
    if (in.steps.ConsumeBool()) options.part = orva::foundPart{kPlace, in.swap};

    orva::recoverReport report;
    const bool recovers = soundFor([&] { report = orva::recover(in.name, output, options); });
    require(readBytes(in.name) == in.file, "the input stays as it is");
    const secondReader before(in.file, kPlace, in.swap, inflated);
    const bool whole = options.part && before.sound;
    require(recovers || !whole, "a sound file recovers");
    if (!recovers) return 0;

    const std::int64_t row0 = report.part.row0Pos;
    const Bytes result = readBytes(output);
    const secondReader after(result, row0, false, inflated);
    require(after.sound, "what was recovered verifies clean");
    require(slice(result, 0, row0) == slice(in.file, 0, row0), "the dictionary part is a copy");
    const Bytes rows = options.dropLost ? *after.allRows() : withoutLost(*after.allRows(), report);
    require(std::ssize(rows) == report.rows, "the rows recovered are counted");
    require(madeOf(streamsOf(in.file), rows), "a row recovered stands in the input");
    if (whole) require(report.lost.empty() && after.allRows() == before.allRows(), "of a sound file nothing is lost");
    return 0;
}
