#include "pendingFile.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>

namespace fs = std::filesystem;

namespace {

// The name that the handler removes. Written while the flag is 0, read by the handler only while it is 1.
char gTemporary[4096];
volatile std::sig_atomic_t gArmed = 0;

extern "C" void endBySignal(int signal) {
    if (gArmed != 0) platform::removeFile(gTemporary);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

void arm(const std::string& name) {
    if (name.size() >= sizeof gTemporary) return;
    std::memcpy(gTemporary, name.c_str(), name.size() + 1);
    gArmed = 1;
}

void disarm() {
    gArmed = 0;
}

// Replacing a link would leave the file that it names as it was, and put a file where there was a link.
std::string targetOf(const std::string& name) {
    std::error_code unknown;
    if (!fs::is_symlink(fs::symlink_status(name, unknown))) return name;
    const fs::path target = fs::weakly_canonical(name, unknown);
    return unknown ? name : target.string();
}

// A hidden name that no other process has. Cut, so that a long final name does not make it too long for the system.
std::string temporaryFor(const fs::path& target) {
    constexpr std::size_t longest = 200;
    std::random_device random;
    char mark[16];
    std::snprintf(mark, sizeof mark, "%08x", random());
    const std::string base = target.filename().string().substr(0, longest);
    return (target.parent_path() / ('.' + base + '.' + mark + ".tmp")).string();
}

}  // namespace

void outputOptions::addTo(CLI::App& app) {
    app.add_flag("-f,--force", force, "Replace an existing output");
    app.add_flag("--no-sync", noSync, "Leave it to the system when the output reaches the disk");
}

pendingFile::pendingFile(const std::string& name, const outputOptions& options)
    : fName(name), fTarget(targetOf(name)), fOptions(options) {
    refuseIfTaken();
    create();
}

pendingFile::~pendingFile() {
    if (!bCommitted) platform::removeFile(fTemporary.c_str());
    disarm();
}

// Exclusively: in a directory that others can write to, nobody can have put a link there.
void pendingFile::create() {
    std::FILE* file = nullptr;
    do {
        fTemporary = temporaryFor(fTarget);
        arm(fTemporary);
        file = std::fopen(fTemporary.c_str(), "wbx");
    } while (file == nullptr && errno == EEXIST);
    if (file == nullptr) {
        disarm();
        throwWriteFailed(fName);
    }
    std::fclose(file);
    std::error_code none;
    const fs::file_status old = fs::status(fTarget, none);
    if (fs::is_regular_file(old)) fs::permissions(fTemporary, old.permissions(), none);
}

void pendingFile::refuseIfTaken() const {
    std::error_code none;
    const fs::file_status status = fs::status(fTarget, none);
    if (!fs::exists(status)) return;
    if (!fs::is_regular_file(status)) {
        throw toolFailure(kOutputUnwritable, fName, "is not a regular file: name one that can be made or replaced");
    }
    if (!fOptions.force) {
        throw toolFailure(kOutputUnwritable, fName, "already exists: use -f to replace it, or -o to name another file");
    }
}

void pendingFile::sync() const {
    const int descriptor = platform::openShared(fTemporary.c_str(), platform::_O_RDONLY, 0, 0);
    if (descriptor < 0) throwWriteFailed(fName);
    const int result = platform::syncData(descriptor);
    const int error = errno;
    platform::_close(descriptor);
    platform::setErrno(error);
    if (result != 0) throwWriteFailed(fName);
}

void pendingFile::commit() {
    if (!fOptions.noSync) sync();
    refuseIfTaken();  // by somebody else, meanwhile
    if (platform::renameFile(fTemporary.c_str(), fTarget.c_str()) != 0) throwWriteFailed(fName);
    bCommitted = true;
    disarm();
    if (!fOptions.noSync && platform::syncDirectoryOf(fTarget.c_str()) != 0) throwWriteFailed(fName);
}

void pendingFile::throwAsFinal(const FileError& failure) const {
    if (failure.fileName() != fTemporary) throw;
    throw FileError(failure.code().value(), failure.catalog().c_str(), failure.messageCode(), fName.c_str());
}

void handleSignals() {
    for (const int signal : {SIGPIPE, SIGXFSZ}) std::signal(signal, SIG_IGN);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGXCPU}) {
        if (std::signal(signal, endBySignal) == SIG_IGN) std::signal(signal, SIG_IGN);  // as under nohup
    }
}
