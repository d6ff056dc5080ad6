// What an operation threw, as a text that can be compared.
#pragma once

#include <orva/errors.h>
#include <orva/errtext.h>

#include <string>

namespace support {

inline std::string fileError(long code, int error, const std::string& name) {
    return "FileError " + std::to_string(code) + " errno " + std::to_string(error) + " " + name;
}

// "" when `body` came to its end, else what left it. A DamagedFileError tells its whole message.
template <class Body>
std::string failureOf(Body body) {
    try {
        body();
        return {};
    } catch (const FileError& error) {
        return fileError(error.messageCode(), error.code().value(), error.fileName());
    } catch (const DamagedFileError& error) {
        return std::string("DamagedFileError ") + error.what();
    } catch (const FileReopenError& error) {
        return "SystemFileException " + std::to_string(error.fCode) + " " + error.fExpression +
               (error.fFlag ? "" : " without its flag") + " errno " + std::to_string(error.code().value()) + " " +
               error.fileName();
    } catch (const SystemFileException& error) {
        return "SystemFileException " + std::to_string(error.fCode) + " " + error.fExpression;
    } catch (const std::exception& error) {
        return std::string("other ") + error.what();
    }
}

}  // namespace support
