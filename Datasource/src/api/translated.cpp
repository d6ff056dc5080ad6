#include "api/translated.h"

#include "base/fileError.h"
#include "worker/preIOThread.h"

#include <orva/errors.h>
#include <orva/errtext.h>
#include <orva/platform.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <stdexcept>

namespace orva {

namespace {

constexpr const char* kFewerThreads =
    "; a thread could not be started: use fewer threads, or raise the limits on processes and memory";

std::string foundIn(const ::DamagedFileError& damage) {
    return damage.detail() + " [" + damage.check() + ']';
}

std::string recoverAdvice(const Path& path) {
    return path.empty() ? "" : "run 'orva recover " + shellWord(path.string()) + " -o OUT' to save the undamaged rows";
}

}  // namespace

std::string withName(const std::string& file, const Path& path, const std::string& reason,
                     const std::string& workName) {
    return file == path.string() || file == workName ? reason : '"' + file + "\": " + reason;
}

std::string reasonOf(const ::DamagedFileError& damage) {
    return "damaged: " + foundIn(damage);
}

bool isAbsentOrForbidden(int error) {
    return error == ENOENT || error == ENOTDIR || error == EACCES || error == EPERM;
}

void require(bool fulfilled, const Path& path, const char* what) {
    if (fulfilled) return;
    throw UsageError(what, path);
}

std::uint32_t threadsAtWork(int threads, const Path& path) {
    require(threads >= 0, path, "the number of threads must be 0 (one per core) or more");
    const unsigned int wanted = threads != 0 ? static_cast<unsigned int>(threads) : platform::coreCount();
    return std::clamp(wanted, 1U, kMostThreads);
}

void rethrowTranslated(const Path& path, const std::string& workName, std::optional<i64> offset) {
    try {
        throw;
    } catch (const callbackFailure& failure) {
        std::rethrow_exception(failure.cause);
    } catch (const Error&) {
        throw;
    } catch (const FileError& failure) {
        throw SystemError(failure.code(), withName(failure.fileName(), path, failure.reason(), workName), path,
                          failure.messageCode() == kWriteFailed);
    } catch (const ::FileChangedError& change) {
        const std::string reason = "has changed since it was opened; open it again: " + foundIn(change);
        throw FileChangedError(withName(change.fileName(), path, reason, workName), path, offset, change.place().block);
    } catch (const ::DamagedFileError& damage) {
        const std::string reason = reasonOf(damage);
        const std::string whole = withName(damage.fileName(), path, reason, workName);
        throw DamagedFileError(whole, path, offset, damage.place().block, whole == reason ? recoverAdvice(path) : "");
    } catch (const std::system_error& failure) {  // from starting a thread, or from a file name
        const bool thread = failure.code() == std::errc::resource_unavailable_try_again ||
                            failure.code() == std::errc::operation_not_permitted;  // by a filter of system calls
        throw SystemError(failure.code(),
                          "cannot continue: " + failure.code().message() + (thread ? kFewerThreads : ""), path);
    } catch (const std::logic_error& breach) {
        throw UsageError(breach.what(), path);
    }
}

}  // namespace orva
