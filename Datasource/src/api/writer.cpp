#include "api/openedFile.h"
#include "api/partSnapshot.h"
#include "api/translated.h"
#include "base/fileError.h"
#include "file/namedFile.h"
#include "format/blockTransfer.h"
#include "part/heldSideFile.h"
#include "part/partWriter.h"

#include <orva/dictionaryText.h>
#include <orva/inspect.h>
#include <orva/pendingFile.h>
#include <orva/platform.h>
#include <orva/writer.h>

#include <cerrno>
#include <utility>

namespace orva {

namespace {

constexpr std::size_t kSmallWrite = 65'536;  // writes after a smaller one are usually small too

choices chosen(i64 block, int level, const Path& path) {
    require(block == 0 || (block >= kShortestBlockLength && block <= kBlockSize), path,
            ("the block length must be 65,536 to 4,190,208 bytes, got " + std::to_string(block)).c_str());
    require(level >= zlibCompressBlock::kFastestLevel && level <= zlibCompressBlock::bestLevel(), path,
            ("the compression level must be 1 to " + std::to_string(zlibCompressBlock::bestLevel()) + ", got " +
             std::to_string(level))
                .c_str());
    return {static_cast<std::uint32_t>(block == 0 ? kBlockSize : block), level};
}

}  // namespace

struct Writer::State {
    enum class life : std::uint8_t { writing, finished, failed };

    template <class Options>
    State(const Path& path, const Options& options)
        : fPath(path),
          fThreadSettings{0, threadsAtWork(options.threads, path) - 1, options.threads != 0},
          fChoices(chosen(options.block, options.level, path)),
          bDurable(options.durable) {}

    // Runs one step of the work. If it fails, everything unfinished is removed.
    template <class Step>
    auto step(Step work) {
        try {
            return work();
        } catch (...) {
            fLife = life::failed;
            fPart.reset();
            fNamed.reset();
            fOpened.reset();
            const std::unique_ptr<pendingFile> pending = std::move(fPending);
            rethrowTranslated(fPath, pending != nullptr ? pending->temporaryName() : fPlace);
        }
    }

    void beginNew(const WriterOptions& options) {
        fPending = std::make_unique<pendingFile>(fPath, options.replace, options.permissions);
        openOrThrow(*fOpened, fPending->temporaryName(), "r+b", kWriteFailed);
        const std::string text = options.dictionary.empty() ? makeDictionaryText() : "";
        const void* bytes = text.empty() ? static_cast<const void*>(options.dictionary.data()) : text.data();
        fRow0 = static_cast<i64>(text.size() + options.dictionary.size());
        writeAll(*fOpened, bytes, static_cast<std::uint64_t>(fRow0), 0);
        fPart = std::make_unique<partWriter>(*fOpened, fRow0, fThreadSettings, fChoices);
    }

    void beginAppend(const AppendOptions& options) {
        fPlace = fullName(fPath.string());
        refusePipe(fPath.string(), fPlace);
        if (options.roll_back) rollBack(fPlace);
        do {
            openOrThrow(*fOpened, fPlace, "r+b", kWriteFailed);
            fNamed = std::make_unique<openedFile>(fPath.string(), fPlace);
        } while (!fOpened->isNamed(fPlace) || !fNamed->isNamed(fPlace));
        if (hasSideFile(fPlace)) throw unfinished(fPath, false);
        const partSnapshot found(fPath, fPlace, options.row0, true, options.progress);
        bOtherOrder = found.swapped();
        require(!bOtherOrder || options.any_order, fPath,
                "its rows have the other byte order: use 'orva append', or any_order in C++, to add bytes as they are");
        if (options.block == 0) fChoices.blockLength = static_cast<std::uint32_t>(chosenLength(found.records()));
        fRow0 = found.row0();
        fSize = found.size();
        resume(bOtherOrder);
    }

    // `swap`: heading and index have the other byte order, until a part has finished in this machine's.
    void resume(bool swap) {
        const i64 end = fRow0 + fSize;
        const resumePoint from{swap, end, end, end, bDurable};
        fPart = std::make_unique<partWriter>(*fOpened, fRow0, fThreadSettings, fChoices, from);
    }

    i64 size() const { return fPart != nullptr ? fPart->end() - fRow0 : fSize; }

    // The part that takes rows. After flush_rows() the next part starts with the first rows that come.
    partWriter& part() {
        if (fPart == nullptr) resume(false);
        return *fPart;
    }

    void complete(bool staysOpen) {
        const bool adds = fPending == nullptr && fPart != nullptr;
        if (fPart != nullptr) {
            fSize = size();
            fPart->finish(bDurable, staysOpen);
            fPart.reset();
        }
        if (fPending != nullptr) {
            if (staysOpen) fNamed = std::make_unique<openedFile>(fPath.string(), fPending->temporaryName());
            fPending->commit(bDurable);
            fPlace = fPending->target();
            ExtNameStr name;
            name.SetGeneric(fPlace);
            fOpened->Renamed(name);
            fPending.reset();
        }
        if (!staysOpen) fOpened->Close();
        if (!adds || fNamed->isNamed(fPlace)) return;
        throw SystemError(
            std::error_code(ESTALE, std::generic_category()),
            "another file took its name during the append: the new rows are in the old file, which no longer has it",
            fPath, true);
    }

    const Path fPath;  // as the caller wrote it
    const threadSettings fThreadSettings;
    choices fChoices;
    const bool bDurable;
    const platform::makerProcess fMaker;
    life fLife = life::writing;
    i64 fRow0 = 0;
    i64 fSize = 0;                          // of the rows, while fPart is null
    std::string fPlace;                     // the full name, once the file has it
    std::unique_ptr<pendingFile> fPending;  // until the file is under its name
    std::unique_ptr<ORVA_File> fOpened = std::make_unique<ORVA_File>();
    std::unique_ptr<const openedFile> fNamed;  // the same file, to compare with its name after fOpened is closed
    bool bOtherOrder = false;                  // the rows have the other byte order
    std::unique_ptr<partWriter> fPart;
    Bytes fRoom;             // memory that write() fills inline
    std::size_t fGiven = 0;  // bytes given by room()
};

Writer::Writer(const Path& path, const WriterOptions& options) : fState(std::make_unique<State>(path, options)) {
    fState->step([&] { fState->beginNew(options); });
}

Writer Writer::append(const Path& path, const AppendOptions& options) {
    auto state = std::make_unique<State>(path, options);
    state->step([&] { state->beginAppend(options); });
    return Writer(std::move(state));
}

Writer::Writer(std::unique_ptr<State> state) noexcept : fState(std::move(state)) {}
Writer::Writer(Writer&& from) noexcept
    : fState(std::move(from.fState)), fNext(std::exchange(from.fNext, nullptr)), fLeft(std::exchange(from.fLeft, 0)) {}
Writer::~Writer() = default;

// The state of a Writer that can take rows. Hands the rows that write() has copied inline to the part.
Writer::State& Writer::settled() {
    require(fState != nullptr, {}, "this Writer was moved from");
    State& s = *fState;
    require(s.fMaker.isHere(), s.fPath, "another process writes it: a forked child cannot");
    require(s.fLife != State::life::failed, s.fPath, "writing it has failed: nothing more can be written");
    require(s.fLife != State::life::finished, s.fPath, "it is finished: use Writer::append to add rows");
    s.fGiven = 0;
    if (fNext != nullptr) {
        const auto used = static_cast<std::uint32_t>(fNext - s.fRoom.data());
        fNext = nullptr;
        fLeft = 0;
        s.step([&] { s.fPart->wrote(used); });
    }
    return s;
}

void Writer::write_on(std::span<const std::byte> rows, bool values) {
    State& s = settled();
    require(!values || !s.bOtherOrder, s.fPath, "its rows have the other byte order: write bytes, not values");
    if (rows.empty()) return;
    const bool staysSmall = rows.size() < kSmallWrite && !s.bOtherOrder;
    s.step([&] {
        s.part().write(reinterpret_cast<const unsigned char*>(rows.data()), rows.size());
        if (staysSmall) s.fRoom = std::as_writable_bytes(s.part().room());
    });
    if (!staysSmall) return;
    fNext = s.fRoom.data();
    fLeft = s.fRoom.size();
}

Bytes Writer::room() {
    State& s = settled();
    const Bytes room = s.step([&] { return std::as_writable_bytes(s.part().room()); });
    s.fGiven = room.size();
    return room;
}

void Writer::wrote(std::size_t count) {
    const std::size_t given = fState != nullptr ? fState->fGiven : 0;
    State& s = settled();
    require(count <= given, s.fPath, "wrote() counts more bytes than room() returned");
    if (count != 0) s.step([&] { s.part().wrote(static_cast<std::uint32_t>(count)); });
}

void Writer::write_from(const ByteSource& source) {
    State& s = settled();
    s.step([&] {
        const i64 size = sizeOf(source);
        const rowSource read = [&](std::int64_t offset, std::span<unsigned char> to) {
            if (callBack([&] { return source.read_at(offset, std::as_writable_bytes(to)); }) == to.size()) return;
            throw FileChangedError("the source of the rows became shorter while it was being read", s.fPath);
        };
        s.part().writeFrom(read, size);
    });
}

i64 Writer::size() const {
    require(fState != nullptr, {}, "this Writer was moved from");
    return fState->size() + (fNext != nullptr ? fNext - fState->fRoom.data() : 0);
}

void Writer::flush_rows() {
    State& s = settled();
    s.step([&] { s.complete(true); });
}

void Writer::finish() {
    if (fState != nullptr && fState->fLife == State::life::finished) return;
    State& s = settled();
    s.step([&] { s.complete(false); });
    s.fNamed.reset();
    s.fLife = State::life::finished;
}

}  // namespace orva
