#include "failure.h"

#include "signals.h"
#include "text.h"

#include <orva/orva.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

namespace {

// Throws with the library's own text for the current errno.
[[noreturn]] void throwFailed(const std::string& file, bool writing) {
    const FileError failure(errno, "orva", writing ? 1002 : 1003, file.c_str());
    throw orva::SystemError(failure.code(), failure.reason(), file, writing);
}

// "orva" + ": part" for each part that is not empty.
void printLine(std::initializer_list<std::string> parts) {
    std::string line = "orva";
    for (const std::string& part : parts) {
        if (!part.empty()) line += ": " + part;
    }
    std::fprintf(stderr, "%s\n", printable(line).c_str());
}

}  // namespace

toolFailure::toolFailure(exitCode code, std::string file, const std::string& text)
    : std::runtime_error(text), fCode(code), fFile(std::move(file)) {}

void usageError(const std::string& text) {
    throw toolFailure(kUsage, {}, text);
}

void throwReadFailed(const std::string& file) {
    throwFailed(file, false);
}
void throwWriteFailed(const std::string& file) {
    throwFailed(file, true);
}

std::string reasonOf(const orva::Error& error) {
    std::string text = error.reason();
    for (const std::string to : {"check ", "specify "}) {
        if (const auto at = text.rfind(to + "row0"); at != std::string::npos) text.insert(at + to.size(), "--");
    }
    return text;
}

int reportFailure(const std::string& verbName, const std::string& subject, const std::exception_ptr& failure) {
    const auto report = [&](exitCode code, const std::string& file, const std::string& text) {
        printLine({verbName, file, text});
        return code;
    };
    const auto reportFile = [&](exitCode code, const orva::Error& e) {
        return report(code, e.path().string(), reasonOf(e) + (e.advice().empty() ? "" : "; " + e.advice()));
    };
    try {
        std::rethrow_exception(failure);
    } catch (const toolFailure& e) {
        return report(e.code(), e.file(), e.what());
    } catch (const orva::UsageError& e) {
        return reportFile(kUsage, e);
    } catch (const orva::SystemError& e) {
        if (e.writing() && e.code() == std::errc::file_exists) {
            return report(kOutputUnwritable, e.path().string(),
                          "already exists: use -f to replace it, or -o to name another file");
        }
        if (e.writing() || e.code() != std::errc::resource_unavailable_try_again) {
            return reportFile(e.writing() ? kOutputUnwritable : kInputUnreadable, e);
        }
        return report(kOtherFailure, subject,
                      "cannot start a thread: " + e.code().message() +
                          "; use fewer threads (-T), or raise the limits on processes and memory");
    } catch (const orva::Error& e) {
        return reportFile(kDamaged, e);
    } catch (const std::bad_alloc& e) {
        const std::string outcome = std::strchr(e.what(), ';') != nullptr ? std::strchr(e.what(), ';') : "";
        return report(kOtherFailure, subject,
                      "out of memory: close other programs, or raise the memory limit" + outcome);
    } catch (const std::exception& e) {
        return report(kOtherFailure, subject, e.what());
    } catch (const endedBySignal& e) {
        report(kOtherFailure, subject, "interrupted by a signal; the file holds the same rows as before");
        endBy(e.signal);
    }
}

void note(const std::string& verbName, const std::string& file, const std::string& text) {
    printLine({verbName, file, text});
}
