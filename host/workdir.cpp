#include "libcrypto.h"

#include <orva/platform.h>
#include <orva/platformFaults.h>
#include <orva/workdir.h>

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

namespace workdir {
namespace faults = platform::faults;
namespace {

constexpr int kKeySize = 32;
constexpr int kBlockSize = 16;
constexpr std::align_val_t kAlignment{64};  // of results

enum class KeyState { Unset, Chosen, InUse, Gone };

// Once in use, key and library never change until the process ends, and are read without a lock. Before that they
// change only under a noFork, which excludes other threads too: a forked child could find another lock held for ever.
std::atomic<KeyState> gKeyState{KeyState::Unset};
std::array<unsigned char, kKeySize> gKey;
libcrypto gCrypto;

// Erases the key at the end of the process, after all static streams have gone, also in a static link. A thread still
// at work then fails instead of using a key of zeros.
struct KeyEraser {
    ~KeyEraser() {
        const auto guard = platform::noFork();
        gKeyState = KeyState::Gone;
        ::explicit_bzero(gKey.data(), gKey.size());
    }
};
[[gnu::init_priority(101)]] const KeyEraser gKeyEraser;  // constructed first, so destroyed last

bool takeKeyIntoUse() {
    if (gKeyState.load(std::memory_order_acquire) == KeyState::InUse) return true;
    const auto guard = platform::noFork();
    if (gKeyState == KeyState::InUse) return true;
    if (gKeyState == KeyState::Gone || !gCrypto.load()) return false;
    if (gKeyState == KeyState::Unset && ::getentropy(gKey.data(), gKey.size()) != 0) return false;
    gKeyState.store(KeyState::InUse, std::memory_order_release);
    return true;
}

struct ResultDeleter {
    void operator()(unsigned char* data) const { ::operator delete(data, kAlignment); }
};

struct ContextDeleter {
    void operator()(EVP_CIPHER_CTX* context) const { gCrypto.EVP_CIPHER_CTX_free(context); }
};

// A context per call: it costs next to nothing beside a run of blocks, and threads share nothing but the key.
bool runCipher(bool encrypting, unsigned char* out, const unsigned char* in, int length) {
    const std::unique_ptr<EVP_CIPHER_CTX, ContextDeleter> context(gCrypto.EVP_CIPHER_CTX_new());
    int done = 0;
    return context != nullptr &&
           gCrypto.EVP_CipherInit_ex(context.get(), gCrypto.EVP_aes_256_ecb(), nullptr, gKey.data(), nullptr,
                                     encrypting ? 1 : 0) == 1 &&
           gCrypto.EVP_CIPHER_CTX_set_padding(context.get(), 0) == 1 &&
           gCrypto.EVP_CipherUpdate(context.get(), out, &done, in, length) == 1 && done == length;
}

int transform(bool encrypting, unsigned char** outData, int* outLen, const unsigned char* inData, int inLen) {
    if (outData == nullptr || outLen == nullptr) return 0;
    *outData = nullptr;
    *outLen = 0;
    if (inData == nullptr || inLen <= 0 || inLen % kBlockSize != 0 || !takeKeyIntoUse()) return 0;
    void* const memory = ::operator new(static_cast<std::size_t>(inLen), kAlignment, std::nothrow);
    std::unique_ptr<unsigned char, ResultDeleter> result(static_cast<unsigned char*>(memory));
    if (result == nullptr) errno = ENOMEM;
    if (result == nullptr || !runCipher(encrypting, result.get(), inData, inLen)) return 0;
    *outData = result.release();
    *outLen = inLen;
    return 1;
}

}  // namespace

int Encrypt(unsigned char** outData, int* outLen, const unsigned char* inData, int inLen) noexcept {
    if (faults::refuses(faults::Call::Cipher)) return 0;
    return transform(true, outData, outLen, inData, inLen);
}

int EndEncrypt(unsigned char** outData, int* outLen) noexcept {
    if (faults::refuses(faults::Call::RunEnd)) return 0;
    if (outData == nullptr || outLen == nullptr) return 0;
    *outData = nullptr;
    *outLen = 0;
    return 1;
}

int Decrypt(unsigned char** outData, int* outLen, const unsigned char* inData, int inLen) noexcept {
    if (faults::refuses(faults::Call::Cipher)) return 0;
    return transform(false, outData, outLen, inData, inLen);
}

int FreeOutData(unsigned char* data) noexcept {
    ResultDeleter()(data);
    return 1;
}

int setKey(const unsigned char* key, int length) noexcept {
    if (key == nullptr || length != kKeySize) return 0;
    const auto guard = platform::noFork();
    if (gKeyState == KeyState::InUse || gKeyState == KeyState::Gone) return 0;
    std::memcpy(gKey.data(), key, gKey.size());
    gKeyState = KeyState::Chosen;
    return 1;
}

}  // namespace workdir
