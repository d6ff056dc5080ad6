#include "appendState.h"

#include "system.h"

#include <orva/orva.h>

#include <filesystem>

namespace fs = std::filesystem;

std::string appendState(const std::string& file) {
    if (hasWriter(file)) return "an append, or another writer, is at work on it: try again when that has ended";
    const std::string side = orva::sideFileName(file);
    std::error_code none;
    if (!fs::exists(fs::symlink_status(side, none))) return {};
    return "an append to it was interrupted, which has left \"" + side + "\": 'orva recover --roll-back " + file +
           "' ends it without a loss";
}
