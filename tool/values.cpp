#include "values.h"

#include "text.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <limits>

namespace {

std::string refuseEmpty(const std::string& value) {
    return value.empty() ? "must not be empty" : "";
}

std::string refuseNoNumber(const std::string& value) {
    const std::string digits = value.starts_with('-') ? value.substr(1) : value;
    return parseNumber(digits) ? "" : "expected a number from 0 to 9,223,372,036,854,775,807, got \"" + value + '"';
}

}  // namespace

void checkValues(CLI::App& command) {
    for (CLI::Option* option : command.get_options()) {
        const bool isNumber = option->get_type_name().starts_with("INT");
        option->check(isNumber ? refuseNoNumber : refuseEmpty, "");
    }
}

CLI::Validator atLeastOne() {
    return CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max());
}
