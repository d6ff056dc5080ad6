// splits: ranges of rows for engines that read a file in parallel. Each begins where a block does, so that no block is
// inflated for two of them; with --record-size at the first record from there on, so that no record is cut.
#include "json.h"
#include "output.h"
#include "part.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <limits>
#include <memory>

namespace {

struct splitsOptions {
    partOptions part;
    std::int64_t count = 0;  // 0: one for each block
    std::int64_t recordSize = 1;
    bool json = false;
};

class splitsRun {
public:
    explicit splitsRun(const splitsOptions& options)
        : fOptions(options), fLocated(locatePart(options.part)), fPart(options.part.file, fLocated.part) {}

    int run() {
        noteFound("splits", fOptions.part, fLocated);
        output out;
        out.write(jsonText(report()));
        out.finish();
        return kAllWell;
    }

private:
    // Where the first record from the beginning of block `number` on begins; the end of the rows behind the last one.
    std::int64_t border(std::uint32_t number) const {
        if (number == fPart.blockCount()) return fPart.dataSize();
        const std::int64_t offset = fPart.block(number).orginalPos - fPart.heading()._caseStartPos;
        const std::int64_t into = offset % fOptions.recordSize;
        const std::int64_t rest = fPart.dataSize() - offset;
        return into == 0 ? offset : offset + std::min(fOptions.recordSize - into, rest);
    }

    nlohmann::ordered_json report() const {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        const std::int64_t blocks = fPart.blockCount();
        const std::int64_t count = fOptions.count == 0 ? blocks : std::min(fOptions.count, blocks);
        std::int64_t begin = 0;
        for (std::int64_t i = 1; i <= count; ++i) {
            const std::int64_t end = border(static_cast<std::uint32_t>(blocks * i / count));
            if (end == begin) continue;  // no record begins there
            list.push_back({{"offset", begin}, {"size", end - begin}});
            begin = end;
        }
        nlohmann::ordered_json json = {
            {"schema", kJsonSchema}, {"file", fOptions.part.file}, {"dataSize", fPart.dataSize()}};
        if (fOptions.recordSize != 1) json["recordSize"] = fOptions.recordSize;
        json["splits"] = std::move(list);
        return json;
    }

    const splitsOptions& fOptions;
    const locatedPart fLocated;
    const orva::finishedPart fPart;
};

}  // namespace

verb addSplits(CLI::App& app) {
    auto options = std::make_shared<splitsOptions>();
    CLI::App* command = app.add_subcommand("splits", "List ranges of rows that can be read in parallel");
    options->part.addTo(*command);
    command->add_flag("--json", options->json, "Write them as JSON, the one form that there is")->required();
    const auto atLeastOne = CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max());
    command->add_option("--count", options->count, "So many ranges at most; without it one for each block")
        ->check(atLeastOne);
    command->add_option("--record-size", options->recordSize, "The bytes of one record; no range cuts one")
        ->check(atLeastOne);
    return [options] { return splitsRun(*options).run(); };
}
