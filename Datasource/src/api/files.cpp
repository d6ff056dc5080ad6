#include "api/callThreads.h"
#include "api/pendingFile.h"
#include "api/shownPart.h"
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
#include <orva/platform.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

namespace orva {

namespace {

std::string fullName(const Path& path) {
    return std::filesystem::absolute(path).string();
}

shownPart opened(const Path& path, std::optional<i64> row0) {
    const std::string place = fullName(path);
    return translated(
        path, [&] { return shownPart(path, place, row0); }, place);
}

void told(const Progress& progress, i64 done, i64 total) {
    if (progress) callersOwn([&] { progress(done, total); });
}

// Runs work on files that have full names for the rooms below: what fails with one of them is told of that one.
template <class Work>
auto blaming(std::span<const Path> inputs, Work work) {
    const auto blame = [&](const std::string& name) {
        for (const Path& input : inputs) {
            if (fullName(input) == name) rethrowTranslated(input, name);
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

// A new file that `make` writes under the name that it is given.
template <class Make>
auto made(const Path& to, bool replace, bool durable, Make make) {
    std::string workName;
    return translated(
        to,
        [&] {
            pendingFile pending(to, replace);
            workName = pending.temporaryName();
            auto report = make(pending.temporaryName());
            if (durable) {
                ORVA_File file;
                openOrThrow(file, pending.temporaryName(), "r+b", kWriteFailed);
                file.Sync();
            }
            pending.commit(durable);
            return report;
        },
        workName);
}

}  // namespace

FileInfo info(const Path& path, std::optional<i64> row0) {
    const shownPart part = opened(path, row0);
    const compressionHeading& heading = part.found().heading;
    FileInfo found;
    found.found_by = part.found().by;
    found.swapped = part.swapped();
    found.row0 = part.row0();
    found.size = part.size();
    found.file_size = part.fileSize();
    found.block_size = part.indexBlockSize();
    found.index = {heading._indexPos, heading._size};
    found.blocks.reserve(part.blockCount());
    for (std::uint32_t i = 0; i < part.blockCount(); ++i) {
        found.blocks.push_back(part.block(i));
        found.stored += found.blocks.back().stored;
    }
    return found;
}

namespace {

// Inflates the blocks of a part one after the other, shared out among threads.
class verifier {
public:
    verifier(const shownPart& part, const Progress& progress) : fPart(part), fProgress(progress) {}

    VerifyReport run(std::uint32_t threads) {
        fReport.blocks = fPart.blockCount();
        checkIndex();
        shareOut(threads, fPart.blockCount(), [this](bool caller) { return worker(caller); });
        std::ranges::sort(fReport.bad, {}, &BadBlock::block);
        told(fProgress, fPart.size(), fPart.size());
        return std::move(fReport);
    }

private:
    void checkIndex() {
        try {
            checkContiguous(fPart.bytes(), fPart.found().heading, fPart.records());
        } catch (const ::DamagedFileError& damage) {
            fReport.index = damage.what();
        }
    }

    sharedWorker worker(bool caller) {
        struct memory {
            blockBuffer compressed{kBlockSize};
            blockBuffer rows{kBlockSize};
        };
        return [this, caller, own = std::make_shared<memory>()](std::size_t number) {
            const auto block = static_cast<std::uint32_t>(number);
            verify(block, own->compressed.get(), own->rows.get());
            fDone += fPart.block(block).rows.length;
            if (caller) told(fProgress, fDone, fPart.size());
        };
    }

    void verify(std::uint32_t number, unsigned char* compressed, unsigned char* rows) {
        try {
            fPart.read(number, compressed, rows);
        } catch (const DamagedFileError& damage) {
            const std::lock_guard guard(fLock);
            fReport.bad.push_back({number, fPart.block(number).rows, damage.what()});
        }
    }

    const shownPart& fPart;
    const Progress& fProgress;
    std::atomic<i64> fDone{0};
    std::mutex fLock;  // of the report's bad blocks
    VerifyReport fReport;
};

}  // namespace

VerifyReport verify(const Path& path, const VerifyOptions& options) {
    const std::uint32_t threads = threadsAtWork(options.threads, path);
    const shownPart part = opened(path, options.row0);
    return translated(path, [&] { return verifier(part, options.progress).run(threads); });
}

namespace {

// Where the caller says that it is, in the byte order that the heading shows there, if one does.
std::optional<foundPart> toldPart(const Path& path, const std::string& place, std::optional<i64> row0) {
    if (!row0) return {};
    require(*row0 >= 1, path, "no rows begin before offset 1");
    try {
        const openedFile file(path.string(), place);
        return foundPart{*row0, findHeading(file, row0, path, place).swapped};
    } catch (const Error&) {
        return foundPart{*row0, false};
    }
}

}  // namespace

RecoverReport recover(const Path& from, const Path& to, const RecoverOptions& options) {
    const std::string place = fullName(from);
    recoverOptions how{translated(
                           from, [&] { return toldPart(from, place, options.row0); }, place),
                       options.committed, options.drop_lost};
    if (options.progress) how.tell = [&](i64 done, i64 total) { told(options.progress, done, total); };
    const recoverReport found = made(to, options.replace, options.durable, [&](const std::string& output) {
        return blaming({&from, 1}, [&] { return recover(place, output, how); });
    });
    RecoverReport report{found.blocks, found.rows, {}};
    for (const lostRange& lost : found.lost) {
        const i64 begin = lost.begin - found.part.row0Pos;
        report.lost.push_back({{begin, lost.end - lost.begin}, lost.estimated, lost.why});
    }
    return report;
}

RollBack roll_back(const Path& path) {
    const std::string place = fullName(path);
    switch (translated(
        path, [&] { return rollBack(place); }, place)) {
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

JoinReport join(std::span<const Path> from, const Path& to, const JoinOptions& options) {
    require(!from.empty(), to, "no file to join");
    std::vector<joinInput> inputs;
    i64 total = 0;  // bytes to copy
    for (const Path& path : from) {
        const shownPart part = opened(path, {});
        if (inputs.empty() && options.dictionary.empty()) total = part.row0();
        require(!platform::sameFile(fullName(path).c_str(), fullName(to).c_str()), to,
                "it is one of the files to join");
        inputs.push_back({fullName(path), {part.row0(), part.swapped()}});
        for (std::uint32_t i = 0; i < part.blockCount(); ++i) total += part.block(i).stored;
    }
    i64 done = 0;
    joinOptions how;
    how.copied = [&](i64 count) { told(options.progress, done += count, total); };
    how.row0Pos = std::ssize(options.dictionary);
    const joinReport report = made(to, options.replace, options.durable, [&](const std::string& output) {
        if (how.row0Pos != 0) {
            ORVA_File file;
            openOrThrow(file, output, "r+b", kWriteFailed);
            writeAll(file, options.dictionary.data(), options.dictionary.size(), 0);
            file.Close();
        }
        return blaming(from, [&] { return join(inputs, output, how); });
    });
    return {report.blocks, report.rows};
}

}  // namespace orva
