#include "benchData.h"

#include "paired.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <system_error>

namespace bench {

namespace {

constexpr std::size_t kVariables = 40;

double answer(std::mt19937_64& engine, std::size_t variable, std::uint64_t row) {
    if (variable == 0) return static_cast<double>(row);                                 // case number
    if (variable == 1) return 18 + static_cast<double>(engine() % 70);                  // age
    if (variable == 2) return static_cast<double>(5'000 + engine() % 10'000) / 10'000;  // weight
    if (engine() % 12 == 0) return -DBL_MAX;                                            // no answer
    const std::uint64_t categories = 2 + variable % 6;
    return 1 + static_cast<double>(std::min(engine() % categories, engine() % categories));  // low codes are common
}

std::uint64_t turn(std::uint64_t turns) {
    std::uint64_t value = turns;
    for (std::uint64_t i = 0; i < turns; ++i) value = value * 6'364'136'223'846'793'005U + 1'442'695'040'888'963'407U;
    return value;
}

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

Bytes surveyRows(std::size_t size) {
    std::mt19937_64 engine(20'240'117);
    Bytes rows(size);
    std::size_t at = 0;
    for (std::uint64_t value = 0; at + sizeof(double) <= size; ++value, at += sizeof(double)) {
        const double cell = answer(engine, value % kVariables, value / kVariables);
        std::memcpy(rows.data() + at, &cell, sizeof cell);
    }
    return rows;
}

Bytes measuredRows(std::size_t size) {
    constexpr std::uint64_t kSignals = 8;
    std::mt19937_64 engine(1'013);
    std::normal_distribution<double> noise(0, 0.4);
    Bytes rows(size);
    std::size_t at = 0;
    for (std::uint64_t value = 0; at + sizeof(double) <= size; ++value, at += sizeof(double)) {
        const auto time = static_cast<double>(value / kSignals);
        const auto signal = static_cast<double>(1 + value % kSignals);
        const double level = 20 * signal + 5 * std::sin(time / (500 * signal)) + noise(engine);
        const double shown = std::round(level * 100) / 100;
        std::memcpy(rows.data() + at, &shown, sizeof shown);
    }
    return rows;
}

Bytes textRows(std::size_t size) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator("/usr/share/common-licenses")) {
        if (entry.is_regular_file()) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    Bytes text;
    for (const auto& file : files) {
        std::ifstream stream(file, std::ios::binary);
        text.insert(text.end(), std::istreambuf_iterator<char>(stream), {});
    }
    require(text.size() > 100'000, "no text to compress under /usr/share/common-licenses");
    // Far longer than deflate's window, so a repetition is as good as new text.
    Bytes rows(size);
    for (std::size_t at = 0; at < size; at += text.size()) {
        std::memcpy(rows.data() + at, text.data(), std::min(text.size(), size - at));
    }
    return rows;
}

Bytes noise(std::size_t size) {
    std::mt19937_64 engine(7);
    Bytes bytes(size);
    for (std::size_t at = 0; at < size; at += sizeof(std::uint64_t)) {
        const std::uint64_t word = engine();
        std::memcpy(bytes.data() + at, &word, std::min(sizeof word, size - at));
    }
    return bytes;
}

Scratch::Scratch(const std::string& parent) : fDirectory(parent + "/orva-bench-XXXXXX") {
    if (mkdtemp(fDirectory.data()) == nullptr) fail("cannot make a directory for the files of the bench");
}

Scratch::~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(fDirectory, ignored);
}

std::string Scratch::made(const std::string& name, const Bytes& bytes) const {
    BareFile(path(name), O_WRONLY | O_CREAT | O_TRUNC).write(bytes.data(), bytes.size());
    return path(name);
}

BareFile::BareFile(const std::string& name, int flags) : fDescriptor(::open(name.c_str(), flags | O_CLOEXEC, 0644)) {
    if (fDescriptor < 0) fail("open");
}

void BareFile::read(void* to, std::size_t size) const {
    if (::read(fDescriptor, to, size) != static_cast<ssize_t>(size)) fail("read");
}

void BareFile::write(const void* from, std::size_t size) const {
    if (::write(fDescriptor, from, size) != static_cast<ssize_t>(size)) fail("write");
}

void BareFile::seek(std::int64_t offset) const {
    if (::lseek(fDescriptor, offset, SEEK_SET) != offset) fail("lseek");
}

void BareFile::forgetPages() const {
    if (::fdatasync(fDescriptor) != 0) fail("fdatasync");
    if (::posix_fadvise(fDescriptor, 0, 0, POSIX_FADV_DONTNEED) != 0) fail("posix_fadvise");
}

void BareFile::close() {
    if (fDescriptor >= 0) ::close(fDescriptor);
    fDescriptor = -1;
}

void require(bool good, const char* what) {
    if (!good) throw std::runtime_error(what);
}

BusyWork::BusyWork(double seconds) {
    constexpr std::uint64_t kTrial = 10'000'000;
    std::array<double, 5> trials{};
    for (double& trial : trials) trial = threadSeconds([] { benchmark::DoNotOptimize(turn(kTrial)); });
    fTurns = static_cast<std::uint64_t>(seconds / *std::min_element(trials.begin(), trials.end()) * kTrial);
}

void BusyWork::operator()() const {
    benchmark::DoNotOptimize(turn(fTurns));
}

}  // namespace bench
