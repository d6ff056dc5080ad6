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

// Only for an errno that alone tells what helps: a wrong hint costs more than none.
constexpr Advice kAdvice[] = {
    {ENOSPC, "free some space and try again"},
    {EDQUOT, "the disk quota is used up: free some space and try again"},
    {EFBIG, "raise the limit on file sizes, or use a file system that allows larger files"},
    {EACCES, "check the permissions of the file and of its directory"},
    {EPERM, "check the owners of the file and its directory, and their attributes (lsattr)"},
    {EROFS, "choose a place that is writable"},
    {EMFILE, "close other files, or raise the limit on open files"},
    {ENFILE, "close other files, or raise the limit on open files"},
    {EWOULDBLOCK, "another writer has the file open: wait until it is done"},
    {EBUSY, "it is a mount point, or in use: name another file"},
    {ENOTSUP, "its file system does not support this: copy the file to another one"},
    {EISDIR, "name a file, not a directory"},
    {ENOENT, "check the name"},
    {EIO, "the storage reports an error: check the device before writing to it again"},
    {ELIBACC, "the cipher needs " ORVA_LIBCRYPTO " of OpenSSL: install it where the dynamic linker looks"},
    {ESTALE, "the file was replaced on its server: open it again"},
};

std::string adviceFor(int error) {
    for (const Advice& advice : kAdvice)
        if (advice.error == error) return std::string("; ") + advice.text;
    return {};
}

}  // namespace

struct FileError::Details {
    std::string catalog;
    long messageCode;
    std::string fileName;
    std::string reason;
    std::string text;
};

FileError::FileError(int error, const char* catalog, long messageCode, const char* fileName)
    : std::system_error(error, std::generic_category()) {
    Details details{orEmpty(catalog), messageCode, orEmpty(fileName), {}, {}};
    const std::string verb = verbOf(messageCode);
    const std::string why = error != 0 ? code().message() : "unknown error";
    const std::string advice = adviceFor(error);
    details.reason = verb + ": " + why + advice;
    details.text = verb + " \"" + details.fileName + "\": " + why + " (" + details.catalog + ' ' +
                   std::to_string(messageCode) + ')' + advice;
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
const std::string& FileError::reason() const noexcept {
    return fDetails->reason;
}
const char* FileError::what() const noexcept {
    return fDetails->text.c_str();
}

FileError FileError::withOutcome(const std::string& outcome) const {
    FileError copy(*this);
    Details details = *fDetails;
    for (std::string* text : {&details.reason, &details.text}) *text += "; " + outcome;
    copy.fDetails = std::make_shared<const Details>(std::move(details));
    return copy;
}

void ThrowError::StringSys(const char* catalog, long code, const char* text) {
    const int error = errno;
    throw FileError(error, catalog, code, text);
}
