// The dictionary part that orva writes before the rows if the caller gives none: text that says where the rows begin,
// so that such files need no flags.
//
//   orva dictionary 1 row0=0000000512      ten digits
//   source=NAME                            base name of the file, if one named file was packed
//   size=BYTES                             its size, if known
//   (blanks, then a line feed)
#pragma once

#include <orva/orvaApi.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orva {

// Length of the text, and how much of a file parseDictionaryText looks at.
inline constexpr std::size_t kDictionaryTextSize = 512;

struct dictionaryText {
    std::int64_t row0Pos = 0;
    std::string source;  // empty if unknown
    std::optional<std::int64_t> size;
};

ORVA_API std::string makeDictionaryText(const std::string& source = {}, std::optional<std::int64_t> size = {});

// What the first bytes of a file say; empty if they are not such a text.
ORVA_API std::optional<dictionaryText> parseDictionaryText(std::string_view bytes);

}  // namespace orva
