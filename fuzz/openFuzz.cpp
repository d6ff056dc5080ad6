// Looking into a file: finding its part, opening heading and index, verifying every block. Held against a second
// reader: both take the same files and call the same blocks sound.
#include "fuzzTarget.h"

namespace {

using fuzz::Bytes;
using fuzz::require;
using fuzz::soundFor;

void look(const std::string& name, const Bytes& file, const orva::foundPart& where) {
    const fuzz::ReferencePart reference(file, where.row0Pos, where.swapped);
    std::unique_ptr<orva::finishedPart> part;
    const bool opens = soundFor([&] { part = std::make_unique<orva::finishedPart>(name, where); });
    require(opens == reference.opens(), "a part opens exactly when its heading and index can be true");
    if (!opens) return;
    require(part->fileSize() == std::ssize(file), "the file's size is told");
    require(part->heading()._indexPos == reference.heading()._indexPos, "the heading is told");
    require(part->blockCount() == reference.blocks().size(), "the blocks are counted");
    require(part->dataSize() == reference.end() - where.row0Pos, "the rows are counted");
    require(soundFor([&] { part->verifyIndex(); }) == reference.contiguous(), "verifyIndex finds every gap");
    for (std::uint32_t i = 0; i < part->blockCount(); ++i) {
        require(part->block(i).translatePos == reference.blocks()[i].record.translatePos, "a record is told");
        require(soundFor([&] { part->verifyBlock(i); }) == reference.blocks()[i].rows.has_value(),
                "a block is sound exactly when its stream is whole and as its record says");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > fuzz::kLongestInput) return 0;
    const std::string name = fuzz::pathOf("file");
    const Bytes file(data, data + size);
    fuzz::putFile(name, file);
    std::optional<orva::foundPart> found;
    require(soundFor([&] { found = orva::findPart(name); }), "a search for a part ends well in any file");
    if (found) {
        require(found->row0Pos > 0 && found->row0Pos <= std::ssize(file) - kHeadingSize, "what is found is there");
        look(name, file, *found);
    }
    for (const bool swapped : {false, true}) {
        look(name, file, {fuzz::kRow0, swapped});
        const fuzz::ReferencePart reference(file, fuzz::kRow0, swapped);
        require(found || !reference.opens(), "a part that opens is found, or another one before it");
    }
    return 0;
}
