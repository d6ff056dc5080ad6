#include "api/callThreads.h"
#include "api/partSnapshot.h"
#include "api/translated.h"
#include "base/blockBuffer.h"
#include "base/fileError.h"
#include "file/namedFile.h"
#include "format/blockTransfer.h"
#include "format/indexTransfer.h"

#include <orva/errors.h>
#include <orva/errtext.h>
#include <orva/files.h>
#include <orva/inspect.h>
#include <orva/join.h>
#include <orva/pendingFile.h>
#include <orva/platform.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

namespace orva {

namespace {

partSnapshot opened(const Path& path, std::optional<i64> row0, const Progress& progress = {}) {
    const std::string place = fullName(path.string());
    return translated(
        path, [&] { return partSnapshot(path, place, row0, false, progress); }, place);
}

// Runs work in lower rooms, which know the inputs by full names; a failure of one is reported under the caller's name
// for it.
template <class Work>
auto namingInput(std::span<const Path> inputs, Work work) {
    const auto blame = [&](const std::string& name) {
        for (const Path& input : inputs) {
            if (fullName(input.string()) == name) rethrowTranslated(input, name);
        }
    };
    try {
        return work();
    } catch (const FileError& failure) {
        blame(failure.fileName());
        throw;
    } catch (const ::DamagedFileError& damage) {
        blame(damage.fileName());
        throw;
    }
}

// Calls `make` with the temporary name of a new file, and then gives that file its own name.
template <class Make>
auto made(const Path& to, std::filesystem::perms permissions, bool replace, bool durable, Make make) {
    pendingFile pending(to, replace, permissions);
    return translated(
        to,
        [&] {
            auto report = make(pending.temporaryName());
            if (durable) pending.sync();
            pending.commit(durable);
            return report;
        },
        pending.temporaryName());
}

}  // namespace

FileInfo info(const Reader& reader) {
    const std::shared_ptr<const partSnapshot> part = partOf(reader);
    FileInfo found;
    found.found_by = part->found().by;
    found.swapped = part->swapped();
    found.row0 = part->row0();
    found.text = part->found().text;
    found.size = part->size();
    found.file_size = part->fileSize();
    found.block_size = part->indexBlockSize();
    found.index = {part->found().heading._indexPos, part->found().heading._size};
    found.blocks = part->blocks();
    for (const Block& block : found.blocks) found.stored += block.stored;
    return found;
}

FileInfo info(const Path& path, std::optional<i64> row0) {
    return info(Reader(path, {.row0 = row0}));
}

namespace {

// Inflates the blocks of a part on several threads.
class verifier {
public:
    verifier(const partSnapshot& part, const VerifyOptions& options)
        : fPart(part),
          fProgress(options.progress),
          fFirst(static_cast<std::uint32_t>(std::clamp<i64>(options.first_block, 0, part.blockCount()))),
          fDone(part.begin(fFirst)) {}

    VerifyReport run(std::uint32_t threads) {
        fReport.blocks = fPart.blockCount();
        checkIndex();
        shareOut(threads, fPart.blockCount() - fFirst, [this](bool caller) { return worker(caller); });
        std::ranges::sort(fReport.bad, {}, &BadBlock::block);
        reportProgress(fProgress, fPart.size(), fPart.size());
        return std::move(fReport);
    }

private:
    void checkIndex() {
        try {
            checkContiguous(fPart.bytes(), fPart.found().heading, fPart.records());
        } catch (const ::DamagedFileError& damage) {
            fReport.index = reasonOf(damage);
        }
    }

    sharedWorker worker(bool caller) {
        struct memory {
            blockBuffer compressed;
            blockBuffer rows;
        };
        const auto own = std::make_shared<memory>(memory{fPart.compressedRoom(), fPart.rowRoom()});
        return [this, caller, own](std::size_t number) {
            const std::uint32_t block = fFirst + static_cast<std::uint32_t>(number);
            verify(block, own->compressed.get(), own->rows.get());
            fDone += fPart.block(block).rows.length;
            if (caller) reportProgress(fProgress, fDone, fPart.size());
        };
    }

    void verify(std::uint32_t number, unsigned char* compressed, unsigned char* rows) {
        try {
            fPart.read(number, compressed, rows);
        } catch (const DamagedFileError& damage) {
            add(number, damage.reason());
        } catch (const SystemError& failure) {  // these rows are lost as well, and those of other blocks are not
            add(number, failure.reason());
        }
    }

    void add(std::uint32_t number, const std::string& text) {
        const std::lock_guard guard(fLock);
        fReport.bad.push_back({number, fPart.block(number).rows, text});
    }

    const partSnapshot& fPart;
    const Progress& fProgress;
    const std::uint32_t fFirst;
    std::atomic<i64> fDone;
    std::mutex fLock;  // guards the report's bad blocks
    VerifyReport fReport;
};

}  // namespace

VerifyReport verify(const Reader& reader, const VerifyOptions& options) {
    const std::shared_ptr<const partSnapshot> part = partOf(reader);
    const std::uint32_t threads = threadsAtWork(options.threads, part->path());
    return translated(part->path(), [&] { return verifier(*part, options).run(threads); });
}

VerifyReport verify(const Path& path, const VerifyOptions& options) {
    return verify(Reader(path, {.row0 = options.row0, .threads = options.threads, .progress = options.progress}),
                  options);
}

namespace {

// Where the caller, or else the file, says that the part is, in the byte order of a heading there, if there is one.
std::optional<foundPart> statedPart(const Path& path, const std::string& place, std::optional<i64> row0,
                                    const Progress& progress) {
    const openedFile file(path.string(), place);
    try {
        const foundHeading found = findHeading(file, row0, path, place, progress);
        return foundPart{found.heading._caseStartPos, found.swapped};
    } catch (const UsageError&) {
        throw;
    } catch (const Error&) {  // NOLINT(bugprone-empty-catch): it is to be recovered
    }
    if (!row0) {
        std::string first(static_cast<std::size_t>(std::min<i64>(file.length(), kDictionaryTextSize)), '\0');
        file.read(first.data(), first.size(), 0);
        if (const auto text = parseDictionaryText(first)) row0 = text->row0Pos;
        // If no block begins there, the first line is wrong, provided that there is a part elsewhere.
        constexpr char streamBegin = 0x78;
        char begin = 0;
        if (row0 && !(file.read(&begin, 1, *row0 + kHeadingSize) && begin == streamBegin)) {
            const auto moved = [&](i64 at) { reportProgress(progress, at, file.length()); };
            if (const auto part = findPart(place, 1, moved); part && isSound(place, *part)) return part;
        }
    }
    if (!row0) return {};
    return foundPart{*row0, false};
}

}  // namespace

RecoverReport recover(const Path& from, const Path& to, const RecoverOptions& options) {
    const std::string place = fullName(from.string());
    require(!platform::sameFile(place.c_str(), fullName(to.string()).c_str()), to,
            "it is the file to recover: choose another name");
    recoverOptions how{translated(
                           from, [&] { return statedPart(from, place, options.row0, options.progress); }, place),
                       options.committed, options.drop_lost};
    if (options.progress) how.tell = [&](i64 done, i64 total) { reportProgress(options.progress, done, total); };
    const auto write = [&](const std::string& output) {
        try {
            return namingInput({&from, 1}, [&] { return recover(place, output, how); });
        } catch (const DamagedFileError& damage) {
            throw DamagedFileError(damage.reason(), from);
        }
    };
    const recoverReport found = made(to, commonPermissions({&from, 1}), options.replace, options.durable, write);
    RecoverReport report{found.part.row0Pos,  found.part.swapped,  found.hadHeading,
                         found.hadIndex,      found.blocks,        found.rows,
                         found.committedRows, found.lastRewritten, {}};
    for (const lostRange& lost : found.lost) {
        const i64 begin = lost.begin - report.row0;
        report.lost.push_back({{begin, lost.end - lost.begin}, lost.place, lost.estimated, lost.why});
    }
    return report;
}

RollBack roll_back(const Path& path) {
    const std::string place = fullName(path.string());
    const auto work = [&] {
        refusePipe(path.string(), place);
        return rollBack(place);
    };
    switch (translated(path, work, place)) {
        case rollBackResult::rolledBack:
            return RollBack::undone;
        case rollBackResult::sideFileStale:
            return RollBack::whole;
        case rollBackResult::completed:
            return RollBack::completed;
        default:
            return RollBack::nothing;
    }
}

namespace {

// The dictionary text of the first of several files, in the same length, without the lines about the origin of its
// rows.
std::string textWithoutSource(const partSnapshot& first) {
    const std::vector<std::byte> bytes = first.dictionary();
    std::string text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    for (const std::string key : {"\nsource=", "\nsize="}) {
        const auto from = text.find(key);
        if (from == std::string::npos) continue;
        text.erase(from, std::min(text.find('\n', from + 1), text.size() - 1) - from);
    }
    text.resize(bytes.size() - 1, ' ');
    return text + '\n';
}

class joining {
public:
    joining(std::span<const Path> from, const Path& to, const JoinOptions& options)
        : fFrom(from),
          fOptions(options),
          fDictionary(reinterpret_cast<const char*>(options.dictionary.data()), options.dictionary.size()) {
        require(!from.empty(), to, "no files to join");
        for (const Path& path : from) add(path, to);
    }

    JoinReport write(const std::string& output) {
        joinOptions how;
        how.row0Pos = std::ssize(fDictionary);
        i64 done = how.row0Pos;
        how.copied = [&](i64 count) { reportProgress(fOptions.progress, done += count, fTotal); };
        if (how.row0Pos != 0) {
            ORVA_File file;
            openOrThrow(file, output, "r+b", kWriteFailed);
            writeAll(file, fDictionary.data(), fDictionary.size(), 0);
            file.Close();
        }
        joinReport report;
        try {
            report = namingInput(fFrom, [&] { return join(fInputs, output, how); });
        } catch (const DamagedFileError& damage) {
            refuseDamaged(damage.path());
        }
        checkLastBlocks(output, report);
        return {report.part.row0Pos, report.blocks, report.rows, report.stored};
    }

private:
    void add(const Path& path, const Path& to) {
        const std::string place = fullName(path.string());
        const partSnapshot part = opened(path, fOptions.row0, fOptions.progress);
        require(!platform::sameFile(place.c_str(), fullName(to.string()).c_str()), to,
                "it is one of the files to join: choose another name");
        if (fInputs.empty()) {
            const bool text = part.found().text && part.row0() <= kLongestText;
            if (fDictionary.empty() && text && fFrom.size() > 1) fDictionary = textWithoutSource(part);
            fTotal = fDictionary.empty() ? part.row0() : std::ssize(fDictionary);
        } else if (part.swapped() != fInputs.front().part.swapped) {
            throw UsageError("has a different byte order from \"" + fFrom.front().string() +
                                 "\": join them separately, or pack the rows of one again",
                             path);
        }
        fInputs.push_back({place, {part.row0(), part.swapped()}});
        for (std::uint32_t i = 0; i < part.blockCount(); ++i) fTotal += part.block(i).stored;
    }

    // Throws what is wrong with the input, unless an append explains it.
    [[noreturn]] void refuseDamaged(const Path& path) const {
        const partSnapshot input = opened(path, fOptions.row0, fOptions.progress);
        translated(path, [&] { checkContiguous(input.bytes(), input.found().heading, input.records()); });
        if (const std::uint32_t blocks = input.blockCount()) {
            input.read(blocks - 1, input.compressedRoom().get(), input.rowRoom().get());
        }
        throw FileChangedError("was written to while it was being joined: try again", path);
    }

    // If an append without a side file has begun to rewrite a last block, only that block shows it, since heading and
    // index are still the old ones.
    void checkLastBlocks(const std::string& output, const joinReport& report) const {
        const partSnapshot joined(output, output, report.part.row0Pos);
        const blockBuffer compressed = joined.compressedRoom();
        const blockBuffer rows = joined.rowRoom();
        std::uint32_t end = 0;
        for (std::size_t i = 0; i < fFrom.size(); ++i) {
            if (std::exchange(end, report.ends[i]) == report.ends[i]) continue;
            try {
                joined.read(end - 1, compressed.get(), rows.get());
            } catch (const DamagedFileError&) {
                refuseDamaged(fFrom[i]);
            }
        }
    }

    static constexpr i64 kLongestText = 1 << 20;

    const std::span<const Path> fFrom;
    const JoinOptions& fOptions;
    std::string fDictionary;  // empty: that of the first file
    std::vector<joinInput> fInputs;
    i64 fTotal = 0;  // bytes of the output except heading and index
};

}  // namespace

JoinReport join(std::span<const Path> from, const Path& to, const JoinOptions& options) {
    joining work(from, to, options);
    return made(to, commonPermissions(from) & options.permissions, options.replace, options.durable,
                [&](const std::string& output) { return work.write(output); });
}

}  // namespace orva
