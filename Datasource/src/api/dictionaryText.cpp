
#include <orva/dictionaryText.h>

#include <charconv>

namespace orva {

namespace {

constexpr std::size_t kRow0Width = 10;
constexpr std::string_view kFirstLine = "orva dictionary 1 row0=";

std::optional<std::int64_t> number(std::string_view digits) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size() || value < 0) return {};
    return value;
}

// The rest of the line that begins with `key`; never the first line.
std::string_view lineOf(std::string_view text, const std::string& key) {
    const auto at = text.find('\n' + key);
    if (at == std::string_view::npos) return {};
    const auto from = at + 1 + key.size();
    return text.substr(from, text.find('\n', from) - from);
}

}  // namespace

std::string makeDictionaryText(const std::string& source, std::optional<std::int64_t> size) {
    const std::string digits = std::to_string(kDictionaryTextSize);
    std::string text = std::string(kFirstLine) + std::string(kRow0Width - digits.size(), '0') + digits + '\n';
    if (!source.empty()) text += "source=" + source + '\n';
    if (size) text += "size=" + std::to_string(*size) + '\n';
    text.resize(kDictionaryTextSize - 1, ' ');
    return text + '\n';
}

std::optional<dictionaryText> parseDictionaryText(std::string_view bytes) {
    const std::string_view text = bytes.substr(0, kDictionaryTextSize);
    if (!text.starts_with(kFirstLine)) return {};
    const auto row0Pos = number(text.substr(kFirstLine.size(), kRow0Width));
    if (!row0Pos || *row0Pos == 0) return {};
    return dictionaryText{*row0Pos, std::string(lineOf(text, "source=")), number(lineOf(text, "size="))};
}

}  // namespace orva
