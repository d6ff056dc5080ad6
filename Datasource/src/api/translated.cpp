#include "api/translated.h"

#include "base/fileError.h"

#include <orva/errors.h>
#include <orva/errtext.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <stdexcept>
#include <thread>

namespace orva {

namespace {

std::string without(std::string text, const std::string& part) {
    if (const auto at = text.find(part); !part.empty() && at != std::string::npos) text.erase(at, part.size());
    return text;
}

constexpr const char* kFewerThreads =
    "; a thread could not be started: ask for fewer of them, or raise the limits on processes and memory";

std::string quoted(const std::string& name) {
    return '"' + name + '"';
}

// Under the name that the caller knows.
std::string renamed(std::string text, const Path& path, const std::string& workName) {
    if (workName.empty() || workName == path.string()) return text;
    const std::string name = quoted(path.string());
    for (std::size_t at = 0; (at = text.find(quoted(workName), at)) != std::string::npos; at += name.size()) {
        text.replace(at, quoted(workName).size(), name);
    }
    return text;
}

// Under the name that the caller knows, without the number that a catalog is searched by.
std::string textOf(const FileError& failure, const Path& path, const std::string& workName) {
    const std::string number = " (" + failure.catalog() + ' ' + std::to_string(failure.messageCode()) + ')';
    return renamed(without(failure.what(), number), path, workName);
}

std::string textOf(const std::system_error& failure, const Path& path) {
    return "cannot go on with " + quoted(path.string()) + ": " + failure.code().message();
}

std::string recoverAdvice(const Path& path) {
    return path.empty() ? "" : "; 'orva recover " + shellWord(path.string()) + " -o OUT' gets the rows that are sound";
}

std::string textOf(const ::DamagedFileError& damage, const Path& path, const std::string& workName) {
    const bool isSideFile = damage.fileName() != path.string() && damage.fileName() != workName;
    return renamed(damage.what(), path, workName) + (isSideFile ? "" : recoverAdvice(path));
}

}  // namespace

std::string withoutAdvice(const DamagedFileError& damage) {
    const std::string text = damage.what();
    return text.substr(0, text.rfind(recoverAdvice(damage.path())));
}

bool goesWithout(int error) {
    return error == ENOENT || error == ENOTDIR || error == EACCES || error == EPERM;
}

void require(bool fulfilled, const Path& path, const char* what) {
    if (fulfilled) return;
    throw UsageError((path.empty() ? "" : quoted(path.string()) + ": ") + what, path);
}

std::uint32_t threadsAtWork(int threads, const Path& path) {
    constexpr unsigned int most = 256;  // each holds two blocks of memory
    require(threads >= 0, path, "a number of threads is 0, for one a core, or more");
    const unsigned int wanted = threads != 0 ? static_cast<unsigned int>(threads) : std::thread::hardware_concurrency();
    return std::clamp(wanted, 1U, most);
}

void rethrowTranslated(const Path& path, const std::string& workName, std::optional<i64> offset) {
    try {
        throw;
    } catch (const callersFailure& failure) {
        std::rethrow_exception(failure.cause);
    } catch (const Error&) {
        throw;
    } catch (const FileError& failure) {
        throw SystemError(failure.code(), textOf(failure, path, workName), path, failure.messageCode() == kWriteFailed);
    } catch (const ::FileChangedError& change) {
        throw FileChangedError(renamed(change.what(), path, workName), path, offset, change.place().block);
    } catch (const ::DamagedFileError& damage) {
        throw DamagedFileError(textOf(damage, path, workName), path, offset, damage.place().block);
    } catch (const std::system_error& failure) {  // of a thread that could not be started, or of a name
        const bool thread = failure.code() == std::errc::resource_unavailable_try_again;
        throw SystemError(failure.code(), textOf(failure, path) + (thread ? kFewerThreads : ""), path);
    } catch (const std::logic_error& breach) {
        throw UsageError(breach.what(), path);
    }
}

}  // namespace orva
