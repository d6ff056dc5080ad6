// libcrypto: OpenSSL's library, brought into the process by whoever first enciphers something. Linked, it would cost
// every program a third of its start, and most programs never encipher anything.
//
// Owner:   the library stays until the process ends.
// Threads: no lock here. The caller sees to it that one thread loads it, before any other uses it.
#pragma once

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

// Its name is fixed by the headers that this was built with, for only such a library fits them.
#define ORVA_LIBCRYPTO_NAMED(version) "libcrypto.so." #version
#define ORVA_LIBCRYPTO_OF(version) ORVA_LIBCRYPTO_NAMED(version)
#define ORVA_LIBCRYPTO ORVA_LIBCRYPTO_OF(OPENSSL_SHLIB_VERSION)

struct libcrypto {
    decltype(&::OPENSSL_init_crypto) OPENSSL_init_crypto = nullptr;
    decltype(&::RAND_bytes) RAND_bytes = nullptr;
    decltype(&::EVP_aes_256_ecb) EVP_aes_256_ecb = nullptr;
    decltype(&::EVP_CIPHER_CTX_new) EVP_CIPHER_CTX_new = nullptr;
    decltype(&::EVP_CIPHER_CTX_free) EVP_CIPHER_CTX_free = nullptr;
    decltype(&::EVP_CIPHER_CTX_set_padding) EVP_CIPHER_CTX_set_padding = nullptr;
    decltype(&::EVP_CipherInit_ex) EVP_CipherInit_ex = nullptr;
    decltype(&::EVP_CipherUpdate) EVP_CipherUpdate = nullptr;

    // False, with errno ELIBACC, where there is none that fits. It may be tried again.
    bool load() noexcept;
};
