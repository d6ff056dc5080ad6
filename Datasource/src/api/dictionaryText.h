// The dictionary part that stands in front of rows whose writer has given none: text that says where the rows begin, so
// that such files need no flags.
//
//   orva dictionary 1 row0=0000000512      the position in fixed width
//   source=NAME                            where one named file was packed; its base name
//   size=BYTES                             and its size, where it was known
//   (blanks, up to a last line feed)
#pragma once

#include <orva/orvaApi.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orva {

// As many bytes tell whether a file begins with one, and what it says.
inline constexpr std::size_t kDictionaryTextSize = 512;

struct dictionaryText {
    std::int64_t row0Pos = 0;
    std::string source;  // empty where not known
    std::optional<std::int64_t> size;
};

ORVA_API std::string makeDictionaryText(const std::string& source = {}, std::optional<std::int64_t> size = {});

// What the first bytes of a file say, if they are such a text.
ORVA_API std::optional<dictionaryText> parseDictionaryText(std::string_view bytes);

}  // namespace orva
