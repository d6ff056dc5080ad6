#include "text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iterator>

namespace {

template <class... Values>
std::string formatted(const char* format, Values... values) {
    char text[64];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

struct character {
    char32_t code;
    std::size_t size;  // 0: not UTF-8
};

character characterAt(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) return {first, 1};
    const std::size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc0 || first > 0xf4 || text.size() < size) return {0, 0};
    char32_t code = first & (0x7fU >> size);
    for (const char c : text.substr(1, size - 1)) {
        if ((static_cast<unsigned char>(c) & 0xc0U) != 0x80) return {0, 0};
        code = code << 6 | (static_cast<unsigned char>(c) & 0x3fU);
    }
    constexpr char32_t shortest[] = {0x80, 0x800, 0x10000};
    const bool valid = code >= shortest[size - 2] && code <= 0x10ffff && (code < 0xd800 || code > 0xdfff);
    return {code, valid ? size : 0};
}

// Control characters (C0 and C1), line separators, and marks, embeddings, overrides and isolates of direction.
bool needsEscape(char32_t code) {
    constexpr char32_t ranges[][2] = {{0, 0x1f},        {0x7f, 0x9f},     {0x61c, 0x61c},
                                      {0x200e, 0x200f}, {0x2028, 0x202e}, {0x2066, 0x2069}};
    return std::any_of(std::begin(ranges), std::end(ranges),
                       [&](const auto& range) { return code >= range[0] && code <= range[1]; });
}

}  // namespace

std::optional<std::int64_t> parseNumber(std::string_view digits) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size() || value < 0) return {};
    return value;
}

std::string grouped(std::int64_t number) {
    std::string text = std::to_string(number);
    const std::size_t first = number < 0 ? 1 : 0;
    for (std::size_t at = text.size(); at > first + 3;) text.insert(at -= 3, 1, ',');
    return text;
}

std::string humanSize(std::int64_t bytes) {
    constexpr const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto size = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; size >= 1023.95; ++unit) size /= 1024;  // what would be printed as 1024.0
    return formatted(unit == 0 ? "%.0f %s" : "%.1f %s", size, units[unit]);
}

std::string ratioText(std::int64_t before, std::int64_t after) {
    return after == 0 ? "-" : formatted("%.2f:1", static_cast<double>(before) / static_cast<double>(after));
}

std::string counted(std::int64_t number, const std::string& what) {
    return grouped(number) + ' ' + what + (number == 1 ? "" : "s");
}

std::string lostText(const orva::Range& rows) {
    return "bytes " + std::to_string(rows.offset) + " to " + std::to_string(rows.offset + rows.length) +
           " of the rows are lost";
}

std::string printable(const std::string& text) {
    std::string escaped;
    for (std::size_t at = 0; at < text.size();) {
        const character next = characterAt(std::string_view(text).substr(at));
        if (next.size == 0) {
            escaped += formatted("\\x%02x", static_cast<unsigned char>(text[at]));
        } else if (needsEscape(next.code)) {
            escaped += formatted(next.code < 0x80 ? "\\x%02x" : "\\u%04x", static_cast<unsigned>(next.code));
        } else {
            escaped += text.substr(at, next.size);
        }
        at += std::max<std::size_t>(next.size, 1);
    }
    return escaped;
}
