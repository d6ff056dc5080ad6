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

class verifyVerb final : public verb {
public:
    void addOptions(CLI::App& command) override {
        fPart.addTo(command, fFiles);
        command.add_flag("--json", fJson, "Write the result as JSON");
        fThreads.addTo(command);
        fProgress.addTo(command);
    }

    int run() override {
        return forEachFile("verify", fPart, fFiles, [this] { verify(openFile("verify", fPart)); });
    }

private:
    void verify(const openedPart& file) {
        fInfo = file.info;
        progress bar(fProgress, "verify", fInfo.size);
        fReport = orva::verify(file.reader, {.threads = fThreads.wanted, .progress = bar.callback()});
        bar.finish(printable(fPart.file) + ": " + counted(fReport.blocks, "block") + ", " + humanSize(fInfo.size) +
                   " of rows, " + verdict());
        print();
        if (!fReport.sound()) throw toolFailure(kDamaged, fPart.file, summary());
    }

    std::string verdict() const {
        if (fReport.sound()) return "all good";
        const auto count = std::ssize(fReport.bad);
        return (count == 0 ? "" : grouped(count) + " bad") + (count == 0 || fReport.index.empty() ? "" : ", ") +
               (fReport.index.empty() ? "" : "index damaged");
    }

    std::string summary() const {
        if (fReport.bad.empty()) return fReport.index + ": use 'orva recover' to save the rows in a new file";
        return grouped(std::ssize(fReport.bad)) + " of " + counted(fReport.blocks, "block") +
               " damaged: get the file from its source again, or use 'orva recover' to save the other rows in a new "
               "file";
    }

    void print() const {
        output out;
        if (fJson) {
            out.write(jsonText(json(), fFiles.size()));
        } else {
            for (const orva::BadBlock& bad : fReport.bad) out.write(line(bad));
            // Without bad blocks the failure says it.
            if (!fReport.bad.empty() && !fReport.index.empty()) {
                out.write(printable(fPart.file) + ": " + fReport.index + '\n');
            }
        }
        out.finish();
    }

    std::string line(const orva::BadBlock& bad) const {
        return printable(fPart.file) + ": " + lostText(bad.rows) + ": " + bad.text + '\n';
    }

    nlohmann::ordered_json json() const {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const orva::BadBlock& bad : fReport.bad) {
            auto entry = blockJson(bad.block, fInfo.blocks[static_cast<std::size_t>(bad.block)]);
            entry["error"] = bad.text;
            list.push_back(std::move(entry));
        }
        nlohmann::ordered_json json = {{"schema", kJsonSchema},   {"file", fPart.file},
                                       {"good", fReport.sound()}, {"blocks", fReport.blocks},
                                       {"dataSize", fInfo.size},  {"badBlocks", std::move(list)}};
        if (!fReport.index.empty()) json["indexError"] = fReport.index;
        return json;
    }

    partOptions fPart;
    std::vector<std::string> fFiles;
    bool fJson = false;
    threadOptions fThreads;
    progressOptions fProgress;
    orva::FileInfo fInfo;
    orva::VerifyReport fReport;
};

}  // namespace

std::unique_ptr<verb> makeVerify() {
    return std::make_unique<verifyVerb>();
}
