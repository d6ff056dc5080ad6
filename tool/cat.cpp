// cat: rows out, whole or in ranges.
#include "failure.h"
#include "input.h"
#include "output.h"
#include "part.h"
#include "progress.h"
#include "span.h"
#include "text.h"
#include "threads.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <memory>
#include <vector>

namespace {

struct catOptions {
    partOptions part;
    std::vector<std::string> ranges;
    std::vector<std::string> records;
    std::int64_t recordSize = 0;
    std::string out = "-";
    outputOptions output;
    threadOptions threads;
    progressOptions progress;
};

class catRun {
public:
    explicit catRun(catOptions options) : fOptions(std::move(options)), fBuffer(new transferBuffer) {}

    int run() {
        const locatedPart located = locatePart(fOptions.part);
        noteFound("cat", fOptions.part, located);
        const std::vector<span> spans = wantedSpans(located);
        std::int64_t total = 0;
        for (const span& wanted : spans) total += wanted.length;
        refuseSameFile();
        output out(fOptions.out, fOptions.output, {fOptions.part.file});
        progress bar(fOptions.progress, "cat", total);
        copySpans(located, spans, total, out, bar);
        out.finish();
        bar.finish(shownName(fOptions.part.file) + ": " + humanSize(static_cast<double>(total)));
        return kAllWell;
    }

private:
    // All of them are held against the rows before the first is written, so that a bad one leaves no half answer.
    std::vector<span> wantedSpans(const locatedPart& located) const {
        const std::string& file = fOptions.part.file;
        const std::int64_t dataSize = orva::finishedPart(file, located.part).dataSize();
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

    // Threads inflate ahead, which a short range has no use for.
    void copySpans(const locatedPart& located, const std::vector<span>& spans, std::int64_t total, output& out,
                   progress& bar) {
        const namedStream file(fOptions.part.file);
        zcmpsFilestr rows(file);
        rows.setThreadCount(total > std::int64_t{kBlockSize} ? fOptions.threads.besideThisOne() : 0);
        rows.readFilePosInfo(located.part.row0Pos, located.part.swapped);
        for (const span& wanted : spans) {
            rows.Seek(located.part.row0Pos + wanted.offset, ORVA_StrBaseIO::SeekFromStart);
            copySpan(rows, wanted.length, out, bar);
        }
        rows.Close();
    }

    void copySpan(zcmpsFilestr& rows, std::int64_t length, output& out, progress& bar) {
        while (length > 0 && out.open()) {
            const auto wanted = static_cast<std::uint32_t>(std::min(length, kPiece));
            const std::uint32_t count = rows.Read(fBuffer->bytes, wanted);
            if (count != wanted)
                throw toolFailure(kDamaged, fOptions.part.file, "changed while it was read: try again");
            out.write(fBuffer->bytes, count);
            length -= count;
            bar.advance(count);
        }
    }

    catOptions fOptions;
    const std::unique_ptr<transferBuffer> fBuffer;
};

}  // namespace

verb addCat(CLI::App& app) {
    auto options = std::make_shared<catOptions>();
    CLI::App* command = app.add_subcommand("cat", "Write rows to standard output, whole or in ranges");
    options->part.addTo(*command);
    CLI::Option* range = command->add_option("--range", options->ranges, "OFF:LEN: bytes of rows; may be repeated");
    CLI::Option* records = command->add_option("--records", options->records, "A:B: records of rows, B exclusive");
    CLI::Option* recordSize = command->add_option("--record-size", options->recordSize, "The bytes of one record");
    range->allow_extra_args(false)->excludes(records);
    records->allow_extra_args(false)->needs(recordSize);
    recordSize->check(CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max()))->needs(records);
    command->add_option("-o,--output", options->out, "Write to this file instead");
    options->output.addTo(*command);
    options->threads.addTo(*command);
    options->progress.addTo(*command);
    return [options] { return catRun(*options).run(); };
}
