#include "api/rowsRead.h"

#include "api/callThreads.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace orva {

namespace {

using pieceSpan = std::span<const rowPiece>;

void inflate(const partSnapshot& part, blockCache& cache, std::uint32_t block, void* to) {
    blockBuffer scratch = cache.takeScratch(part);
    part.read(block, scratch.get(), static_cast<unsigned char*>(to));
    cache.putBack(std::move(scratch));
}

void copy(pieceSpan pieces, const blockBuffer& rows) {
    for (const rowPiece& piece : pieces) {
        std::memcpy(piece.to, rows.get() + piece.from, static_cast<std::size_t>(piece.size));
    }
}

// Reads the pieces of one block.
void readBlock(const partSnapshot& part, blockCache& cache, pieceSpan pieces) {
    const rowPiece& first = pieces.front();
    const std::int64_t begin = part.begin(first.block);
    if (blockCache::blockPtr kept = cache.find(part.id(), begin)) {
        copy(pieces, kept->bytes);
        return cache.putBack(std::move(kept));
    }
    const bool isWhole = first.from == 0 && first.size == part.begin(first.block + 1) - begin;
    if (pieces.size() == 1 && isWhole) return inflate(part, cache, first.block, first.to);
    blockCache::blockPtr inflated = cache.memory(part);
    inflate(part, cache, first.block, inflated->bytes.get());
    copy(pieces, inflated->bytes);
    cache.keep(part.id(), part.block(first.block).rows, std::move(inflated));
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

void readPieces(const partSnapshot& part, blockCache& cache, pieceSpan pieces, std::uint32_t threads) {
    if (pieces.empty()) return;
    if (pieces.front().block == pieces.back().block) return readBlock(part, cache, pieces);
    const std::vector<pieceSpan> blocks = byBlock(pieces);
    shareOut(threads, blocks.size(), [&](bool) { return [&](std::size_t i) { readBlock(part, cache, blocks[i]); }; });
}

}  // namespace orva
