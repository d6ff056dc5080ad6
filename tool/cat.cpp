// cat: writes rows out, whole or in ranges.
#include "blockRows.h"
#include "failure.h"
#include "output.h"
#include "part.h"
#include "progress.h"
#include "range.h"
#include "recordSearch.h"
#include "text.h"
#include "threads.h"
#include "values.h"
#include "verbs.h"

#include <orva/blockSize.h>
#include <orva/orva.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <exception>
#include <memory>
#include <string_view>
#include <vector>

namespace {

class catVerb final : public verb {
public:
    void addOptions(CLI::App& command) override {
        fPart.addTo(command);
        CLI::Option* range = command.add_option(
            "--range", fRanges, "LEN bytes of rows from offset OFF on, or -N, the last N; may be repeated");
        CLI::Option* records =
            command.add_option("--records", fRecords,
                               "Records from A up to but not including B, each of --record-size bytes, "
                               "or -N:, the last N; may be repeated");
        CLI::Option* where = command.add_option("--records-where", fWhere,
                                                "Records whose number at OFFSET is VALUE or more (also > <= < ==); "
                                                "the records must ascend by it");
        CLI::Option* recordSize = command.add_option("--record-size", fRecordSize, "Bytes of one record");
        CLI::Option* damaged = command.add_option("--damaged", fDamaged,
                                                  "At a damaged block stop (the default), or go on with zeros (zero) "
                                                  "or without its rows (skip)");
        range->option_text("OFF:LEN")->allow_extra_args(false)->excludes(records);
        records->option_text("A:B")->allow_extra_args(false)->needs(recordSize);
        where->option_text("'OFFSET:TYPE>=VALUE'")->expected(1, 2)->needs(recordSize);
        where->excludes(range)->excludes(records)->excludes(damaged);
        recordSize->option_text("N")->check(atLeastOne());
        damaged->option_text("HOW")->check(CLI::IsMember({"stop", "zero", "skip"}));
        command.add_option("-o,--output", fOut, "Write to this file instead")->option_text("FILE");
        fOutput.addTo(command);
        fThreads.addTo(command);
        fProgress.addTo(command);
    }

    int run() override {
        if (fRecordSize != 0 && fRecords.empty() && fWhere.empty()) {
            usageError("--record-size requires --records or --records-where");
        }
        const openedPart file = openFile("cat", fPart);
        if (fWhere.empty()) {
            copyRanges(file);
        } else {
            copyFound(file);
        }
        return kAllWell;
    }

private:
    void copyRanges(const openedPart& file) {
        const std::vector<orva::Range> ranges = wantedRanges(file.info.size);
        std::int64_t total = 0;
        for (const orva::Range& wanted : ranges) total += wanted.length;
        requireOtherFile(fOut, {&fPart.file, 1});
        output out(fOut, fOutput, fPart.file);
        progress bar(fProgress, "cat", total);
        copyPieces(file.reader, workFor(file, ranges), out, bar);
        out.finish();
        bar.finish(summary(out, total));
        if (fLostRanges == 0) return;
        throw toolFailure(kPartial, fPart.file,
                          counted(fLostRanges, "range") + " of rows lost" +
                              (fDamaged == "zero" ? " and replaced by zeros" : " and left out"));
    }

    void copyFound(const openedPart& file) {
        const keyRange range(fWhere);
        blockRows rows(file);
        recordSearch search(rows, range, fRecordSize);
        requireOtherFile(fOut, {&fPart.file, 1});
        output out(fOut, fOutput, fPart.file);
        progress bar(fProgress, "cat", -1);
        const std::int64_t first = search.first();
        const std::int64_t searched = rows.inflated();
        const std::int64_t found = copyRecords(search, first, rows, out, bar);
        out.finish();
        bar.finish(summary(out, found * fRecordSize) + " in " + counted(found, "record") + "; " +
                   counted(rows.inflated(), "block") + " inflated, " + grouped(searched) + " to find the first record");
    }

    // Checks all ranges before the first is written, so that a bad one leaves no partial output.
    std::vector<orva::Range> wantedRanges(std::int64_t dataSize) const {
        std::vector<orva::Range> ranges;
        for (const std::string& text : fRanges) ranges.push_back(parseRange(text, fPart.file, dataSize));
        for (const std::string& text : fRecords) {
            ranges.push_back(parseRecords(text, fRecordSize, fPart.file, dataSize));
        }
        if (ranges.empty()) ranges.push_back({0, dataSize});
        return ranges;
    }

    std::string summary(const output& out, std::int64_t total) const {
        const std::string all = humanSize(total);
        return printable(fPart.file) + ": " +
               (out.open() ? all
                           : humanSize(out.written()) + " of " + all + " written, then the reader closed the pipe");
    }

    // A block, and consecutive pieces of the ranges that lie in it.
    struct work {
        orva::Range block;
        std::vector<orva::Range> pieces;
    };
    static std::vector<work> workFor(const openedPart& file, const std::vector<orva::Range>& ranges) {
        std::vector<work> works;
        for (const orva::Range& wanted : ranges) {
            const std::int64_t end = wanted.offset + wanted.length;
            for (std::int64_t at = wanted.offset; at < end; at += works.back().pieces.back().length) {
                const orva::Range& block = file.info.blocks[blockAt(file.info.blocks, at)].rows;
                if (works.empty() || works.back().block != block) works.push_back({block, {}});
                works.back().pieces.push_back({at, std::min(end, block.offset + block.length) - at});
            }
        }
        return works;
    }

    // Each thread writes what it has inflated: another core that read this memory would take its cache lines away, and
    // the first would have to win them back.
    void copyPieces(const orva::Reader& reader, const std::vector<work>& works, output& out, progress& bar) {
        const auto threads =
            static_cast<std::int32_t>(std::min(works.size(), static_cast<std::size_t>(fThreads.count())));
        runInOrder(threads, works.size(), [&] {
            return [&, memory = blockMemory()](std::size_t number) {
                const orva::Range& block = works[number].block;
                const std::exception_ptr failure = inflate(reader, block, memory.get());
                return [&, failure, number, rows = memory.get(), begin = block.offset] {
                    for (const orva::Range& piece : works[number].pieces)
                        copyPiece(piece, rows + (piece.offset - begin), failure, out, bar);
                    return out.open();
                };
            };
        });
    }

    // Null if the rows were read.
    static std::exception_ptr inflate(const orva::Reader& reader, const orva::Range& wanted, std::byte* to) {
        try {
            reader.read_at(wanted.offset, {to, static_cast<std::size_t>(wanted.length)});
            return nullptr;
        } catch (...) {
            return std::current_exception();
        }
    }

    // A range longer than a block is one that only a false index claims: as zeros it could fill any disk.
    bool goesOnAfter(const orva::Range& lost) const {
        return fDamaged == "skip" || (fDamaged == "zero" && lost.length <= std::int64_t{kBlockSize});
    }

    void copyPiece(const orva::Range& wanted, const std::byte* rows, const std::exception_ptr& failure, output& out,
                   progress& bar) {
        try {
            if (failure != nullptr) std::rethrow_exception(failure);
            out.write(rows, static_cast<std::size_t>(wanted.length));
        } catch (const orva::DamagedFileError& e) {
            if (!goesOnAfter(wanted)) throw;
            lose(wanted, e, out);
        }
        bar.advance(wanted.length);
    }

    void lose(const orva::Range& lost, const orva::DamagedFileError& damage, output& out) {
        ++fLostRanges;
        note("cat", fPart.file, lostText(lost) + ": " + damage.reason());
        if (fDamaged == "skip") return;
        const std::vector<char> zeros(static_cast<std::size_t>(lost.length));
        out.write(zeros.data(), zeros.size());
    }

    // Returns the number of records from `first` on that lie in the range.
    std::int64_t copyRecords(recordSearch& search, std::int64_t first, blockRows& rows, output& out, progress& bar) {
        std::int64_t record = first;
        while (record < search.records() && out.open()) {
            const std::int64_t count = search.countFrom(record);
            if (count == 0) break;
            rows.visit(record * fRecordSize, count * fRecordSize,
                       [&](std::string_view bytes) { out.write(bytes.data(), bytes.size()); });
            record += count;
            bar.advance(count * fRecordSize);
        }
        return record - first;
    }

    partOptions fPart;
    std::vector<std::string> fRanges;
    std::vector<std::string> fRecords;
    std::vector<std::string> fWhere;
    std::int64_t fRecordSize = 0;  // 0: not given
    std::string fDamaged = "stop";
    std::string fOut = "-";
    outputOptions fOutput;
    threadOptions fThreads;
    progressOptions fProgress;
    std::int64_t fLostRanges = 0;
};

}  // namespace

std::unique_ptr<verb> makeCat() {
    return std::make_unique<catVerb>();
}
