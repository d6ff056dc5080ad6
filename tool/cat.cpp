// cat: rows out, whole or in ranges.
#include "blockRows.h"
#include "failure.h"
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
#include <limits>
#include <memory>
#include <span>
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
    explicit catRun(catOptions options) : fOptions(std::move(options)), fFile(openFile("cat", fOptions.part)) {}

    int run() {
        const std::vector<span> spans = wantedSpans();
        std::int64_t total = 0;
        for (const span& wanted : spans) total += wanted.length;
        refuseSameFile();
        output out(fOptions.out, fOptions.output, fOptions.part.file);
        progress bar(fOptions.progress, "cat", total);
        copyPieces(piecesOf(spans), out, bar);
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
        blockRows rows(fFile);
        recordSearch search(rows, range, fOptions.recordSize);
        refuseSameFile();
        output out(fOptions.out, fOptions.output, fOptions.part.file);
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
        const std::int64_t dataSize = fFile.info.size;
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

    // What one block has of one span.
    struct piece {
        std::size_t number;
        span rows;
    };
    const orva::Range& block(std::size_t number) const { return fFile.info.blocks[number].rows; }
    std::vector<piece> piecesOf(const std::vector<span>& spans) const {
        std::vector<piece> pieces;
        for (const span& wanted : spans) {
            const std::int64_t end = wanted.offset + wanted.length;
            for (std::int64_t at = wanted.offset; at < end; at += pieces.back().rows.length) {
                const std::size_t number = blockAt(fFile.info.blocks, at);
                pieces.push_back({number, {at, std::min(end, block(number).offset + block(number).length) - at}});
            }
        }
        return pieces;
    }

    // The pieces of one block that follow each other are one piece of work. Each thread writes what it has inflated: a
    // core that reads what another one wrote takes its memory's cache lines away, which that one has to win back.
    void copyPieces(const std::vector<piece>& pieces, output& out, progress& bar) {
        std::vector<std::span<const piece>> works;
        for (auto at = pieces.begin(); at != pieces.end();) {
            const auto next =
                std::find_if(at, pieces.end(), [=](const piece& one) { return one.number != at->number; });
            works.emplace_back(at, next);
            at = next;
        }
        const auto threads =
            static_cast<std::int32_t>(std::min(works.size(), static_cast<std::size_t>(fOptions.threads.count())));
        runInOrder(threads, works.size(), [&] {
            return [&, memory = blockMemory()](std::size_t number) {
                const orva::Range& wanted = block(works[number].front().number);
                const std::exception_ptr failure = inflate(wanted, memory.get());
                return [&, failure, number, rows = memory.get(), begin = wanted.offset] {
                    for (const piece& one : works[number])
                        copyPiece(one.rows, rows + (one.rows.offset - begin), failure, out, bar);
                    return out.open();
                };
            };
        });
    }

    // Null where the rows are there.
    std::exception_ptr inflate(const orva::Range& wanted, std::byte* to) const {
        try {
            fFile.reader.read_at(wanted.offset, {to, static_cast<std::size_t>(wanted.length)});
            return nullptr;
        } catch (...) {
            return std::current_exception();
        }
    }

    void copyPiece(const span& wanted, const std::byte* rows, const std::exception_ptr& failure, output& out,
                   progress& bar) {
        try {
            if (failure != nullptr) std::rethrow_exception(failure);
            out.write(rows, static_cast<std::size_t>(wanted.length));
        } catch (const orva::DamagedFileError& e) {
            if (fOptions.damaged == "stop") throw;
            lose(wanted, e, out);
        }
        bar.advance(wanted.length);
    }

    void lose(const span& lost, const orva::DamagedFileError& damage, output& out) {
        ++fLostRanges;
        const std::string why = failureText(damage.what(), fOptions.part.file);
        note("cat", fOptions.part.file,
             "bytes " + std::to_string(lost.offset) + " to " + std::to_string(lost.offset + lost.length) +
                 " of the rows are lost: " + why.substr(0, why.find("; 'orva recover")));
        if (fOptions.damaged == "skip") return;
        constexpr std::int64_t most = 1 << 20;
        const std::vector<char> zeros(static_cast<std::size_t>(std::min(lost.length, most)));
        for (std::int64_t left = lost.length; left > 0 && out.open(); left -= most)
            out.write(zeros.data(), static_cast<std::size_t>(std::min(left, most)));
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
    const shownFile fFile;
    std::int64_t fLostRanges = 0;
};

}  // namespace

verb addCat(CLI::App& app) {
    auto options = std::make_shared<catOptions>();
    CLI::App* command = app.add_subcommand("cat", "Write rows to standard output, whole or in ranges");
    options->part.addTo(*command);
    CLI::Option* range = command->add_option("--range", options->ranges,
                                             "So many bytes of rows from this offset on, or -N, the last N; may be "
                                             "repeated");
    CLI::Option* records = command->add_option("--records", options->records,
                                               "Records of --record-size from A up to B, which is not one of them, or "
                                               "-N:, the last N; may be repeated");
    CLI::Option* where = command->add_option("--records-where", options->where,
                                             "Records whose number at this offset is so large (also > <= < ==); they "
                                             "ascend by that number");
    CLI::Option* recordSize = command->add_option("--record-size", options->recordSize, "The bytes of one record");
    CLI::Option* damaged = command->add_option("--damaged", options->damaged,
                                               "At a damaged block stop, as without it, or go on with zeros (zero) or "
                                               "without its rows (skip)");
    range->option_text("OFF:LEN")->allow_extra_args(false)->excludes(records);
    records->option_text("A:B")->allow_extra_args(false)->needs(recordSize);
    where->option_text("'OFFSET:TYPE>=VALUE'")->expected(1, 2)->needs(recordSize);
    where->excludes(range)->excludes(records)->excludes(damaged);
    recordSize->option_text("N")->check(CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max()));
    damaged->option_text("HOW")->check(CLI::IsMember({"stop", "zero", "skip"}));
    command->add_option("-o,--output", options->out, "Write to this file instead")->option_text("FILE");
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
