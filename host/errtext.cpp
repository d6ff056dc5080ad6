#include "libcrypto.h"

#include <orva/errtext.h>

#include <cerrno>

namespace {

constexpr long kWritingFailed = 1002;
constexpr long kReadingFailed = 1003;

const char* orEmpty(const char* text) {
    return text != nullptr ? text : "";
}

const char* verbOf(long messageCode) {
    if (messageCode == kWritingFailed) return "cannot write";
    if (messageCode == kReadingFailed) return "cannot read";
    return "cannot use";
}

struct Advice {
    int error;
    const char* text;
};

// Only where the errno alone tells what helps. A wrong hint costs more than none.
constexpr Advice kAdvice[] = {
    {ENOSPC, "free some space and try again"},
    {EDQUOT, "the quota of this user is used up: free some space and try again"},
    {EFBIG, "raise the limit on file sizes, or choose a file system that takes larger files"},
    {EACCES, "check the permissions of the file and of its directory"},
    {EPERM, "check whose the file and its directory are, and their attributes (lsattr)"},
    {EROFS, "choose a place that can be written to"},
    {EMFILE, "close other files, or raise the limit on open files"},
    {ENFILE, "close other files, or raise the limit on open files"},
    {EWOULDBLOCK, "another writer has the file open: wait until it is done"},
    {EBUSY, "it is a mount point, or in use: name another file"},
    {ENOTSUP, "its file system cannot do this: use another one, and copy the file there"},
    {EISDIR, "name a file, not a directory"},
    {ENOENT, "check the name"},
    {EIO, "the storage reports an error: check the device before writing to it again"},
    {ELIBACC, "the cipher needs " ORVA_LIBCRYPTO " of OpenSSL: install it where programs find their libraries"},
    {ESTALE, "the file was replaced on its server: open it again"},
};

const char* adviceFor(int error) {
    for (const Advice& advice : kAdvice)
        if (advice.error == error) return advice.text;
    return nullptr;
}

std::string describe(const std::error_code& code, const std::string& catalog, long messageCode,
                     const std::string& fileName) {
    std::string text = std::string(verbOf(messageCode)) + " \"" + fileName + "\": ";
    text += code ? code.message() : "unknown error";
    text += " (" + catalog + ' ' + std::to_string(messageCode) + ')';
    if (const char* advice = adviceFor(code.value())) text += std::string("; ") + advice;
    return text;
}

}  // namespace

struct FileError::Details {
    std::string catalog;
    long messageCode;
    std::string fileName;
    std::string text;
};

FileError::FileError(int error, const char* catalog, long messageCode, const char* fileName)
    : std::system_error(error, std::generic_category()) {
    Details details{orEmpty(catalog), messageCode, orEmpty(fileName), {}};
    details.text = describe(code(), details.catalog, messageCode, details.fileName);
    fDetails = std::make_shared<const Details>(std::move(details));
}

FileError::~FileError() = default;

const std::string& FileError::catalog() const noexcept {
    return fDetails->catalog;
}
long FileError::messageCode() const noexcept {
    return fDetails->messageCode;
}
const std::string& FileError::fileName() const noexcept {
    return fDetails->fileName;
}
const char* FileError::what() const noexcept {
    return fDetails->text.c_str();
}

FileError FileError::withOutcome(const std::string& outcome) const {
    FileError copy(*this);
    Details details = *fDetails;
    details.text += "; " + outcome;
    copy.fDetails = std::make_shared<const Details>(std::move(details));
    return copy;
}

void ThrowError::StringSys(const char* catalog, long code, const char* text) {
    const int error = errno;
    throw FileError(error, catalog, code, text);
}
