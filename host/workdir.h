// workdir: the cipher of the process, for working files that should not lie readable on a disk.
//
// No call carries a place in the file, so each block of 16 bytes is enciphered by itself: AES-256 in ECB mode. That is
// weak, and known to be: equal blocks of a file show as equal, a block can be swapped or replaced without notice, and
// nothing protects against change. It keeps a process's own short-lived files from casual reading and serves for
// nothing else; above all not for files that are kept or sent.
//
// The key is 32 random bytes made at first use and exists in this process only (and in children it forks), so that no
// other process can read the files, nor this one after a restart.
//
// Units:   bytes, whole blocks of 16.
// Owner:   a result belongs to the caller until FreeOutData.
// Threads: every operation from several threads at once.
// Failure: 1 success, 0 failure; then the pointer is null and the count 0. Nothing throws. The first Encrypt or Decrypt
//          loads libcrypto; where that fails they fail, with errno ELIBACC, until a call that finds it.
#pragma once

#include <orva/hostApi.h>

namespace workdir {

// `inLen` is above 0 and a multiple of 16. *outData gets a new buffer, 64-byte aligned, of *outLen == inLen bytes.
// A block of 16 zero bytes stands for a gap in a file and is read as zeros: a host's own cipher may give it for nothing
// that it could not read back as zeros.
ORVA_HOST_API int Encrypt(unsigned char** outData, int* outLen, const unsigned char* inData, int inLen) noexcept;

// Ends a run of Encrypt calls. No block waits for another here, so it always gives a null pointer and the count 0.
ORVA_HOST_API int EndEncrypt(unsigned char** outData, int* outLen) noexcept;

// As Encrypt. Each call stands alone, from any block on, in any order.
ORVA_HOST_API int Decrypt(unsigned char** outData, int* outLen, const unsigned char* inData, int inLen) noexcept;

// Takes a result back, whichever thread made it; 1. Its bytes are not erased. Null is fine.
ORVA_HOST_API int FreeOutData(unsigned char* data) noexcept;

// A key of the host's own, 32 bytes, copied. Refused once Encrypt or Decrypt has run: what they wrote would be lost.
ORVA_HOST_API int setKey(const unsigned char* key, int length) noexcept;

}  // namespace workdir
