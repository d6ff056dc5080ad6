// verify: inflates every block and names the bad ones.
#include "failure.h"
#include "json.h"
#include "output.h"
#include "part.h"
#include "progress.h"
#include "text.h"
#include "threads.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace {

struct verifyOptions {
    partOptions part;
    std::vector<std::string> files;
    bool json = false;
    threadOptions threads;
    progressOptions progress;
};

struct badBlock {
    std::uint32_t number;
    filePosRecord record;
    std::string error;
};

struct findings {
    std::vector<badBlock> blocks;
    std::string index;  // what is wrong with its records as a whole; empty: nothing

    bool good() const { return blocks.empty() && index.empty(); }
};

class verifyRun {
public:
    explicit verifyRun(verifyOptions options) : fOptions(std::move(options)) {}

    int run() {
        const locatedPart located = locatePart(fOptions.part);
        noteFound("verify", fOptions.part, located);
        orva::finishedPart part(located.file, located.part);
        progress bar(fOptions.progress, "verify", part.dataSize());
        const findings found{badBlocks(part, bar), indexError(part)};
        bar.finish(shownName(fOptions.part.file) + ": " + counted(part.blockCount(), "block") + ", " +
                   humanSize(static_cast<double>(part.dataSize())) + " of rows, " + verdict(found));
        print(part, found);
        if (found.good()) return kAllWell;
        throw toolFailure(kDamaged, fOptions.part.file, summary(part, found));
    }

private:
    static std::string verdict(const findings& found) {
        if (found.good()) return "all good";
        const auto count = static_cast<std::int64_t>(found.blocks.size());
        return (count == 0 ? "" : grouped(count) + " bad") + (count == 0 || found.index.empty() ? "" : ", ") +
               (found.index.empty() ? "" : "the index damaged");
    }

    static std::string summary(const orva::finishedPart& part, const findings& found) {
        if (found.blocks.empty()) return found.index + ": 'orva recover' makes a new file of its rows";
        return grouped(static_cast<std::int64_t>(found.blocks.size())) + " of " + counted(part.blockCount(), "block") +
               " damaged: get the file from its source again; 'orva recover' makes a new one with the rows of the "
               "others";
    }

    std::string indexError(orva::finishedPart& part) const {
        try {
            part.verifyIndex();
        } catch (const DamagedFileError& e) {
            return failureText(e, fOptions.part.file);
        }
        return {};
    }

    // Each thread takes the next block that nobody has taken.
    std::vector<badBlock> badBlocks(const orva::finishedPart& whole, progress& bar) const {
        const std::uint32_t blocks = whole.blockCount();
        std::atomic<std::uint32_t> next{0};
        std::vector<badBlock> bad;
        std::mutex lock;  // guards bad and bar
        const auto work = [&] {
            orva::finishedPart part(whole);
            for (std::uint32_t number = next++; number < blocks; number = next++) {
                const std::string error = errorOf(part, number);
                const std::lock_guard guard(lock);
                if (!error.empty()) bad.push_back({number, part.block(number), error});
                bar.advance(part.block(number).orginalSize);
            }
        };
        runOnThreads(std::min<std::int32_t>(fOptions.threads.count(), static_cast<std::int32_t>(blocks)), work);
        std::sort(bad.begin(), bad.end(), [](const badBlock& a, const badBlock& b) { return a.number < b.number; });
        return bad;
    }

    // A block that the disk cannot give is as lost to the reader as one that does not inflate, so the walk goes on.
    std::string errorOf(orva::finishedPart& part, std::uint32_t number) const {
        try {
            part.verifyBlock(number);
        } catch (const DamagedFileError& e) {
            return failureText(e, fOptions.part.file);
        } catch (const FileError& e) {
            return failureText(e, fOptions.part.file);
        }
        return {};
    }

    void print(const orva::finishedPart& part, const findings& found) const {
        output out;
        if (fOptions.json) {
            out.write(jsonText(report(part, found), fOptions.files.size()));
        } else {
            for (const badBlock& block : found.blocks) out.write(line(part, block));
            // Alone it is told as the failure.
            if (!found.blocks.empty() && !found.index.empty()) {
                out.write(shownName(fOptions.part.file) + ": " + found.index + '\n');
            }
        }
        out.finish();
    }

    std::string line(const orva::finishedPart& part, const badBlock& bad) const {
        const std::int64_t from = bad.record.orginalPos - part.heading()._caseStartPos;
        return shownName(fOptions.part.file) + ": bytes " + std::to_string(from) + " to " +
               std::to_string(from + bad.record.orginalSize) + " of the rows are lost: " + bad.error + '\n';
    }

    nlohmann::ordered_json report(const orva::finishedPart& part, const findings& found) const {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const badBlock& block : found.blocks) {
            auto entry = blockJson(block.number, block.record, part.heading()._caseStartPos);
            entry["error"] = block.error;
            list.push_back(std::move(entry));
        }
        nlohmann::ordered_json json = {{"schema", kJsonSchema},       {"file", fOptions.part.file},
                                       {"good", found.good()},        {"blocks", part.blockCount()},
                                       {"dataSize", part.dataSize()}, {"badBlocks", std::move(list)}};
        if (!found.index.empty()) json["indexError"] = found.index;
        return json;
    }

    const verifyOptions fOptions;
};

}  // namespace

verb addVerify(CLI::App& app) {
    auto options = std::make_shared<verifyOptions>();
    CLI::App* command = app.add_subcommand("verify", "Inflate every block and name the bad ones");
    options->part.addTo(*command, options->files);
    command->add_flag("--json", options->json, "Write the result as JSON");
    options->threads.addTo(*command);
    options->progress.addTo(*command);
    return [options] {
        return forEachFile("verify", options->files, [&](const std::string& file) {
            options->part.file = file;
            return verifyRun(*options).run();
        });
    };
}
