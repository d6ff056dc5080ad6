#include "output.h"

#include "failure.h"
#include "system.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

// The usual capacity of a pipe. Of a larger piece nobody could tell how much went out before the reader left.
constexpr std::size_t kLargestWrite = 1U << 16;

bool isDeviceOrPipe(const std::string& name) {
    std::error_code none;
    const fs::file_status status = fs::status(name, none);
    return fs::exists(status) && !fs::is_regular_file(status) && !fs::is_directory(status);
}

int openToWrite(const std::string& name) {
    return platform::openShared(name.c_str(), platform::_O_WRONLY, platform::_SH_DENYWR, 0);
}

}  // namespace

void outputOptions::addTo(CLI::App& app) {
    app.add_flag("-f,--force", force, "Replace an existing output");
    app.add_flag("--no-sync", noSync, "Let the system decide when the output reaches the disk");
}

void requireFileName(const std::string& out) {
    if (out == "-")
        usageError("a finished file cannot go to standard output, because its heading is written last: use -o FILE");
}

void requireOtherFile(const std::string& out, std::span<const std::string> inputs) {
    for (const std::string& name : inputs) {
        if (out == "-" || name == "-" || !platform::sameFile(name.c_str(), out.c_str())) continue;
        usageError("\"" + printable(name) + "\" is both input and output: name another output with -o");
    }
}

output::output() : output("-", {}, {}) {}

output::output(const std::string& name, const outputOptions& options, const orva::Path& input) : fName(name) {
    if (name == "-") {
        fName = "standard output";
        fDescriptor = STDOUT_FILENO;
    } else if (isDeviceOrPipe(name)) {
        fDescriptor = openToWrite(name);
    } else {
        fPending = std::make_unique<orva::pendingFile>(name, options.force, orva::commonPermissions({&input, 1}));
        bDurable = !options.noSync;
        fDescriptor = openToWrite(fPending->temporaryName());
    }
    if (fDescriptor < 0) throwWriteFailed(fName);
}

output::~output() {
    if (fDescriptor > STDOUT_FILENO) platform::_close(fDescriptor);
}

void output::write(const void* bytes, std::size_t size) {
    const auto* from = static_cast<const char*>(bytes);
    while (size > 0 && !bReaderGone) {
        const auto piece = static_cast<unsigned int>(std::min(size, kLargestWrite));
        if (writeWaiting(fDescriptor, from, piece) < 0) {
            if (errno != EPIPE) throwWriteFailed(fName);
            bReaderGone = true;
        } else {
            fWritten += piece;
        }
        from += piece;
        size -= piece;
    }
}

// Some systems report only at a close that bytes were lost. Standard output is flushed instead, since its close would
// end a lock that the parent process has on it. If it got nothing, it may be closed already.
void output::finish() {
    const bool isStandard = fDescriptor == STDOUT_FILENO;
    if (isStandard && fWritten == 0) return;
    if ((isStandard ? platform::flush(fDescriptor) : platform::_close(fDescriptor)) != 0) throwWriteFailed(fName);
    fDescriptor = -1;
    if (!fPending) return;
    if (bDurable) fPending->sync();
    fPending->commit(bDurable);
}
