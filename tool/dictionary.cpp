#include "dictionary.h"

#include "input.h"
#include "text.h"

#include <algorithm>
#include <filesystem>

namespace {

constexpr std::size_t kSize = 512;
constexpr std::size_t kLongestSource = 300;
constexpr std::size_t kRow0Width = 10;
const std::string kFirstLine = "orva dictionary 1 row0=";

// The rest of the line that begins with `key`, behind the first line.
std::string lineOf(const std::string& text, const std::string& key) {
    const auto at = text.find('\n' + key);
    if (at == std::string::npos) return {};
    const auto from = at + 1 + key.size();
    return text.substr(from, text.find('\n', from) - from);
}

}  // namespace

std::string makeDictionary(const std::string& source, std::optional<std::int64_t> size) {
    const std::string digits = std::to_string(kSize);
    std::string text = kFirstLine + std::string(kRow0Width - digits.size(), '0') + digits + '\n';
    if (!source.empty()) {
        text +=
            "source=" + shownName(std::filesystem::path(source).filename().string()).substr(0, kLongestSource) + '\n';
    }
    if (size) text += "size=" + std::to_string(*size) + '\n';
    text.resize(kSize - 1, ' ');
    return text + '\n';
}

std::string joinedDictionary(const std::string& file, std::int64_t row0Pos) {
    std::string text(static_cast<std::size_t>(row0Pos), ' ');
    const std::size_t size = input(file).read(text.data(), static_cast<std::uint32_t>(row0Pos));
    for (const std::string key : {"\nsource=", "\nsize="}) {
        const auto from = text.find(key);
        if (from == std::string::npos) continue;
        text.erase(from, std::min(text.find('\n', from + 1), text.size() - 1) - from);
    }
    text.resize(size - 1, ' ');
    return text + '\n';
}

std::optional<dictionaryText> readDictionary(ORVA_File& file) {
    std::string text(kSize, '\0');
    text.resize(file.Read(text.data(), kSize, 0));
    if (!text.starts_with(kFirstLine)) return {};
    const auto row0Pos = number(text.substr(kFirstLine.size(), kRow0Width));
    if (!row0Pos || *row0Pos == 0) return {};
    return dictionaryText{*row0Pos, lineOf(text, "source="), number(lineOf(text, "size="))};
}
