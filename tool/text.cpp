#include "text.h"

#include <charconv>
#include <cstdio>

namespace {

template <class... Values>
std::string formatted(const char* format, Values... values) {
    char text[64];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

}  // namespace

std::optional<std::int64_t> number(std::string_view digits) {
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

std::string humanSize(double bytes) {
    constexpr const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    std::size_t unit = 0;
    while (bytes >= 1023.95 && unit + 1 < std::size(units)) {  // what would be printed as 1024.0
        bytes /= 1024;
        ++unit;
    }
    return formatted(unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
}

std::string ratioText(std::int64_t before, std::int64_t after) {
    return after == 0 ? "-" : formatted("%.2f:1", static_cast<double>(before) / static_cast<double>(after));
}

std::string counted(std::int64_t number, const std::string& what) {
    return grouped(number) + ' ' + what + (number == 1 ? "" : "s");
}

std::string shownName(const std::string& name) {
    std::string text;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        text += byte < 0x20 || byte == 0x7f ? formatted("\\x%02x", static_cast<unsigned>(byte)) : std::string(1, c);
    }
    return text;
}
