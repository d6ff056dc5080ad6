// Inspects a file: finds its part, opens heading and index, verifies every block; reads and seeks in it, with every
// threading and by position; and joins it to itself. A second reader is the reference: both accept the same files and
// call the same blocks sound. Each read gives the reference's bytes, or DamagedFileError where the reference meets
// damage; the stream stays usable.
#include "fuzzTarget.h"

using namespace support;

bool opens(const Input& in, const orva::foundPart& where) {
    const secondReader reference(in.file, where.row0Pos, where.swapped, inflated);
    std::optional<orva::finishedPart> part;
    const bool opened = soundFor([&] { part.emplace(in.name, where); });
    require(opened == reference.opens, "a part opens exactly when its heading and index can be true");
    if (!opened) return false;
    require(part->blockCount() == reference.blocks.size() && part->dataSize() == reference.end - where.row0Pos,
            "blocks and rows are counted");
    require(soundFor([&] { part->verifyIndex(); }) == reference.contiguous, "verifyIndex finds every gap");
    for (std::uint32_t i = 0; i < part->blockCount(); ++i) {
        require(soundFor([&] { part->verifyBlock(i); }) == reference.blocks[i].has_value(),
                "a block is sound exactly when its stream is whole and as its record says");
    }
    return true;
}

// orva::Reader detects the byte order itself.
void readByPlace(Input& in) {
    const secondReader native(in.file, kPlace, false, inflated), swapped(in.file, kPlace, true, inflated);
    const secondReader& reference = native.layout.heading._caseStartPos == kPlace ? native : swapped;
    std::optional<orva::Reader> reader;
    const orva::ReaderOptions options{kPlace, 1, in.steps.ConsumeIntegralInRange(0, 2)};
    const bool opens = soundFor<orva::DamagedFileError>([&] { reader.emplace(in.name, options); });
    require(opens == reference.opens, "a Reader opens exactly when heading and index can be true");
    for (int i = 0; opens && i < 4; ++i) {
        const std::int64_t offset = in.steps.ConsumeIntegral<std::uint16_t>();
        const auto size = in.steps.ConsumeIntegralInRange<std::uint32_t>(0, 3 * kBlockSize);
        readAsTheOther<orva::DamagedFileError>(reference, kPlace + offset, size,
                                               [&] { return rowsAt(*reader, offset, size); });
    }
}

void readByStream(Input& in, bool opened) {
    zcmpsFilestr stream(ORVA_FileStream(in.name.c_str(), "rb"));
    // Mostly none, since threads take time and most checks of reading need none.
    const int threading = in.steps.PickValueInArray({2, kTwo, 0, 0, 0, 0, 0, 0});
    setThreading(stream, threading);
    stream.setBlockCache(in.steps.ConsumeIntegralInRange(0, 3));
    require(soundFor([&] { stream.readFilePosInfo(kPlace, in.swap); }) == opened, "a stream opens the same parts");
    PartModel model{in.name, kPlace, in.swap, in, inflated};
    while (opened && in.steps.remaining_bytes() != 0) model.read(stream, threading != 2);
    unsigned char byte = 0;
    require(opened || !soundFor([&] { stream.Read(&byte, 1); }), "a part that does not open cannot be read");
    require(stream.Close() == 1, "a reader closes");
}

void joinTwice(const std::string& name) {
    const std::string to = pathOf("joined");
    std::filesystem::remove(to);
    const std::array<orva::Path, 2> from{name, name};
    const bool joined = soundFor<orva::Error>([&] { orva::join(from, to, {.durable = false}); });
    require(joined == std::filesystem::exists(to), "a join makes a whole file or none");
    bool sound = false;
    soundFor<orva::Error>([&] { sound = orva::verify(name).sound(); });
    require(joined || !sound, "what is sound can be joined");
    if (!joined) return;
    const orva::Reader once(name), twice(to);
    require(twice.size() == 2 * once.size() && orva::verify(to).sound() == sound, "all rows twice, as sound as before");
    require(!sound || allRows(twice) == allRows(once) + allRows(once), "the rows of one behind those of the other");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input in(data, size);
    std::optional<orva::foundPart> found;
    require(soundFor([&] { found = orva::findPart(in.name); }), "a search for a part ends well in any file");
    if (found) opens(in, *found);
    const bool opened = opens(in, {kPlace, in.swap});
    require(!opened || found, "a part that opens is found, or another one before it");
    const int way = in.steps.ConsumeIntegralInRange(0, 7);
    if (way == 0) joinTwice(in.name);
    way < 4 ? readByPlace(in) : readByStream(in, opened);
    return 0;
}
