#include <orva/error.h>

namespace orva {

struct Error::Details {
    Path path;
    std::optional<i64> offset;
    std::optional<i64> block;
};

Error::Error(const std::string& text, const Path& path, std::optional<i64> offset, std::optional<i64> block)
    : std::runtime_error(text), fDetails(std::make_shared<const Details>(Details{path, offset, block})) {}

Error::~Error() = default;

const Path& Error::path() const noexcept {
    return fDetails->path;
}
std::optional<i64> Error::offset() const noexcept {
    return fDetails->offset;
}
std::optional<i64> Error::block() const noexcept {
    return fDetails->block;
}

SystemError::SystemError(std::error_code code, const std::string& text, const Path& path, bool writing)
    : Error(text, path), fCode(code), bWriting(writing) {}

SystemError::~SystemError() = default;
DamagedFileError::~DamagedFileError() = default;
UnfinishedFileError::~UnfinishedFileError() = default;
FileChangedError::~FileChangedError() = default;
UsageError::~UsageError() = default;

}  // namespace orva
