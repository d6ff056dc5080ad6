#include "libcrypto.h"

#include <dlfcn.h>

#include <cerrno>

namespace {

template <class Function>
bool find(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(::dlsym(library, name));
    return function != nullptr;
}

}  // namespace

// RTLD_LOCAL hides its symbols from others, and RTLD_NOW resolves its own at once, so a cipher at work never waits for
// the dynamic linker. Its memory is left to the end of the process: freeing it in a forked child would wait for a lock
// that another thread of the parent held.
bool libcrypto::load() noexcept {
    void* const library = ::dlopen(ORVA_LIBCRYPTO, RTLD_NOW | RTLD_LOCAL);
    const bool good =
        library != nullptr && find(library, "OPENSSL_init_crypto", OPENSSL_init_crypto) &&
        find(library, "EVP_aes_256_ecb", EVP_aes_256_ecb) && find(library, "EVP_CIPHER_CTX_new", EVP_CIPHER_CTX_new) &&
        find(library, "EVP_CIPHER_CTX_free", EVP_CIPHER_CTX_free) &&
        find(library, "EVP_CIPHER_CTX_set_padding", EVP_CIPHER_CTX_set_padding) &&
        find(library, "EVP_CipherInit_ex", EVP_CipherInit_ex) && find(library, "EVP_CipherUpdate", EVP_CipherUpdate);
    if (!good) errno = ELIBACC;
    return good && OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
}
