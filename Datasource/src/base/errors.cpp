#include <orva/errors.h>

DamagedFileError::DamagedFileError(const std::string& file, const std::string& check, const std::string& detail)
    : std::runtime_error("\"" + file + "\" is damaged: " + detail + " [" + check + "]") {}

DamagedFileError::~DamagedFileError() = default;

SystemFileException::SystemFileException(std::int32_t code, const char* expression, const char* fileName,
                                         std::int32_t line, bool flag)
    : fFileName(fileName), fExpression(expression), fCode(code), fLine(line), fFlag(flag) {}
