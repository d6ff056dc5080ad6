// Shared by the tests of the face: finished files, sources, and the error that a call throws.
#pragma once

#include "support/tempDir.h"

#include <typeinfo>

namespace support {

using orva::i64;
constexpr std::size_t kBlock = kBlockSize;

// The name of the class that `call` throws, with the errno of a SystemError and the block that is damaged; empty if it
// throws nothing.
inline std::string thrownBy(auto call) {
    try {
        call();
        return "";
    } catch (const orva::SystemError& e) {
        return "SystemError " + std::string(strerrorname_np(e.code().value()));
    } catch (const std::exception& e) {
        // Mangled names look like N4orva10UsageErrorE or St12domain_error.
        const std::string name = std::regex_replace(typeid(e).name(), std::regex(".*[0-9]|E$"), "");
        const auto* damage = dynamic_cast<const orva::DamagedFileError*>(&e);
        if (damage == nullptr || !damage->block() || !damage->offset()) return name;
        return name + " of block " + std::to_string(*damage->block()) + " at " + std::to_string(*damage->offset());
    }
}

// A source of bytes in memory that counts its reads. From offset `fails` on it throws, and from `ends` on it has none.
// A negative `fails` is its size.
struct source final : orva::ByteSource {
    explicit source(Bytes from, i64 failsAt = INT64_MAX, i64 endsAt = INT64_MAX)
        : bytes(std::move(from)), fails(failsAt), ends(endsAt) {}
    i64 size() const override { return fails < 0 ? fails : std::ssize(bytes); }
    std::size_t read_at(i64 offset, orva::Bytes to) const override {
        ++reads;
        if (offset >= fails) throw std::domain_error("mine");
        const Bytes found = slice(bytes, offset, to.size());
        std::ranges::copy(spanOf(found), to.begin());
        return offset >= ends ? 0 : found.size();
    }
    const Bytes bytes;
    const i64 fails, ends;
    mutable std::atomic<int> reads{0};
};

using Names = std::set<std::string>;
using Dictionary = std::vector<std::byte>;

struct FaceTest : TempDir {
    // Makes a finished file of the rows and returns its name.
    std::string written(const std::string& name, const auto& rows, const orva::WriterOptions& options = {}) const {
        writeAll(orva::Writer(path(name), options), rows);
        return path(name);
    }
    Bytes rowsOf(const std::string& name) const { return allRows(orva::Reader(path(name))); }
    // The names in the directory.
    Names names() const {
        Names found;
        for (const auto& entry : std::filesystem::directory_iterator(fDirectory)) found.insert(entry.path().filename());
        return found;
    }
};

}  // namespace support
