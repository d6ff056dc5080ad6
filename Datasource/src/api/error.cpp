#include <orva/error.h>

namespace orva {

namespace {

std::string whole(const std::string& reason, const Path& path, const std::string& advice) {
    return (path.empty() ? "" : '"' + path.string() + "\": ") + reason + (advice.empty() ? "" : "; " + advice);
}

}  // namespace

struct Error::Details {
    std::string reason;
    std::string advice;
    Path path;
    std::optional<i64> offset;
    std::optional<i64> block;
};

Error::Error(const std::string& reason, const Path& path, std::optional<i64> offset, std::optional<i64> block,
             const std::string& advice)
    : std::runtime_error(whole(reason, path, advice)),
      fDetails(std::make_shared<const Details>(Details{reason, advice, path, offset, block})) {}

Error::~Error() = default;

const std::string& Error::reason() const noexcept {
    return fDetails->reason;
}
const std::string& Error::advice() const noexcept {
    return fDetails->advice;
}
const Path& Error::path() const noexcept {
    return fDetails->path;
}
std::optional<i64> Error::offset() const noexcept {
    return fDetails->offset;
}
std::optional<i64> Error::block() const noexcept {
    return fDetails->block;
}

SystemError::SystemError(std::error_code code, const std::string& reason, const Path& path, bool writing)
    : Error(reason, path), fCode(code), bWriting(writing) {}

SystemError::~SystemError() = default;
DamagedFileError::~DamagedFileError() = default;
UnfinishedFileError::~UnfinishedFileError() = default;
FileChangedError::~FileChangedError() = default;
UsageError::~UsageError() = default;

}  // namespace orva
