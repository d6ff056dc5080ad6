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

#include <memory>
#include <vector>

namespace {

struct verifyOptions {
    partOptions part;
    std::vector<std::string> files;
    bool json = false;
    threadOptions threads;
    progressOptions progress;
};

class verifyRun {
public:
    explicit verifyRun(const verifyOptions& options) : fOptions(options), fFile(openFile("verify", options.part)) {}

    int run() {
        progress bar(fOptions.progress, "verify", fFile.info.size);
        std::int64_t before = 0;
        const auto advance = [&](std::int64_t done, std::int64_t) {
            bar.advance(done - before);
            before = done;
        };
        fReport = orva::verify(fFile.reader, {.threads = fOptions.threads.count(), .progress = advance});
        bar.finish(shownName(fFile.name) + ": " + counted(fReport.blocks, "block") + ", " +
                   humanSize(static_cast<double>(fFile.info.size)) + " of rows, " + verdict());
        print();
        if (fReport.sound()) return kAllWell;
        throw toolFailure(kDamaged, fFile.name, summary());
    }

private:
    std::string verdict() const {
        if (fReport.sound()) return "all good";
        const auto count = std::ssize(fReport.bad);
        return (count == 0 ? "" : grouped(count) + " bad") + (count == 0 || fReport.index.empty() ? "" : ", ") +
               (fReport.index.empty() ? "" : "the index damaged");
    }

    std::string summary() const {
        if (fReport.bad.empty()) return indexError() + ": 'orva recover' makes a new file of its rows";
        return grouped(std::ssize(fReport.bad)) + " of " + counted(fReport.blocks, "block") +
               " damaged: get the file from its source again; 'orva recover' makes a new one with the rows of the "
               "others";
    }

    std::string indexError() const { return failureText(fReport.index, fFile.name); }

    void print() const {
        output out;
        if (fOptions.json) {
            out.write(jsonText(json(), fOptions.files.size()));
        } else {
            for (const orva::BadBlock& bad : fReport.bad) out.write(line(bad));
            // Alone it is told as the failure.
            if (!fReport.bad.empty() && !fReport.index.empty()) {
                out.write(shownName(fFile.name) + ": " + indexError() + '\n');
            }
        }
        out.finish();
    }

    std::string line(const orva::BadBlock& bad) const {
        return shownName(fFile.name) + ": bytes " + std::to_string(bad.rows.offset) + " to " +
               std::to_string(bad.rows.offset + bad.rows.length) +
               " of the rows are lost: " + failureText(bad.text, fFile.name) + '\n';
    }

    nlohmann::ordered_json json() const {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const orva::BadBlock& bad : fReport.bad) {
            auto entry = blockJson(bad.block, fFile.info.blocks[static_cast<std::size_t>(bad.block)]);
            entry["error"] = failureText(bad.text, fFile.name);
            list.push_back(std::move(entry));
        }
        nlohmann::ordered_json json = {{"schema", kJsonSchema},       {"file", fFile.name},
                                       {"good", fReport.sound()},     {"blocks", fReport.blocks},
                                       {"dataSize", fFile.info.size}, {"badBlocks", std::move(list)}};
        if (!fReport.index.empty()) json["indexError"] = indexError();
        return json;
    }

    const verifyOptions& fOptions;
    const shownFile fFile;
    orva::VerifyReport fReport;
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
