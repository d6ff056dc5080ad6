#include "choices.h"

#include <CLI/CLI.hpp>

#include <map>
#include <string>

void choiceOptions::addBlockTo(CLI::App& command) {
    command
        .add_option("--block", block,
                    "Rows of one block in bytes, or with K or M behind the number, 1M without it; shorter blocks cost "
                    "ratio and "
                    "make reading at any place faster")
        ->transform(
            CLI::AsNumberWithUnit(std::map<std::string, std::int64_t>{{"k", 1 << 10}, {"m", 1 << 20}}).description(""))
        ->check(CLI::Range(std::int64_t{kShortestBlockLength}, std::int64_t{kBlockSize}));
}

void choiceOptions::addLevelTo(CLI::App& command) {
    command.add_option("--level", level, "1, as without it, compresses fastest; a higher level better and slower")
        ->check(CLI::Range(std::int32_t{1}, zcmpsFilestr::bestCompressionLevel()));
}
