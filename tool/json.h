// What the verbs' JSON has in common. Names and meanings of fields change only with the schema's number.
#pragma once

#include <orva/reader.h>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

inline constexpr int kJsonSchema = 1;

// Indented text with a line feed at its end, or one line for each value if there are several files. Bytes of file names
// that are not UTF-8 become replacement characters.
inline std::string jsonText(const nlohmann::ordered_json& value, std::size_t files = 1) {
    return value.dump(files == 1 ? 2 : -1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

// `offset` counts from the first byte of rows.
inline nlohmann::ordered_json blockJson(std::int64_t number, const orva::Block& block) {
    return {{"block", number},
            {"offset", block.rows.offset},
            {"size", block.rows.length},
            {"fileOffset", block.file_offset},
            {"fileSize", block.stored}};
}
