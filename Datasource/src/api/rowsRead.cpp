#include "api/rowsRead.h"

#include "api/callThreads.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace orva {

namespace {

using pieceSpan = std::span<const rowPiece>;

class rowsRead {
public:
    rowsRead(const shownPart& part, blockShelf& shelf) : fPart(part), fShelf(shelf) {}

    // The pieces of one block.
    void readBlock(pieceSpan pieces) {
        const std::uint32_t block = pieces.front().block;
        if (blockShelf::rows kept = fShelf.find(fPart.id(), block)) {
            copy(pieces, *kept);
            return fShelf.putBack(std::move(kept));
        }
        if (pieces.size() == 1 && isWhole(pieces.front())) return inflate(block, pieces.front().to);
        blockShelf::rows rows = fShelf.memory(fPart);
        inflate(block, rows->get());
        copy(pieces, *rows);
        fShelf.keep(fPart.id(), block, std::move(rows));
    }

private:
    bool isWhole(const rowPiece& piece) const {
        return piece.from == 0 && piece.size == fPart.begin(piece.block + 1) - fPart.begin(piece.block);
    }

    void inflate(std::uint32_t block, void* to) {
        blockBuffer scratch = fShelf.takeScratch(fPart);
        fPart.read(block, scratch.get(), static_cast<unsigned char*>(to));
        fShelf.putBack(std::move(scratch));
    }

    static void copy(pieceSpan pieces, const blockBuffer& rows) {
        for (const rowPiece& piece : pieces) {
            std::memcpy(piece.to, rows.get() + piece.from, static_cast<std::size_t>(piece.size));
        }
    }

    const shownPart& fPart;
    blockShelf& fShelf;
};

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
    rowsRead read(part, shelf);
    if (pieces.front().block == pieces.back().block) return read.readBlock(pieces);
    const std::vector<pieceSpan> blocks = byBlock(pieces);
    shareOut(threads, blocks.size(), [&](bool) { return [&](std::size_t i) { read.readBlock(blocks[i]); }; });
}

}  // namespace orva
