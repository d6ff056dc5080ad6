#include "dictionary.h"

#include "input.h"
#include "text.h"

#include <algorithm>
#include <filesystem>

namespace {

constexpr std::size_t kLongestSource = 300;

}  // namespace

std::string makeDictionary(const std::string& source, std::optional<std::int64_t> size) {
    return orva::makeDictionaryText(
        shownName(std::filesystem::path(source).filename().string()).substr(0, kLongestSource), size);
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

std::optional<orva::dictionaryText> readDictionary(ORVA_File& file) {
    char bytes[orva::kDictionaryTextSize] = {};
    return orva::parseDictionaryText({bytes, file.Read(bytes, sizeof bytes, 0)});
}
