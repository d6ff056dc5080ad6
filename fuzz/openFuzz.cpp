// Looking into a file: finding its part, opening heading and index, verifying every block. Held against a second
// reader: both take the same files and call the same blocks sound.
#include "fuzzTarget.h"

using namespace fuzz;

namespace {

bool opens(const Input& in, const orva::foundPart& where) {
    const Part reference(in.file, where.row0Pos, where.swapped);
    std::optional<orva::finishedPart> part;
    const bool opened = soundFor([&] { part.emplace(in.name, where); });
    require(opened == reference.opens, "a part opens exactly when its heading and index can be true");
    if (!opened) return false;
    require(part->blockCount() == reference.blocks.size() && part->dataSize() == reference.end - where.row0Pos,
            "blocks and rows are counted");
    require(soundFor([&] { part->verifyIndex(); }) == reference.contiguous, "verifyIndex finds every gap");
    for (std::uint32_t i = 0; i < part->blockCount(); ++i) {
        require(soundFor([&] { part->verifyBlock(i); }) == reference.blocks[i].rows.has_value(),
                "a block is sound exactly when its stream is whole and as its record says");
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Input in(data, size);
    std::optional<orva::foundPart> found;
    require(soundFor([&] { found = orva::findPart(in.name); }), "a search for a part ends well in any file");
    if (found) opens(in, *found);
    for (const bool swapped : {false, true}) {
        require(!opens(in, {kRow0, swapped}) || found, "a part that opens is found, or another one before it");
    }
    return 0;
}
