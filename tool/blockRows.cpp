#include "blockRows.h"

#include <algorithm>
#include <new>
#include <utility>

std::size_t blockAt(const std::vector<orva::Block>& blocks, std::int64_t offset) {
    const auto next =
        std::ranges::upper_bound(blocks, offset, {}, [](const orva::Block& block) { return block.rows.offset; });
    return static_cast<std::size_t>(next - blocks.begin()) - 1;
}

std::shared_ptr<std::byte> blockMemory() {
    constexpr std::align_val_t hugePage{std::size_t{2} << 20};
    constexpr std::size_t size = std::size_t{4} << 20;
    std::shared_ptr<std::byte> memory(static_cast<std::byte*>(::operator new(size, hugePage)),
                                      [](std::byte* bytes) { ::operator delete(bytes, hugePage); });
    platform::preferHugePages(memory.get(), size);
    return memory;
}

void blockRows::load(std::int64_t offset) {
    if (fCurrent.holds(offset)) return;
    std::swap(fCurrent, fBefore);
    if (fCurrent.holds(offset)) return;
    if (!fCurrent.rows) fCurrent.rows = blockMemory();
    fCurrent.held = {};
    const orva::Range block = fFile.info.blocks[blockAt(fFile.info.blocks, offset)].rows;
    fFile.reader.read_at(block.offset, {fCurrent.rows.get(), static_cast<std::size_t>(block.length)});
    ++fInflated;
    fCurrent.held = block;
}

std::string_view blockRows::from(std::int64_t offset) {
    load(offset);
    const auto* rows = reinterpret_cast<const char*>(fCurrent.rows.get());
    const std::int64_t into = offset - fCurrent.held.offset;
    return {rows + into, static_cast<std::size_t>(fCurrent.held.length - into)};
}
