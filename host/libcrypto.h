// libcrypto: OpenSSL's library, loaded by the first call that encrypts something. Linking it would cost every program
// a third of its start-up time, and most programs never encrypt anything.
//
// Owner:   the library stays loaded until the process ends.
// Threads: no lock. The caller makes sure that one thread loads it before any other uses it.
#pragma once

#include <openssl/crypto.h>
#include <openssl/evp.h>

// The headers that this is built with fix the version, since only that library matches them.
#define ORVA_LIBCRYPTO_NAMED(version) "libcrypto.so." #version
#define ORVA_LIBCRYPTO_OF(version) ORVA_LIBCRYPTO_NAMED(version)
#define ORVA_LIBCRYPTO ORVA_LIBCRYPTO_OF(OPENSSL_SHLIB_VERSION)

struct libcrypto {
    decltype(&::OPENSSL_init_crypto) OPENSSL_init_crypto = nullptr;
    decltype(&::EVP_aes_256_ecb) EVP_aes_256_ecb = nullptr;
    decltype(&::EVP_CIPHER_CTX_new) EVP_CIPHER_CTX_new = nullptr;
    decltype(&::EVP_CIPHER_CTX_free) EVP_CIPHER_CTX_free = nullptr;
    decltype(&::EVP_CIPHER_CTX_set_padding) EVP_CIPHER_CTX_set_padding = nullptr;
    decltype(&::EVP_CipherInit_ex) EVP_CipherInit_ex = nullptr;
    decltype(&::EVP_CipherUpdate) EVP_CipherUpdate = nullptr;

    // Loads the library and looks up the functions. False, with errno ELIBACC, if no matching library is found; it may
    // be tried again.
    bool load() noexcept;
};
