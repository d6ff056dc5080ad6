#include "failure.h"

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

// The names of options are the flags' ones.
std::string failureText(std::string text, const std::string& file) {
    text = withoutFirst(text, " (" + std::string(kCatalog) + ' ' + std::to_string(kReading) + ')');
    text = withoutFirst(text, " (" + std::string(kCatalog) + ' ' + std::to_string(kWriting) + ')');
    for (const char* const behind : {"\" is ", "\": ", "\" "}) {
        if (text.starts_with('"' + file + behind)) text.erase(0, file.size() + 1 + std::strlen(behind));
    }
    if (const auto at = text.find(" \"" + file + "\": "); at != std::string::npos) text.erase(at, file.size() + 3);
    if (const auto at = text.find(" row0"); at != std::string::npos) text.insert(at + 1, "--");
    return text;
}

namespace {

int reportNoThread(const std::string& verbName, const std::string& subject, const std::string& why) {
    return report(verbName, kOtherFailure, subject,
                  "cannot start a thread: " + why + "; give a smaller -T, or raise the limits on processes and memory");
}

int report(const std::string& verbName, const std::string& subject, const orva::Error& failure) {
    const std::string file = failure.path().string();
    const std::string text = failureText(failure.what(), file);
    if (dynamic_cast<const orva::UsageError*>(&failure) != nullptr) return report(verbName, kUsage, file, text);
    const auto* system = dynamic_cast<const orva::SystemError*>(&failure);
    if (system == nullptr) return report(verbName, kDamaged, file, text);
    if (!system->writing()) {
        if (system->code() != std::errc::resource_unavailable_try_again) {
            return report(verbName, kInputUnreadable, file, text);
        }
        return reportNoThread(verbName, subject, system->code().message());
    }
    const bool taken = system->code() == std::errc::file_exists;
    return report(verbName, kOutputUnwritable, file,
                  taken ? "already exists: use -f to replace it, or -o to name another file" : text);
}

}  // namespace

int reportFailure(const std::string& verbName, const std::string& subject, const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const toolFailure& e) {
        return report(verbName, e.code(), e.file(), e.what());
    } catch (const orva::Error& e) {
        return report(verbName, subject, e);
    } catch (const FileError& e) {
        return report(verbName, codeOf(e), e.fileName(), failureText(e.what(), e.fileName()));
    } catch (const std::bad_alloc& e) {
        const std::string outcome = std::strchr(e.what(), ';') != nullptr ? std::strchr(e.what(), ';') : "";
        return report(verbName, kOtherFailure, subject,
                      "out of memory: end other programs, or raise the limit on memory" + outcome);
    } catch (const std::filesystem::filesystem_error& e) {
        return report(verbName, kOtherFailure, e.path1().string(), e.code().message());
    } catch (const std::system_error& e) {
        return reportNoThread(verbName, subject, e.what());
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
