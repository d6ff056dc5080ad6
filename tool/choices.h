// Options of a writer on the command line: --level N, and --block LEN for a new file.
#pragma once

#include <orva/orva.h>

#include <cstdint>

namespace CLI {
class App;
}

struct choiceOptions {
    std::int64_t block = kHandyBlockLength;
    std::int32_t level = 1;

    void addBlockTo(CLI::App& command);
    void addLevelTo(CLI::App& command);
};
