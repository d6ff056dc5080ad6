// info: what a file holds, for people and for programs.
#include "failure.h"
#include "json.h"
#include "output.h"
#include "part.h"
#include "text.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>

#include <bit>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

struct infoOptions {
    partOptions part;
    std::vector<std::string> files;
    bool blocks = false;
    bool json = false;
};

constexpr std::size_t kFlushAt = 1 << 16;

const char* orderName(bool swapped) {
    const bool little = (std::endian::native == std::endian::little) != swapped;
    return little ? "little" : "big";
}

class infoRun {
public:
    explicit infoRun(const infoOptions& options)
        : fOptions(options), fLocated(locatePart(options.part)), fPart(fLocated.file, fLocated.part) {
        for (std::uint32_t i = 0; i < fPart.blockCount(); ++i) fStored += fPart.block(i).translateSize;
    }

    int run() {
        output out;
        if (fOptions.json) {
            out.write(jsonText(report(), fOptions.files.size()));
        } else {
            out.write(summary());
            if (fOptions.blocks) writeBlocks(out);
        }
        out.finish();
        return kAllWell;
    }

private:
    static std::string field(const char* name, const std::string& value) {
        char head[24];
        std::snprintf(head, sizeof head, "  %-12s", name);
        return head + value + '\n';
    }

    static std::string sized(std::int64_t bytes) {
        return counted(bytes, "byte") + (bytes < 1024 ? "" : " (" + humanSize(static_cast<double>(bytes)) + ")");
    }

    std::int64_t row0Pos() const { return fPart.heading()._caseStartPos; }

    std::string summary() const {
        const compressionHeading& heading = fPart.heading();
        return shownName(fOptions.part.file) + '\n' + field("rows", sized(fPart.dataSize())) +
               field("stored", sized(fStored) + " in " + counted(fPart.blockCount(), "block") +
                                   (fStored == 0 ? "" : ", " + ratioText(fPart.dataSize(), fStored))) +
               field("dictionary", dictionary()) +
               field("heading", "at " + grouped(row0Pos()) + ", " + orderName(fPart.swapped()) + "-endian" + found()) +
               field("index", "at " + grouped(heading._indexPos) + ", " + counted(heading._size, "byte") +
                                  ", for blocks of " + grouped(fPart.blockSize())) +
               field("file", sized(fPart.fileSize()) + fileRatio());
    }

    std::string fileRatio() const {
        return fPart.dataSize() == 0 ? "" : ", " + ratioText(fPart.dataSize(), fPart.fileSize()) + " in all";
    }

    std::string dictionary() const {
        std::string text = counted(row0Pos(), "byte");
        if (!fLocated.dictionary) return text;
        text += ", made by orva pack";
        if (!fLocated.dictionary->source.empty()) text += " from " + shownName(fLocated.dictionary->source);
        if (fLocated.dictionary->size) text += " of " + counted(*fLocated.dictionary->size, "byte");
        return text;
    }

    std::string found() const { return fLocated.how == locatedPart::bySearch ? ", found by looking for it" : ""; }

    void writeBlocks(output& out) const {
        std::string text = "\n     block            offset       size       file offset     stored     ratio\n";
        for (std::uint32_t i = 0; i < fPart.blockCount() && out.open(); ++i) {
            const filePosRecord& block = fPart.block(i);
            char line[160];
            std::snprintf(line, sizeof line, "%10u %17lld %10d %17lld %10d %9s\n", i,
                          static_cast<long long>(block.orginalPos - row0Pos()), block.orginalSize,
                          static_cast<long long>(block.translatePos), block.translateSize,
                          ratioText(block.orginalSize, block.translateSize).c_str());
            text += line;
            if (text.size() < kFlushAt) continue;
            out.write(text);
            text.clear();
        }
        out.write(text);
    }

    nlohmann::ordered_json report() const {
        const char* const ways[] = {"option", "dictionary", "search"};
        nlohmann::ordered_json json = {
            {"schema", kJsonSchema},
            {"file", fOptions.part.file},
            {"fileSize", fPart.fileSize()},
            {"row0", row0Pos()},
            {"foundBy", ways[fLocated.how]},
            {"byteOrder", orderName(fPart.swapped())},
            {"swapped", fPart.swapped()},
            {"dataSize", fPart.dataSize()},
            {"storedSize", fStored},
            {"blocks", fPart.blockCount()},
            {"blockSize", fPart.blockSize()},
            {"index", {{"offset", fPart.heading()._indexPos}, {"size", fPart.heading()._size}}}};
        if (fOptions.blocks) json["blockList"] = blockList();
        return json;
    }

    nlohmann::ordered_json blockList() const {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (std::uint32_t i = 0; i < fPart.blockCount(); ++i) {
            list.push_back(blockJson(i, fPart.block(i), row0Pos()));
        }
        return list;
    }

    const infoOptions& fOptions;
    const locatedPart fLocated;
    const orva::finishedPart fPart;
    std::int64_t fStored = 0;
};

}  // namespace

verb addInfo(CLI::App& app) {
    auto options = std::make_shared<infoOptions>();
    CLI::App* command = app.add_subcommand("info", "Tell what a file holds");
    options->part.addTo(*command, options->files);
    command->add_flag("--blocks", options->blocks, "List every block");
    command->add_flag("--json", options->json, "Write it as JSON");
    return [options] {
        return forEachFile("info", options->files, [&](const std::string& file) {
            options->part.file = file;
            return infoRun(*options).run();
        });
    };
}
