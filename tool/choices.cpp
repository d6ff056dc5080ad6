#include "choices.h"

#include <CLI/CLI.hpp>

#include <map>
#include <string>

void choiceOptions::addBlockTo(CLI::App& command) {
    command
        .add_option("--block", block,
                    "Bytes of rows in a block, 65,536 to 4,190,208, also as 256K; 1M by default. Shorter blocks make "
                    "reading a few rows faster and the file larger")
        ->option_text("LEN")
        ->transform(
            CLI::AsNumberWithUnit(std::map<std::string, std::int64_t>{{"k", 1 << 10}, {"m", 1 << 20}}).description(""))
        ->check(CLI::Range(std::int64_t{kShortestBlockLength}, std::int64_t{kBlockSize}));
}

void choiceOptions::addLevelTo(CLI::App& command) {
    command
        .add_option("--level", level,
                    "Level of compression: 1, the default, is the fastest, " +
                        std::to_string(zcmpsFilestr::bestCompressionLevel()) + " the smallest")
        ->option_text("N")
        ->check(CLI::Range(std::int32_t{1}, zcmpsFilestr::bestCompressionLevel()));
}
