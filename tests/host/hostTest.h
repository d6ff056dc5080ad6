// What the tests of host/ share: a directory of their own, files made past the library, and bodies run in a child.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

// Both compilers' ways to tell the sanitizers.
#ifndef __has_feature
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
#define ORVA_THREAD_SANITIZER 1
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
#define ORVA_ADDRESS_SANITIZER 1
#endif

#ifdef ORVA_THREAD_SANITIZER
#define SKIP_UNDER_THREAD_SANITIZER(reason) GTEST_SKIP() << (reason)
#else
#define SKIP_UNDER_THREAD_SANITIZER(reason) static_cast<void>(0)
#endif

class FreshDirectory : public testing::Test {
protected:
    FreshDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "orvaHostXXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::filesystem::filesystem_error("mkdtemp", pattern, {});
        fDirectory = pattern;
    }
    ~FreshDirectory() override { std::filesystem::remove_all(fDirectory); }

    std::string path(const std::string& name) const { return (fDirectory / name).string(); }

    std::string made(const std::string& name, const std::string& content) const {
        std::ofstream(path(name), std::ios::binary) << content;
        return path(name);
    }

    static std::string contentOf(const std::string& file) {
        std::ifstream stream(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    std::filesystem::path fDirectory;
};

// Runs `body` in a forked child, which has to come to its end there without a failed expectation. One that hangs is
// ended by the alarm.
template <class Body>
void expectInChild(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        body();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "wait status of the child";
}
