#include "failure.h"

#include "appendState.h"
#include "signals.h"
#include "text.h"

#include <orva/orva.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <utility>

namespace {

constexpr const char* kCatalog = "datasrc.err";
constexpr long kWriting = 1002;
constexpr long kReading = 1003;

std::string withoutFirst(std::string text, const std::string& part) {
    if (const auto at = text.find(part); at != std::string::npos) text.erase(at, part.size());
    return text;
}

// "orva" + ": part" for each part that there is.
void printLine(std::initializer_list<std::string> parts) {
    std::string line = "orva";
    for (const std::string& part : parts) {
        if (!part.empty()) line += ": " + part;
    }
    std::fprintf(stderr, "%s\n", shownName(line).c_str());
}

int report(const std::string& verbName, exitCode code, const std::string& file, const std::string& text) {
    printLine({verbName, file, text});
    return code;
}

// Readers, too, meet an append half-way.
int reportDamage(const std::string& verbName, const std::string& file, const std::string& text) {
    const std::string append = appendState(file);
    return report(verbName, kDamaged, file, append.empty() ? text : text + "; " + append);
}

exitCode codeOf(const FileError& failure) {
    return failure.messageCode() == kReading ? kInputUnreadable : kOutputUnwritable;
}

}  // namespace

toolFailure::toolFailure(exitCode code, std::string file, const std::string& text)
    : std::runtime_error(text), fCode(code), fFile(std::move(file)) {}

void usageError(const std::string& text) {
    throw toolFailure(kUsage, {}, text);
}

void throwReadFailed(const std::string& file) {
    ThrowError::StringSys(kCatalog, kReading, file.c_str());
}
void throwWriteFailed(const std::string& file) {
    ThrowError::StringSys(kCatalog, kWriting, file.c_str());
}

FileError asFileError(const std::system_error& failure, const std::string& file) {
    return {failure.code().value(), kCatalog, kWriting, file.c_str()};
}

std::string failureText(const std::exception& failure, const std::string& file) {
    std::string text = failure.what();
    text = withoutFirst(text, " (" + std::string(kCatalog) + ' ' + std::to_string(kReading) + ')');
    text = withoutFirst(text, " (" + std::string(kCatalog) + ' ' + std::to_string(kWriting) + ')');
    text = withoutFirst(text, "\"" + file + "\" is ");  // damaged
    return withoutFirst(text, " \"" + file + '"');
}

int reportFailure(const std::string& verbName, const std::string& subject, const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const toolFailure& e) {
        if (e.code() == kDamaged) return reportDamage(verbName, e.file(), e.what());
        return report(verbName, e.code(), e.file(), e.what());
    } catch (const FileError& e) {
        return report(verbName, codeOf(e), e.fileName(), failureText(e, e.fileName()));
    } catch (const DamagedFileError& e) {
        return reportDamage(verbName, e.fileName(), failureText(e, e.fileName()));
    } catch (const FileReopenError& e) {
        return reportFailure(verbName, subject, std::make_exception_ptr(asFileError(e, e.fileName())));
    } catch (const std::bad_alloc& e) {
        const std::string outcome = std::strchr(e.what(), ';') != nullptr ? std::strchr(e.what(), ';') : "";
        return report(verbName, kOtherFailure, subject,
                      "out of memory: end other programs, or raise the limit on memory" + outcome);
    } catch (const std::filesystem::filesystem_error& e) {
        return report(verbName, kOtherFailure, e.path1().string(), e.code().message());
    } catch (const std::system_error& e) {
        return report(verbName, kOtherFailure, subject,
                      std::string("cannot start a thread: ") + e.what() +
                          "; give a smaller -T, or raise the limits on processes and memory");
    } catch (const std::exception& e) {
        return report(verbName, kOtherFailure, subject, e.what());
    } catch (const endedBySignal& e) {
        report(verbName, kOtherFailure, subject, "ended by a signal; the file holds the rows that it held before");
        endBy(e.signal);
    }
}

void note(const std::string& verbName, const std::string& file, const std::string& text) {
    printLine({verbName, file, text});
}
