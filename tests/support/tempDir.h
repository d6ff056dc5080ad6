// Shared by the tests: a fresh directory, random bytes from a seed that a failure prints, a hook for system calls, and
// bodies run in a forked child.
#pragma once

#include "support/bytes.h"

#include <orva/platformFaults.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <regex>

// Defined in a coverage build.
extern "C" void __gcov_dump() __attribute__((weak));

namespace support {

// With these a test takes ten times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

using platform::faults::Call;
using platform::faults::Step;
using platform::faults::Verdict;

// While one exists, a failure in its scope prints the seed.
struct RandomBytes : SeededBytes, testing::ScopedTrace {
    explicit RandomBytes(std::uint64_t seed)
        : SeededBytes(seed), ScopedTrace(__FILE__, __LINE__, "seed " + std::to_string(seed)) {}
};

// Compares without printing megabytes: the first difference is enough.
inline testing::AssertionResult sameBytes(const Bytes& found, const Bytes& expected) {
    if (found == expected) return testing::AssertionSuccess();
    const auto at = std::mismatch(found.begin(), found.end(), expected.begin(), expected.end()).first;
    return testing::AssertionFailure() << "first difference at " << at - found.begin() << " of " << found.size();
}

// A broken promise fails the test.
inline void require(bool held, const char* promise) {
    EXPECT_TRUE(held) << promise;
}

inline std::string fileError(long code, int error, const std::string& name) {
    return "FileError " + std::to_string(code) + " errno " + std::to_string(error) + " " + name;
}

// "" if `body` returned, else a description of what it threw. A DamagedFileError gives its whole message.
inline std::string failureOf(auto body) {
    try {
        body();
        return {};
    } catch (const FileError& error) {
        return fileError(error.messageCode(), error.code().value(), error.fileName());
    } catch (const DamagedFileError& error) {
        return std::string("DamagedFileError ") + error.what();
    } catch (const FileReopenError& error) {
        return "SystemFileException " + std::to_string(error.fCode) + " " + error.fExpression +
               (error.fFlag ? "" : " without its flag") + " errno " + std::to_string(error.code().value()) + " " +
               error.fileName();
    } catch (const std::exception& error) {
        return std::string("other ") + error.what();
    }
}

// A number from the environment, for longer runs.
inline std::uint64_t numberFrom(const char* variable, std::uint64_t otherwise) {
    const char* value = std::getenv(variable);
    return value != nullptr ? std::strtoull(value, nullptr, 10) : otherwise;
}

// Asked before each raw call while it exists: decides by one function, or else by the last fail(). Counts the calls.
// Where the function only watches, or does something meanwhile, the calls go on.
struct CallHook : platform::faults::Hook {
    using Ask = std::function<Verdict(const Step& step, std::uint64_t number)>;
    explicit CallHook(Ask ask = nullptr) : fAsk(std::move(ask)) {}
    explicit CallHook(std::invocable<const Step&> auto watch)
        : fAsk([watch](const Step& step, std::uint64_t) mutable { return watch(step), Verdict::goOn(); }) {}
    // The next such call moves `part` bytes and the one after it fails; without `part` it fails itself. An error of 0
    // cancels that.
    void fail(Call call, int error, std::uint64_t part = 0) { fPart = part, errorOf(call) = error; }
    Verdict before(const Step& step) override {
        const std::uint64_t number = ++count;
        if (fAsk) return fAsk(step, number);
        if (errorOf(step.call) == 0) return Verdict::goOn();
        const std::uint64_t part = fPart.exchange(0);
        return part != 0 ? Verdict::atMost(part) : Verdict::fail(errorOf(step.call).exchange(0));
    }
    std::atomic<std::uint64_t> count{0};

private:
    std::atomic<int>& errorOf(Call call) { return fErrors[static_cast<std::size_t>(call)]; }

    const Ask fAsk;
    std::atomic<int> fErrors[16]{};
    std::atomic<std::uint64_t> fPart{0};
    const platform::faults::Installed fInstalled{*this};
};

// Runs `body` in a forked child, where it must return without a failed expectation. The alarm ends one that hangs.
inline void expectInChild(auto body) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        body();
        std::fflush(nullptr);
        if (__gcov_dump != nullptr) __gcov_dump();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_TRUE(waitpid(child, &status, 0) == child && status == 0) << "wait status of the child: " << status;
}

// A directory for one test, removed with it; in memory if there is room, since tests sync thousands of times. A child
// of a death test begins the test anew, since threads may be running, and makes its own directory within this one.
struct TempDir : testing::Test {
    TempDir() {
        std::error_code none;
        const std::uintmax_t room = std::filesystem::space("/dev/shm", none).available;
        const bool inMemory = !none && room > (std::uintmax_t{1} << 29);
        const char* parents = std::getenv(kParents);
        const std::filesystem::path home = inMemory ? "/dev/shm" : std::filesystem::temp_directory_path();
        std::string pattern = ((parents != nullptr ? parents : home) / "orvaXXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make " + pattern);
        fDirectory = pattern;
        setenv(kParents, pattern.c_str(), 1);
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
    ~TempDir() override {
        unsetenv(kParents);
        std::filesystem::remove_all(fDirectory);
    }

    std::string path(const std::string& name) const { return (fDirectory / name).string(); }
    // Makes a file of these bytes and returns its name.
    std::string made(const std::string& name, const Bytes& bytes) const {
        writeBytes(path(name), bytes);
        return path(name);
    }

    std::filesystem::path fDirectory;

private:
    static constexpr const char* kParents = "ORVA_TEST_DIRECTORY";
};

}  // namespace support
