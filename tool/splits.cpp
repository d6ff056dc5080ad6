// splits: lists ranges of rows for engines that read a file in parallel. Each begins with a block, so that no block is
// inflated for two of them; with --record-size or --delimiter with the first record from there on, so that none is cut.
#include "blockRows.h"
#include "failure.h"
#include "json.h"
#include "output.h"
#include "part.h"
#include "values.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

namespace {

// Parses a byte: itself, or \n, \r, \t, \0, \\ or \xHH, which a shell leaves alone.
std::optional<char> parseByte(const std::string& text) {
    if (text.size() == 1) return text[0];
    if (text.size() < 2 || text[0] != '\\') return {};
    if (text.size() == 2) {
        constexpr std::string_view names = "nrt0\\";
        constexpr std::string_view bytes("\n\r\t\0\\", 5);
        const auto at = names.find(text[1]);
        return at == std::string_view::npos ? std::nullopt : std::optional(bytes[at]);
    }
    unsigned char value = 0;
    const auto [end, error] = std::from_chars(text.data() + 2, text.data() + text.size(), value, 16);
    if (text[1] != 'x' || error != std::errc() || end != text.data() + text.size()) return {};
    return static_cast<char>(value);
}

class splitsVerb final : public verb {
public:
    void addOptions(CLI::App& command) override {
        fPart.addTo(command);
        command.add_flag("--json", fJson, "Write JSON instead of lines with offset, tab and length");
        command.add_option("--count", fCount, "At most N ranges; without it one for each block")
            ->option_text("N")
            ->check(atLeastOne());
        CLI::Option* recordSize =
            command.add_option("--record-size", fRecordSize, "Bytes of one record; no range cuts a record");
        recordSize->option_text("N")->check(atLeastOne());
        command
            .add_option("--delimiter", fDelimiter,
                        "The byte that ends each record, such as '\\n'; no range cuts a record")
            ->option_text("C")
            ->check([](const std::string& text) {
                return parseByte(text) ? "" : "expected one byte, such as x, \\n or \\x1e";
            })
            ->excludes(recordSize);
    }

    int run() override {
        const openedPart file = openFile("splits", fPart);
        const std::vector<orva::Range> list = splits(file);
        output out;
        out.write(fJson ? jsonText(report(list, file.info.size)) : lines(list));
        out.finish();
        return kAllWell;
    }

private:
    // Where the first record from `offset` on begins; the end of the rows if there is none.
    std::int64_t border(blockRows& rows, std::int64_t offset) const {
        const std::int64_t end = rows.file().info.size;
        if (const auto delimiter = parseByte(fDelimiter)) return afterDelimiter(rows, *delimiter, offset, end);
        const std::int64_t into = offset % fRecordSize;
        return into == 0 ? offset : offset + std::min(fRecordSize - into, end - offset);
    }

    static std::int64_t afterDelimiter(blockRows& rows, char delimiter, std::int64_t offset, std::int64_t end) {
        while (offset < end) {
            const std::string_view text = rows.from(offset);
            const auto at = text.find(delimiter);
            if (at != std::string_view::npos) return offset + static_cast<std::int64_t>(at) + 1;
            offset += static_cast<std::int64_t>(text.size());
        }
        return offset;
    }

    std::vector<orva::Range> splits(const openedPart& file) const {
        blockRows rows(file);
        std::vector<orva::Range> list;
        std::int64_t begin = 0;
        for (const orva::Range& blocks : file.reader.splits(static_cast<int>(std::min(fCount, kMost)))) {
            const std::int64_t next = blocks.offset + blocks.length;
            if (next <= begin) continue;  // no record begins there
            const std::int64_t end = border(rows, next);
            list.push_back({begin, end - begin});
            begin = end;
        }
        return list;
    }

    static std::string lines(const std::vector<orva::Range>& list) {
        std::string text;
        for (const orva::Range& range : list) {
            text += std::to_string(range.offset) + '\t' + std::to_string(range.length) + '\n';
        }
        return text;
    }

    nlohmann::ordered_json report(const std::vector<orva::Range>& list, std::int64_t dataSize) const {
        nlohmann::ordered_json json = {{"schema", kJsonSchema}, {"file", fPart.file}, {"dataSize", dataSize}};
        if (fRecordSize != 1) json["recordSize"] = fRecordSize;
        json["splits"] = nlohmann::ordered_json::array();
        for (const orva::Range& range : list)
            json["splits"].push_back({{"offset", range.offset}, {"size", range.length}});
        return json;
    }

    static constexpr std::int64_t kMost = std::numeric_limits<int>::max();

    partOptions fPart;
    std::int64_t fCount = kMost;  // one for each block
    std::int64_t fRecordSize = 1;
    std::string fDelimiter;
    bool fJson = false;
};

}  // namespace

std::unique_ptr<verb> makeSplits() {
    return std::make_unique<splitsVerb>();
}
