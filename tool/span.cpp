#include "span.h"

#include "failure.h"
#include "text.h"

#include <optional>
#include <utility>

namespace {

struct pair {
    std::int64_t first;
    std::optional<std::int64_t> second;
};

pair parsePair(const std::string& text, const char* form) {
    const std::string_view whole = text;
    const auto colon = whole.find(':');
    if (colon != std::string_view::npos) {
        const auto first = number(whole.substr(0, colon));
        const auto second = number(whole.substr(colon + 1));
        if (first && (second || colon + 1 == whole.size())) return {*first, second};
    }
    usageError("\"" + shownName(text) + "\" is not of the form " + form + ", two numbers from 0");
}

}  // namespace

span parseRange(const std::string& text, const std::string& file, std::int64_t dataSize) {
    const pair given = parsePair(text, "OFF:LEN");
    const std::int64_t rest = dataSize - given.first;
    if (rest < 0 || given.second.value_or(0) > rest) {
        throw toolFailure(kOtherFailure, file,
                          "the range " + text + " ends past the rows, which are " + counted(dataSize, "byte"));
    }
    return {given.first, given.second.value_or(rest)};
}

span parseRecords(const std::string& text, std::int64_t recordSize, const std::string& file, std::int64_t dataSize) {
    const pair given = parsePair(text, "A:B");
    const std::int64_t count = dataSize / recordSize;
    const std::int64_t end = given.second.value_or(count);
    if (given.first > count || end > count) {
        throw toolFailure(kOtherFailure, file,
                          "the records " + text + " end past the rows, which are " + counted(count, "record") + " of " +
                              counted(recordSize, "byte") + " (" + counted(dataSize, "byte") + ")");
    }
    if (end < given.first) usageError("the records " + text + " end before they begin");
    return {given.first * recordSize, (end - given.first) * recordSize};
}
