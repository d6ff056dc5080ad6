#include "base/fileError.h"

#include <orva/outputName.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <random>

namespace fs = std::filesystem;

namespace orva {

std::string outputTarget(const std::string& name) {
    constexpr int mostLinks = 40;
    fs::path target = name;
    std::error_code none;
    for (int links = 0; fs::is_symlink(fs::symlink_status(target, none)); ++links) {
        if (links == mostLinks) throwFileError(ELOOP, kWriteFailed, name);
        target = target.parent_path() / fs::read_symlink(target, none);
    }
    return target.string();
}

std::string hiddenNameBeside(const std::string& target) {
    constexpr std::size_t longest = 200;
    const fs::path path = target;
    std::random_device random;
    char mark[16];
    std::snprintf(mark, sizeof mark, "%08x", random());
    const std::string base = path.filename().string().substr(0, longest);
    return (path.parent_path() / ('.' + base + '.' + mark + ".tmp")).string();
}

}  // namespace orva
