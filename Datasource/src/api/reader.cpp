#include "api/blockCache.h"
#include "api/partSnapshot.h"
#include "api/rowsRead.h"
#include "api/translated.h"
#include "file/namedFile.h"

#include <orva/platform.h>
#include <orva/reader.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>

namespace orva {

ByteSource::~ByteSource() = default;

// The state that copies share. A read uses the part shown at its beginning until its end, whatever refresh does.
struct Reader::State {
    using partPtr = std::shared_ptr<const partSnapshot>;

    State(Path path, std::shared_ptr<const ByteSource> source, const ReaderOptions& given)
        : fPath(std::move(path)),
          fPlace(fullName(fPath.string())),
          fSource(std::move(source)),
          fOptions(given),
          fThreads(threadsAtWork(given.threads, fPath)) {
        require(given.cached_blocks >= 0, fPath, "the number of cached blocks must be 0 or more");
        auto shown = std::make_unique<partPtr>(opened());
        fOwn = new own(fOptions.cached_blocks);
        fShown = shown.release();
    }
    ~State() {
        delete fShown.load();
        if (fOwn.load()->forks == platform::forkCount()) delete fOwn.load();
    }

    partPtr opened() const {
        return translated(
            fPath,
            [this] {
                return fSource != nullptr ? std::make_shared<const partSnapshot>(fSource, fOptions.name, fOptions.row0)
                                          : std::make_shared<const partSnapshot>(fPath, fPlace, fOptions.row0, false,
                                                                                 fOptions.progress);
            },
            fPlace.string());
    }

    partPtr shown() {
        const std::lock_guard guard(ofProcess().lock);
        return *fShown.load();
    }
    void refresh() {
        std::unique_ptr<partPtr> next = std::make_unique<partPtr>(opened());
        own& mine = ofProcess();
        mine.cache.moveTo((*next)->id());
        const auto whole = platform::noFork();               // else a child could have the part without its descriptor
        const std::lock_guard guard(mine.lock);              // last, so that no read waits for a fork
        if ((*fShown.load())->id() > (*next)->id()) return;  // the shown part comes from a refresh that began later
        next.reset(fShown.exchange(next.release()));
    }
    // Reads few rows of a cached block without the part, over whose count of holders threads would fight.
    bool readFew(i64 offset, Bytes to) {
        return to.size() <= blockCache::kFew && ofProcess().cache.copyFew(offset, to);
    }
    void read(const partSnapshot& part, std::span<const rowPiece> pieces) {
        readPieces(part, ofProcess().cache, pieces, fThreads);
    }

    const Path fPath;   // as the caller wrote it; empty for a source
    const Path fPlace;  // the full name
    const std::shared_ptr<const ByteSource> fSource;
    const ReaderOptions fOptions;
    const std::uint32_t fThreads;

private:
    // Everything with a lock. A forked child may find the locks held by threads that it does not have, so it makes its
    // own and leaks the inherited ones.
    struct own {
        explicit own(int cachedBlocks) : cache(cachedBlocks) {}
        const std::uint32_t forks = platform::forkCount();
        std::mutex lock;  // held while the pointer that fShown leads to is copied or exchanged
        blockCache cache;
    };
    own& ofProcess() {
        own* found = fOwn.load(std::memory_order_acquire);
        if (found->forks == platform::forkCount()) return *found;
        auto made = std::make_unique<own>(fOptions.cached_blocks);
        return fOwn.compare_exchange_strong(found, made.get()) ? *made.release() : *found;
    }

    std::atomic<partPtr*> fShown{nullptr};  // always leads to a valid pointer, and does not change during a fork
    std::atomic<own*> fOwn{nullptr};
};

Reader::Reader(const Path& path, const ReaderOptions& options)
    : fState(std::make_shared<State>(path, nullptr, options)) {}
Reader::Reader(std::shared_ptr<const ByteSource> source, const ReaderOptions& options)
    : fState((require(source != nullptr, {}, "the source must not be null"),
              std::make_shared<State>(Path(), std::move(source), options))) {}
Reader::Reader(const Reader&) noexcept = default;
Reader& Reader::operator=(const Reader&) noexcept = default;
Reader::~Reader() = default;

const Path& Reader::path() const noexcept {
    return fState->fPath;
}
i64 Reader::size() const {
    return fState->shown()->size();
}
i64 Reader::row0() const {
    return fState->shown()->row0();
}
bool Reader::swapped() const {
    return fState->shown()->swapped();
}

std::vector<std::byte> Reader::dictionary() const {
    return fState->shown()->dictionary();
}

std::vector<Block> Reader::blocks() const {
    return fState->shown()->blocks();
}

std::vector<Range> Reader::splits(int count, i64 record_size) const {
    const State::partPtr part = fState->shown();
    require(count >= 1, path(), "the number of ranges must be 1 or more");
    require(record_size >= 1, path(), "the record size must be 1 byte or more");
    require(part->size() % record_size == 0, path(), "the size of its rows is not a multiple of the record size");
    std::vector<Range> ranges;
    const i64 blocks = part->blockCount();
    const i64 wanted = std::min<i64>(count, blocks);
    for (i64 i = 1, begin = 0; i <= wanted; ++i) {
        const i64 border = part->begin(static_cast<std::uint32_t>(blocks * i / wanted));
        const i64 into = border % record_size;
        const i64 end = into == 0 ? border : border + (record_size - into);
        if (end <= begin) continue;  // no record begins there
        ranges.push_back({begin, end - begin});
        begin = end;
    }
    return ranges;
}

namespace {

// Cuts a request at the borders of blocks and returns the number of bytes that there are for it.
std::size_t cut(const partSnapshot& part, i64 offset, Bytes to, std::vector<rowPiece>& pieces) {
    const auto got = static_cast<std::size_t>(std::clamp<i64>(part.size() - offset, 0, std::ssize(to)));
    std::uint32_t block = got == 0 ? 0 : part.blockAt(offset);
    for (std::size_t done = 0; done < got; ++block) {
        const i64 from = offset + static_cast<i64>(done) - part.begin(block);
        const i64 size = std::min(part.begin(block + 1) - part.begin(block) - from, static_cast<i64>(got - done));
        pieces.push_back({block, from, size, to.data() + done});
        done += static_cast<std::size_t>(size);
    }
    return got;
}

}  // namespace

std::size_t Reader::read_at(i64 offset, Bytes to) const {
    if (fState->readFew(offset, to)) return to.size();
    ReadRequest request{offset, to};
    read_ranges({&request, 1});
    return request.got;
}

void Reader::read_ranges(std::span<ReadRequest> requests) const {
    const State::partPtr part = fState->shown();
    std::vector<rowPiece> pieces;
    for (ReadRequest& request : requests) {
        require(request.offset >= 0, path(), "the offset must be 0 or more");
        request.got = cut(*part, request.offset, request.to, pieces);
    }
    std::ranges::sort(pieces, {}, &rowPiece::block);
    fState->read(*part, pieces);
}

void Reader::refresh() {
    fState->refresh();
}

std::shared_ptr<const partSnapshot> partOf(const Reader& reader) {
    return reader.fState->shown();
}

i64 Reader::end_of_block(i64 offset) const {
    require(offset >= 0, path(), "the offset must be 0 or more");
    const State::partPtr part = fState->shown();
    return offset >= part->size() ? offset : part->begin(part->blockAt(offset) + 1);
}

}  // namespace orva
