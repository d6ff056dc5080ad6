#include <orva/errors.h>

struct DamagedFileError::Details {
    std::string file;
    std::string check;
    std::string detail;
    Place place;
};

DamagedFileError::DamagedFileError(const std::string& file, const std::string& check, const std::string& detail,
                                   const Place& place)
    : std::runtime_error("\"" + file + "\" is damaged: " + detail + " [" + check + "]"),
      fDetails(std::make_shared<const Details>(Details{file, check, detail, place})) {}

DamagedFileError::DamagedFileError(const DamagedFileError& damage, const std::string& text)
    : std::runtime_error(text), fDetails(damage.fDetails) {}

DamagedFileError::~DamagedFileError() = default;

const std::string& DamagedFileError::fileName() const noexcept {
    return fDetails->file;
}
const std::string& DamagedFileError::check() const noexcept {
    return fDetails->check;
}
const std::string& DamagedFileError::detail() const noexcept {
    return fDetails->detail;
}
const DamagedFileError::Place& DamagedFileError::place() const noexcept {
    return fDetails->place;
}

FileChangedError::FileChangedError(const DamagedFileError& damage)
    : DamagedFileError(damage, "\"" + damage.fileName() + "\" has changed since it was opened; open it again: " +
                                   damage.detail() + " [" + damage.check() + "]") {}

FileChangedError::~FileChangedError() = default;

SystemFileException::SystemFileException(std::int32_t code, const char* expression, const char* fileName,
                                         std::int32_t line, bool flag)
    : fFileName(fileName), fExpression(expression), fCode(code), fLine(line), fFlag(flag) {}

FileReopenError::FileReopenError(int error, const std::string& name, const SystemFileException& told)
    : SystemFileException(told),
      std::system_error(error, std::generic_category(), "cannot open \"" + name + "\" again"),
      fName(name) {}

FileReopenError::~FileReopenError() = default;
