// The key belongs to the process, so every test works in a child, forked before any key is in use.
#include "support/tempDir.h"

#include <sys/resource.h>

using namespace support;
using Operation = int (*)(unsigned char**, int*, const unsigned char*, int) noexcept;

// The bytes of the result; empty if the operation failed, which leaves nothing to release.
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

// A process that may open nothing more cannot load libcrypto either.
TEST(Workdir, GivesThePublishedVectorsOnceItsLibcryptoIsThereUnderAKeyThatIsFixedOnceUsed) {
    for (const Operation first : {workdir::Encrypt, workdir::Decrypt}) {
        expectInChild([first] {
            const Bytes other(32, 1);
            Bytes key(32), plain(32);
            std::iota(key.begin(), key.end(), 0);
            for (std::size_t i = 0; i < 32; ++i) plain[i] = static_cast<unsigned char>(i % 16 * 0x11);
            EXPECT_EQ(workdir::setKey(key.data(), 31), 0);
            EXPECT_EQ(workdir::setKey(nullptr, 32), 0);
            EXPECT_EQ(workdir::setKey(other.data(), 32), 1);
            EXPECT_EQ(workdir::setKey(key.data(), 32), 1) << "unused, it may be replaced";
            rlimit limit{};
            getrlimit(RLIMIT_NOFILE, &limit);
            const rlimit none{0, limit.rlim_max};
            setrlimit(RLIMIT_NOFILE, &none);
            EXPECT_EQ(through(first, plain), Bytes());
            const int error = errno;
            setrlimit(RLIMIT_NOFILE, &limit);
            EXPECT_THAT(FileError(error, "datasrc.err", 1002, "x").what(), testing::HasSubstr("libcrypto.so."));
            through(first, plain);
            EXPECT_EQ(workdir::setKey(other.data(), 32), 0);
            EXPECT_EQ(through(workdir::Encrypt, plain), kBlock + kBlock);
            EXPECT_EQ(through(workdir::Decrypt, kBlock + kBlock), plain);
            for (const std::size_t length : {0u, 15u, 17u}) EXPECT_EQ(through(first, Bytes(length)), Bytes());
        });
    }
}

// Threads use the key when the process forks: the child, which has no such threads, ends all the same.
TEST(Workdir, ThreadsShareOneRandomKeyAndAForkWhileItIsMadeLetsTheChildEnd) {
    for (int i = 0; i < 60 && !HasFailure(); ++i) {
        expectInChild([i] {
            std::vector<Bytes> ciphers(4);
            std::vector<std::jthread> threads;
            for (Bytes& cipher : ciphers) threads.emplace_back([&] { cipher = through(workdir::Encrypt, Bytes(16)); });
            std::this_thread::sleep_for(i * std::chrono::microseconds(20));
            // Memory of the lost threads counts as leaked then.
            if (!kSanitized) expectInChild([] { alarm(3), std::exit(0); });
            threads.clear();
            EXPECT_THAT(ciphers, testing::Each(testing::AllOf(ciphers[0], testing::Ne(kZeros)))) << "no key was drawn";
            EXPECT_EQ(through(workdir::Decrypt, ciphers[0]), Bytes(16));
        });
    }
}
