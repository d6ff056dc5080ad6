// The key is the process's, so every test works in a child of its own, forked before any key is in use.
#include "support/tempDir.h"

#include <orva/errtext.h>
#include <orva/workdir.h>

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <numeric>
#include <thread>

namespace {

using namespace support;
using Operation = int (*)(unsigned char**, int*, const unsigned char*, int) noexcept;

// The result's bytes; empty if the operation failed, which leaves nothing to release.
Bytes through(Operation operation, const Bytes& in) {
    unsigned char mark = 0;
    unsigned char* out = &mark;
    int length = 5;
    const int good = operation(&out, &length, in.data(), static_cast<int>(in.size()));
    EXPECT_EQ(good, out != nullptr ? 1 : 0);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(out) % 64, 0U);
    Bytes result(out, out + length);
    EXPECT_EQ(workdir::FreeOutData(out), 1);
    return result;
}

// The example vector of FIPS 197, C.3: the key 00 01 .. 1f, the block 00 11 .. ff; twice, since blocks are independent.
const Bytes kBlock{0x8e, 0xa2, 0xb7, 0xca, 0x51, 0x67, 0x45, 0xbf, 0xea, 0xfc, 0x49, 0x90, 0x4b, 0x49, 0x60, 0x89};
// A block of zeros under a key of zeros.
const Bytes kZeros{0xdc, 0x95, 0xc0, 0x78, 0xa2, 0x40, 0x89, 0x89, 0xad, 0x48, 0xa2, 0x14, 0x92, 0x84, 0x20, 0x87};

TEST(Workdir, GivesThePublishedVectorsUnderAKeyThatIsFixedOnceUsed) {
    for (const Operation first : {workdir::Encrypt, workdir::Decrypt}) {
        expectInChild([first] {
            const Bytes other(32, 1);
            Bytes key(32), plain(32), cipher(kBlock);
            cipher.insert(cipher.end(), kBlock.begin(), kBlock.end());
            std::iota(key.begin(), key.end(), 0);
            for (std::size_t i = 0; i < 32; ++i) plain[i] = static_cast<unsigned char>(i % 16 * 0x11);
            EXPECT_EQ(workdir::setKey(key.data(), 31), 0);
            EXPECT_EQ(workdir::setKey(nullptr, 32), 0);
            EXPECT_EQ(workdir::setKey(other.data(), 32), 1);
            EXPECT_EQ(workdir::setKey(key.data(), 32), 1) << "unused, it may be replaced";
            through(first, plain);
            EXPECT_EQ(workdir::setKey(other.data(), 32), 0);
            EXPECT_EQ(through(workdir::Encrypt, plain), cipher);
            EXPECT_EQ(through(workdir::Decrypt, cipher), plain);
            for (const std::size_t length : {0u, 15u, 17u}) EXPECT_EQ(through(first, Bytes(length)), Bytes());
        });
    }
}

TEST(Workdir, ThreadsShareOneRandomKeyFromFirstUseOn) {
    expectInChild([] {
        std::vector<Bytes> ciphers(4);
        std::vector<std::jthread> threads;
        for (Bytes& cipher : ciphers) threads.emplace_back([&] { cipher = through(workdir::Encrypt, Bytes(16)); });
        threads.clear();
        EXPECT_THAT(ciphers, testing::Each(testing::AllOf(ciphers[0], testing::Ne(kZeros))))
            << "the key was never drawn";
        EXPECT_EQ(through(workdir::Decrypt, ciphers[0]), Bytes(16));
    });
}

// The thread is at work on the key when the process forks: the child, which has no such thread, ends all the same.
TEST(Workdir, AForkWhileTheKeyIsMadeLetsTheChildEnd) {
    if (kSanitized) GTEST_SKIP() << "what the lost thread held counts as leaked when the child ends";
    for (int i = 0; i < 60 && !HasFailure(); ++i) {
        expectInChild([i] {
            std::atomic<bool> begun{false};
            std::jthread maker([&] { begun = true, through(workdir::Encrypt, kBlock); });
            while (!begun) std::this_thread::yield();
            const auto moment = std::chrono::steady_clock::now() + i * std::chrono::microseconds(20);
            while (std::chrono::steady_clock::now() < moment) continue;
            expectInChild([] { alarm(3), std::exit(0); });
        });
    }
}

// A process that may open nothing more cannot load it either.
TEST(Workdir, ALibcryptoThatCannotBeLoadedIsNamedAndTriedAgain) {
    for (const Operation first : {workdir::Encrypt, workdir::Decrypt}) {
        expectInChild([first] {
            rlimit limit{};
            getrlimit(RLIMIT_NOFILE, &limit);
            const rlimit none{0, limit.rlim_max};
            setrlimit(RLIMIT_NOFILE, &none);
            EXPECT_EQ(through(first, kBlock), Bytes());
            const int error = errno;
            setrlimit(RLIMIT_NOFILE, &limit);
            EXPECT_THAT(FileError(error, "datasrc.err", 1002, "x").what(), testing::HasSubstr("libcrypto.so."));
            EXPECT_EQ(through(first, kBlock).size(), kBlock.size());
        });
    }
}

}  // namespace
