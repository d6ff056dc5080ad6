#include "api/rowsRead.h"

#include "api/callThreads.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace orva {

namespace {

using pieceSpan = std::span<const rowPiece>;

void inflate(const shownPart& part, blockShelf& shelf, std::uint32_t block, void* to) {
    blockBuffer scratch = shelf.takeScratch(part);
    part.read(block, scratch.get(), static_cast<unsigned char*>(to));
    shelf.putBack(std::move(scratch));
}

void copy(pieceSpan pieces, const blockBuffer& rows) {
    for (const rowPiece& piece : pieces) {
        std::memcpy(piece.to, rows.get() + piece.from, static_cast<std::size_t>(piece.size));
    }
}

// Reads the pieces of one block.
void readBlock(const shownPart& part, blockShelf& shelf, pieceSpan pieces) {
    const rowPiece& first = pieces.front();
    if (blockShelf::rows kept = shelf.find(part.id(), first.block)) {
        copy(pieces, *kept);
        return shelf.putBack(std::move(kept));
    }
    const bool isWhole = first.from == 0 && first.size == part.begin(first.block + 1) - part.begin(first.block);
    if (pieces.size() == 1 && isWhole) return inflate(part, shelf, first.block, first.to);
    blockShelf::rows rows = shelf.memory(part);
    inflate(part, shelf, first.block, rows->get());
    copy(pieces, *rows);
    shelf.keep(part.id(), first.block, std::move(rows));
}

std::vector<pieceSpan> byBlock(pieceSpan pieces) {
    std::vector<pieceSpan> blocks;
    for (auto at = pieces.begin(); at != pieces.end();) {
        const auto next = std::find_if(at, pieces.end(), [&](const rowPiece& p) { return p.block != at->block; });
        blocks.emplace_back(at, next);
        at = next;
    }
    return blocks;
}

}  // namespace

void readPieces(const shownPart& part, blockShelf& shelf, pieceSpan pieces, std::uint32_t threads) {
    if (pieces.empty()) return;
    if (pieces.front().block == pieces.back().block) return readBlock(part, shelf, pieces);
    const std::vector<pieceSpan> blocks = byBlock(pieces);
    shareOut(threads, blocks.size(), [&](bool) { return [&](std::size_t i) { readBlock(part, shelf, blocks[i]); }; });
}

}  // namespace orva
