#include "range.h"

#include "failure.h"
#include "text.h"

#include <optional>

namespace {

struct pair {
    std::int64_t first;
    std::optional<std::int64_t> second;
};

pair parsePair(const std::string& text, const std::string& form) {
    const std::string_view whole = text;
    const auto colon = whole.find(':');
    if (colon != std::string_view::npos) {
        const auto first = parseNumber(whole.substr(0, colon));
        const auto second = parseNumber(whole.substr(colon + 1));
        if (first && (second || colon + 1 == whole.size())) return {*first, second};
    }
    usageError(form + " (numbers from 0), got \"" + printable(text) + '"');
}

// The N in "-N" followed by `ending`.
std::optional<std::int64_t> parseLast(std::string_view text, std::string_view ending) {
    if (!text.starts_with('-') || !text.ends_with(ending)) return {};
    return parseNumber(text.substr(1, text.size() - 1 - ending.size()));
}

}  // namespace

orva::Range parseRange(const std::string& text, const std::string& file, std::int64_t dataSize) {
    if (const auto last = parseLast(text, "")) {
        if (*last <= dataSize) return {dataSize - *last, *last};
        throw toolFailure(kOtherFailure, file,
                          "range " + text + " is longer than the rows (" + counted(dataSize, "byte") + ")");
    }
    const pair given = parsePair(text, "--range: expected OFF:LEN, OFF: or -N");
    const std::int64_t rest = dataSize - given.first;
    if (rest < 0 || given.second.value_or(0) > rest) {
        throw toolFailure(kOtherFailure, file,
                          "range " + text + " ends past the end of the rows (" + counted(dataSize, "byte") + ")");
    }
    return {given.first, given.second.value_or(rest)};
}

orva::Range parseRecords(const std::string& text, std::int64_t recordSize, const std::string& file,
                         std::int64_t dataSize) {
    const std::int64_t count = dataSize / recordSize;
    const auto last = parseLast(text, ":");
    const pair given = last ? pair{count - *last, count} : parsePair(text, "--records: expected A:B, A: or -N:");
    const std::int64_t end = given.second.value_or(count);
    if (given.first < 0 || given.first > count || end > count) {
        throw toolFailure(kOtherFailure, file,
                          "records " + text + " do not all exist: the file has " + counted(count, "record") + " of " +
                              counted(recordSize, "byte") + " (" + counted(dataSize, "byte") + ")");
    }
    if (end < given.first) usageError("--records: " + text + " ends before it begins");
    return {given.first * recordSize, (end - given.first) * recordSize};
}
