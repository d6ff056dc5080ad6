// The key is the process's, so every test works in a child of its own, forked before any key is in use.
#include "hostTest.h"

#include <orva/workdir.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using Operation = int (*)(unsigned char**, int*, const unsigned char*, int) noexcept;

Bytes fromHex(const std::string& hex) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

// The result's bytes; empty if the operation failed.
Bytes through(Operation operation, const Bytes& in) {
    unsigned char* out = nullptr;
    int length = 0;
    if (operation(&out, &length, in.data(), static_cast<int>(in.size())) != 1) return {};
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(out) % 64, 0U);
    Bytes result(out, out + length);
    workdir::FreeOutData(out);
    return result;
}

Bytes numbered(std::size_t size, unsigned start) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(start + i * 7 + i / 256);
    return bytes;
}

// NIST SP 800-38A, F.1.5 and F.1.6.
const Bytes kKey = fromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
const Bytes kPlain = fromHex(
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
const Bytes kCipher = fromHex(
    "f3eed1bdb5d2a03c064b5a7e3db181f8591ccb10d410ed26dc5ba74a31362870"
    "b6ed21b99ca6f4f9f153e7b1beafed1d23304b7a39f9f3ff067d8d8f9e24ecc7");
// A block of zeros under a key of zeros.
const Bytes kZerosUnderZeros = fromHex("dc95c078a2408989ad48a21492842087");

TEST(Workdir, EnciphersThePublishedVectors) {
    expectInChild([] {
        ASSERT_EQ(workdir::setKey(kKey.data(), 32), 1);
        EXPECT_EQ(through(workdir::Encrypt, kPlain), kCipher);
        EXPECT_EQ(through(workdir::Decrypt, kCipher), kPlain);
    });
}

TEST(Workdir, AnyRunOfBlocksDeciphersByItselfUnderARandomKey) {
    expectInChild([] {
        const Bytes plain = numbered(16'000, 1);
        const Bytes cipher = through(workdir::Encrypt, plain);
        ASSERT_EQ(cipher.size(), plain.size());
        EXPECT_NE(cipher, plain);
        EXPECT_NE(through(workdir::Encrypt, Bytes(16)), kZerosUnderZeros) << "the key was never drawn";
        const Bytes middle(cipher.begin() + 160, cipher.begin() + 480);
        EXPECT_EQ(through(workdir::Decrypt, middle), Bytes(plain.begin() + 160, plain.begin() + 480));
    });
}

TEST(Workdir, KeyIsFixedOnceUsed) {
    for (const Operation first : {workdir::Encrypt, workdir::Decrypt}) {
        expectInChild([first] {
            EXPECT_EQ(workdir::setKey(kKey.data(), 31), 0);
            EXPECT_EQ(workdir::setKey(nullptr, 32), 0);
            const Bytes other(32, 1);
            EXPECT_EQ(workdir::setKey(other.data(), 32), 1);
            EXPECT_EQ(workdir::setKey(kKey.data(), 32), 1) << "unused, it may be replaced";
            through(first, kPlain);
            EXPECT_EQ(workdir::setKey(other.data(), 32), 0);
            EXPECT_EQ(through(workdir::Encrypt, kPlain), kCipher);
        });
    }
}

TEST(Workdir, RefusedCallsGiveNothingToRelease) {
    expectInChild([] {
        for (const int length : {0, -16, 15, 17}) {
            SCOPED_TRACE(length);
            unsigned char mark = 0;
            for (const Operation operation : {workdir::Encrypt, workdir::Decrypt}) {
                unsigned char* out = &mark;
                int outLength = 5;
                EXPECT_EQ(operation(&out, &outLength, kPlain.data(), length), 0);
                EXPECT_EQ(out, nullptr);
                EXPECT_EQ(outLength, 0);
            }
        }
    });
}

TEST(Workdir, EndGivesNoBytes) {
    unsigned char mark = 0;
    unsigned char* out = &mark;
    int length = 5;
    EXPECT_EQ(workdir::EndEncrypt(&out, &length), 1);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(workdir::FreeOutData(out), 1);
}

TEST(Workdir, ThreadsDoNotDisturbEachOtherFromFirstUseOn) {
    expectInChild([] {
        std::vector<Bytes> back(4);
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < 4; ++i)
            threads.emplace_back([i, &back] {
                for (int round = 0; round < 50; ++round)
                    back[i] = through(workdir::Decrypt, through(workdir::Encrypt, numbered(4096, i)));
            });
        for (std::thread& thread : threads) thread.join();
        for (unsigned i = 0; i < 4; ++i) EXPECT_EQ(back[i], numbered(4096, i)) << "thread " << i;
    });
}

}  // namespace
