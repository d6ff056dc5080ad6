// cat: rows out, whole or in ranges.
#include "blockRows.h"
#include "failure.h"
#include "input.h"
#include "output.h"
#include "part.h"
#include "progress.h"
#include "recordSearch.h"
#include "span.h"
#include "text.h"
#include "threads.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <exception>
#include <iterator>
#include <limits>
#include <memory>
#include <string_view>
#include <vector>

namespace {

struct catOptions {
    partOptions part;
    std::vector<std::string> ranges;
    std::vector<std::string> records;
    std::vector<std::string> where;
    std::int64_t recordSize = 0;
    std::string damaged = "stop";
    std::string out = "-";
    outputOptions output;
    threadOptions threads;
    progressOptions progress;
};

class catRun {
public:
    explicit catRun(catOptions options)
        : fOptions(std::move(options)),
          fLocated(locatePart(fOptions.part)),
          fPart(fOptions.part.file, fLocated.part),
          fBuffer(new transferBuffer) {
        noteFound("cat", fOptions.part, fLocated);
    }

    int run() {
        const std::vector<span> spans = wantedSpans();
        std::int64_t total = 0;
        for (const span& wanted : spans) total += wanted.length;
        refuseSameFile();
        output out(fOptions.out, fOptions.output, {fOptions.part.file});
        progress bar(fOptions.progress, "cat", total);
        copySpans(spans, total, out, bar);
        out.finish();
        bar.finish(summary(out, total));
        if (fLostRanges != 0) {
            throw toolFailure(kPartial, fOptions.part.file,
                              counted(fLostRanges, "range") + " of rows lost" +
                                  (fOptions.damaged == "zero" ? "; zeros stand in their place" : " and left out"));
        }
        return kAllWell;
    }

    int runWhere() {
        const keyRange range(fOptions.where);
        blockRows rows(fOptions.part.file, fLocated.part);
        recordSearch search(rows, range, fOptions.recordSize);
        refuseSameFile();
        output out(fOptions.out, fOptions.output, {fOptions.part.file});
        progress bar(fOptions.progress, "cat", -1);
        const std::int64_t first = search.first();
        const std::int64_t searched = rows.inflated();
        const std::int64_t found = copyRecords(search, first, rows, out, bar);
        out.finish();
        bar.finish(summary(out, found * fOptions.recordSize) + " in " + counted(found, "record") + "; " +
                   counted(rows.inflated(), "block") + " inflated, " + grouped(searched) + " to find the first record");
        return kAllWell;
    }

private:
    // All of them are held against the rows before the first is written, so that a bad one leaves no half answer.
    std::vector<span> wantedSpans() const {
        const std::string& file = fOptions.part.file;
        const std::int64_t dataSize = fPart.dataSize();
        std::vector<span> spans;
        for (const std::string& text : fOptions.ranges) spans.push_back(parseRange(text, file, dataSize));
        for (const std::string& text : fOptions.records) {
            spans.push_back(parseRecords(text, fOptions.recordSize, file, dataSize));
        }
        if (spans.empty()) spans.push_back({0, dataSize});
        return spans;
    }

    void refuseSameFile() const {
        if (fOptions.out != "-" && platform::sameFile(fOptions.part.file.c_str(), fOptions.out.c_str())) {
            usageError("\"" + shownName(fOptions.out) + "\" is input and output: name another output with -o");
        }
    }

    std::string summary(const output& out, std::int64_t total) const {
        const std::string all = humanSize(static_cast<double>(total));
        return shownName(fOptions.part.file) + ": " +
               (out.open()
                    ? all
                    : humanSize(static_cast<double>(out.written())) + " of " + all + " written, then nobody read on");
    }

    // Threads inflate ahead, which a short range has no use for.
    void copySpans(const std::vector<span>& spans, std::int64_t total, output& out, progress& bar) {
        const namedStream file(fOptions.part.file);
        zcmpsFilestr rows(file);
        rows.setThreadCount(total > std::int64_t{kBlockSize} ? fOptions.threads.besideThisOne() : 0);
        rows.readFilePosInfo(fLocated.part.row0Pos, fLocated.part.swapped);
        for (const span& wanted : spans) copySpan(rows, wanted, out, bar);
        rows.Close();
    }

    // No read reaches into a second block, so that all rows before a damaged one are written.
    void copySpan(zcmpsFilestr& rows, const span& wanted, output& out, progress& bar) {
        const std::int64_t end = wanted.offset + wanted.length;
        seek(rows, wanted.offset);
        for (std::int64_t at = wanted.offset; at < end && out.open();) {
            const std::int64_t blockEnd = std::min(end, blockBegin(fPart, blockAt(fPart, at) + 1));
            const std::int64_t before = at;
            try {
                while (at < blockEnd && out.open()) at += copyPiece(rows, std::min(blockEnd - at, kPiece), out);
            } catch (const DamagedFileError& e) {
                lose({at, blockEnd - at}, std::current_exception(), e, out);
                at = blockEnd;
                seek(rows, at);
            }
            bar.advance(at - before);
        }
    }

    void seek(zcmpsFilestr& rows, std::int64_t offset) const {
        rows.Seek(fLocated.part.row0Pos + offset, ORVA_StrBaseIO::SeekFromStart);
    }

    std::int64_t copyPiece(zcmpsFilestr& rows, std::int64_t size, output& out) {
        const auto wanted = static_cast<std::uint32_t>(size);
        if (rows.Read(fBuffer->bytes, wanted) != wanted) {
            throw toolFailure(kDamaged, fOptions.part.file, "changed while it was read: try again");
        }
        out.write(fBuffer->bytes, wanted);
        return size;
    }

    // A file that has changed has lost nothing: its rows stand elsewhere now.
    void lose(const span& lost, const std::exception_ptr& failure, const DamagedFileError& damage, output& out) {
        const bool changed = dynamic_cast<const FileChangedError*>(&damage) != nullptr;
        if (fOptions.damaged == "stop" || changed) std::rethrow_exception(failure);
        ++fLostRanges;
        note("cat", fOptions.part.file,
             "bytes " + std::to_string(lost.offset) + " to " + std::to_string(lost.offset + lost.length) +
                 " of the rows are lost: " + failureText(damage, fOptions.part.file));
        if (fOptions.damaged == "skip") return;
        std::fill(std::begin(fBuffer->bytes), std::end(fBuffer->bytes), static_cast<unsigned char>(0));
        for (std::int64_t left = lost.length; left > 0; left -= kPiece) {
            out.write(fBuffer->bytes, static_cast<std::size_t>(std::min(left, kPiece)));
        }
    }

    // Gives the number of records from `first` on that lie in the range.
    std::int64_t copyRecords(recordSearch& search, std::int64_t first, blockRows& rows, output& out, progress& bar) {
        std::int64_t record = first;
        while (record < search.records() && out.open()) {
            const std::int64_t count = search.countFrom(record);
            if (count == 0) break;
            std::int64_t at = record * fOptions.recordSize;
            record += count;
            for (const std::int64_t end = record * fOptions.recordSize; at < end;) {
                const std::string_view bytes = rows.from(at).substr(0, static_cast<std::size_t>(end - at));
                out.write(bytes.data(), bytes.size());
                at += static_cast<std::int64_t>(bytes.size());
            }
            bar.advance(count * fOptions.recordSize);
        }
        return record - first;
    }

    const catOptions fOptions;
    const locatedPart fLocated;
    const orva::finishedPart fPart;
    const std::unique_ptr<transferBuffer> fBuffer;
    std::int64_t fLostRanges = 0;
};

}  // namespace

verb addCat(CLI::App& app) {
    auto options = std::make_shared<catOptions>();
    CLI::App* command = app.add_subcommand("cat", "Write rows to standard output, whole or in ranges");
    options->part.addTo(*command);
    CLI::Option* range =
        command->add_option("--range", options->ranges, "OFF:LEN: bytes of rows, or -N: the last N; may be repeated");
    CLI::Option* records = command->add_option(
        "--records", options->records, "A:B: records of rows, B exclusive, or -N: (the last N); may be repeated");
    CLI::Option* where = command->add_option("--records-where", options->where,
                                             "OFFSET:TYPE>=VALUE (> <= < ==): records of rows that ascend by this key");
    CLI::Option* recordSize = command->add_option("--record-size", options->recordSize, "The bytes of one record");
    CLI::Option* damaged = command->add_option(
        "--damaged", options->damaged, "At a damaged block: stop, or go on with zeros (zero) or without (skip)");
    range->allow_extra_args(false)->excludes(records);
    records->allow_extra_args(false)->needs(recordSize);
    where->expected(1, 2)->needs(recordSize)->excludes(range)->excludes(records)->excludes(damaged);
    recordSize->check(CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max()));
    damaged->check(CLI::IsMember({"stop", "zero", "skip"}));
    command->add_option("-o,--output", options->out, "Write to this file instead");
    options->output.addTo(*command);
    options->threads.addTo(*command);
    options->progress.addTo(*command);
    return [options, recordSize] {
        if (!recordSize->empty() && options->records.empty() && options->where.empty()) {
            usageError("--record-size goes with --records or --records-where");
        }
        catRun run(*options);
        return options->where.empty() ? run.run() : run.runWhere();
    };
}
