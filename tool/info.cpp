// info: says what a file holds, for people and for programs.
#include "failure.h"
#include "json.h"
#include "output.h"
#include "part.h"
#include "text.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

constexpr std::size_t kFlushAt = 1 << 16;

const char* byteOrderName(bool swapped) {
    const bool little = (std::endian::native == std::endian::little) != swapped;
    return little ? "little" : "big";
}

class infoVerb final : public verb {
public:
    void addOptions(CLI::App& command) override {
        fPart.addTo(command, fFiles);
        command.add_flag("--blocks", fBlocks, "List every block");
        command.add_flag("--json", fJson, "Write it as JSON");
    }

    int run() override {
        return forEachFile("info", fPart, fFiles, [this] {
            fInfo = openFile(fPart).info;
            tell();
        });
    }

private:
    void tell() const {
        output out;
        if (fJson) {
            out.write(jsonText(report(), fFiles.size()));
        } else {
            out.write(summary());
            if (fBlocks) writeBlocks(out);
        }
        out.finish();
    }

    static std::string field(const char* name, const std::string& value) {
        char head[24];
        std::snprintf(head, sizeof head, "  %-12s", name);
        return head + value + '\n';
    }

    static std::string sized(std::int64_t bytes) {
        return counted(bytes, "byte") + (bytes < 1024 ? "" : " (" + humanSize(bytes) + ")");
    }

    std::string summary() const {
        return printable(fPart.file) + '\n' + field("rows", sized(fInfo.size)) +
               field("stored", sized(fInfo.stored) + " in " + counted(std::ssize(fInfo.blocks), "block") +
                                   (fInfo.stored == 0 ? "" : longest() + ratioText(fInfo.size, fInfo.stored))) +
               field("dictionary", dictionary()) +
               field("heading",
                     "at " + grouped(fInfo.row0) + ", " + byteOrderName(fInfo.swapped) + "-endian" + found()) +
               field("index", "at " + grouped(fInfo.index.offset) + ", " + counted(fInfo.index.length, "byte")) +
               field("file", sized(fInfo.file_size) + fileRatio());
    }

    // The index states the same block size in all files, whatever length their writer chose.
    std::string longest() const {
        const auto length = [](const orva::Block& block) { return block.rows.length; };
        return " of up to " + counted(std::ranges::max(fInfo.blocks, {}, length).rows.length, "byte") + ", ";
    }

    std::string fileRatio() const {
        return fInfo.size == 0 ? "" : ", " + ratioText(fInfo.size, fInfo.file_size) + " in all";
    }

    std::string dictionary() const {
        std::string text = counted(fInfo.row0, "byte");
        if (!fInfo.text) return text;
        text += ", made by orva";
        if (!fInfo.text->source.empty()) text += " from " + printable(fInfo.text->source);
        if (fInfo.text->size) text += " of " + counted(*fInfo.text->size, "byte");
        return text;
    }

    std::string found() const { return fInfo.found_by == orva::FileInfo::FoundBy::search ? ", found by a search" : ""; }

    void writeBlocks(output& out) const {
        std::string text = "\n     block            offset       size       file offset     stored     ratio\n";
        long long number = 0;
        for (const auto& [rows, place, stored] : fInfo.blocks) {
            char line[160];
            std::snprintf(line, sizeof line, "%10lld %17lld %10lld %17lld %10lld %9s\n", number++,
                          static_cast<long long>(rows.offset), static_cast<long long>(rows.length),
                          static_cast<long long>(place), static_cast<long long>(stored),
                          ratioText(rows.length, stored).c_str());
            text += line;
            if (!out.open()) return;
            if (text.size() < kFlushAt) continue;
            out.write(text);
            text.clear();
        }
        out.write(text);
    }

    nlohmann::ordered_json report() const {
        const char* const ways[] = {"option", "dictionary", "search"};
        nlohmann::ordered_json json = {{"schema", kJsonSchema},
                                       {"file", fPart.file},
                                       {"fileSize", fInfo.file_size},
                                       {"row0", fInfo.row0},
                                       {"foundBy", ways[static_cast<std::size_t>(fInfo.found_by)]},
                                       {"byteOrder", byteOrderName(fInfo.swapped)},
                                       {"swapped", fInfo.swapped},
                                       {"dataSize", fInfo.size},
                                       {"storedSize", fInfo.stored},
                                       {"blocks", fInfo.blocks.size()},
                                       {"blockSize", fInfo.block_size},
                                       {"index", {{"offset", fInfo.index.offset}, {"size", fInfo.index.length}}}};
        if (fBlocks) json["blockList"] = blockList();
        return json;
    }

    nlohmann::ordered_json blockList() const {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const orva::Block& block : fInfo.blocks) list.push_back(blockJson(std::ssize(list), block));
        return list;
    }

    partOptions fPart;
    std::vector<std::string> fFiles;
    bool fBlocks = false;
    bool fJson = false;
    orva::FileInfo fInfo;
};

}  // namespace

std::unique_ptr<verb> makeInfo() {
    return std::make_unique<infoVerb>();
}
