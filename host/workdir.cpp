#include "libcrypto.h"

#include <orva/platform.h>
#include <orva/workdir.h>
#include <orva/workdirFaults.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace workdir {
namespace {

constexpr int kKeySize = 32;
constexpr int kBlockSize = 16;
// The results' alignment, and the room before each for its length.
constexpr std::size_t kAlignment = 64;

enum class KeyState { Unset, Chosen, InUse, Gone };

// Once in use, key and library never change until the process ends, and are read without a lock. Until then they change
// while no fork is under way, which keeps threads apart too: a child would find a lock that nobody gives back.
std::atomic<KeyState> gKeyState{KeyState::Unset};
std::array<unsigned char, kKeySize> gKey;
libcrypto gCrypto;

// No compiler leaves this out because nobody reads the zeros.
void erase(void* memory, std::size_t size) {
    std::memset(memory, 0, size);
    asm volatile("" : : "r"(memory) : "memory");
}

// Erases the key at the end. A thread that is still at work then meets a failure, not a key of zeros.
struct KeyEraser {
    ~KeyEraser() {
        const platform::noFork guard;
        gKeyState = KeyState::Gone;
        erase(gKey.data(), gKey.size());
    }
};
const KeyEraser gKeyEraser;

bool takeKeyIntoUse() {
    if (gKeyState.load(std::memory_order_acquire) == KeyState::InUse) return true;
    const platform::noFork guard;
    if (gKeyState == KeyState::InUse) return true;
    if (gKeyState == KeyState::Gone || !gCrypto.load()) return false;
    if (gKeyState == KeyState::Unset && gCrypto.RAND_bytes(gKey.data(), kKeySize) != 1) return false;
    gKeyState.store(KeyState::InUse, std::memory_order_release);
    return true;
}

// Erases and frees `room` bytes from `memory` on, where the allocation of a result begins.
void release(unsigned char* memory, std::size_t room) {
    erase(memory, room);
    ::operator delete (memory, std::align_val_t{kAlignment});
}

// A thread keeps the result it gave back last for its next one: the page faults of fresh memory cost more than the
// cipher. What it keeps is erased when the thread ends.
thread_local bool tSpareGone = false;  // outlives the spare, for streams that end after their thread's own objects
struct Spare {
    unsigned char* memory = nullptr;
    std::size_t room = 0;

    ~Spare() {
        tSpareGone = true;
        if (memory != nullptr) release(memory, kAlignment + room);
    }
};
thread_local Spare tSpare;
constexpr std::size_t kLargestSpare = std::size_t{8} << 20;

unsigned char* newResult(int size) {
    std::size_t room = static_cast<std::size_t>(size);
    void* memory = nullptr;
    if (!tSpareGone && tSpare.room >= room) {
        room = std::exchange(tSpare.room, 0);
        memory = std::exchange(tSpare.memory, nullptr);
    } else {
        memory = ::operator new (kAlignment + room, std::align_val_t{kAlignment}, std::nothrow);
    }
    if (memory == nullptr) return nullptr;
    std::memcpy(memory, &room, sizeof room);
    return static_cast<unsigned char*>(memory) + kAlignment;
}

struct ResultDeleter {
    void operator()(unsigned char* data) const { FreeOutData(data); }
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
    std::unique_ptr<unsigned char, ResultDeleter> result(newResult(inLen));
    if (result == nullptr || !runCipher(encrypting, result.get(), inData, inLen)) return 0;
    *outData = result.release();
    *outLen = inLen;
    return 1;
}

}  // namespace

#ifdef ORVA_FAULT_SEAM
namespace faults {
namespace {
std::atomic<Hook*> gHook{nullptr};
}  // namespace

Hook* install(Hook* hook) noexcept {
    return gHook.exchange(hook);
}

bool fails(Call call) noexcept {
    Hook* const hook = gHook;
    return hook != nullptr && hook->fails(call);
}
}  // namespace faults
#endif

int Encrypt(unsigned char** outData, int* outLen, const unsigned char* inData, int inLen) noexcept {
    if (faults::fails(faults::Call::Encrypt)) return 0;
    return transform(true, outData, outLen, inData, inLen);
}

int EndEncrypt(unsigned char** outData, int* outLen) noexcept {
    if (faults::fails(faults::Call::EndEncrypt)) return 0;
    if (outData == nullptr || outLen == nullptr) return 0;
    *outData = nullptr;
    *outLen = 0;
    return 1;
}

int Decrypt(unsigned char** outData, int* outLen, const unsigned char* inData, int inLen) noexcept {
    if (faults::fails(faults::Call::Decrypt)) return 0;
    return transform(false, outData, outLen, inData, inLen);
}

int FreeOutData(unsigned char* data) noexcept {
    if (data == nullptr) return 1;
    unsigned char* memory = data - kAlignment;
    std::size_t room = 0;
    std::memcpy(&room, memory, sizeof room);
    if (!tSpareGone && room > tSpare.room && room <= kLargestSpare) {
        std::swap(memory, tSpare.memory);
        std::swap(room, tSpare.room);
    }
    if (memory != nullptr) release(memory, kAlignment + room);
    return 1;
}

int setKey(const unsigned char* key, int length) noexcept {
    if (key == nullptr || length != kKeySize) return 0;
    const platform::noFork guard;
    if (gKeyState == KeyState::InUse || gKeyState == KeyState::Gone) return 0;
    std::memcpy(gKey.data(), key, gKey.size());
    gKeyState = KeyState::Chosen;
    return 1;
}

}  // namespace workdir
