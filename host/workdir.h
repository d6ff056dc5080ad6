// workdir: the cipher of the process, for working files that should not lie readable on a disk.
//
// No call carries a file offset, so each block of 16 bytes is encrypted by itself: AES-256 in ECB mode. This is known
// to be weak: equal blocks show as equal, a block can be swapped or replaced unnoticed, and nothing protects against
// change. It keeps a process's own short-lived files from casual reading and is good for nothing else, least of all for
// files that are kept or sent.
//
// The key is 32 random bytes, made at first use. It exists only in this process and the children it forks, so no other
// process can read the files, nor can this program after a restart.
//
// Units:   bytes, whole blocks of 16.
// Owner:   a result belongs to the caller until FreeOutData.
// Threads: any operation, on several threads at once.
// Failure: 1 is success, 0 failure, with a null pointer and the count 0. Nothing throws. The first Encrypt or Decrypt
//          loads libcrypto; if none is found they fail, with errno ELIBACC, until a later call finds it.
#pragma once

#include <orva/hostApi.h>

namespace workdir {

// Sets *outData to a new buffer, 64-byte aligned, of *outLen == inLen bytes; `inLen` is a positive multiple of 16. A
// block of 16 zero bytes in a file stands for a gap and is read as zeros, so a host's own cipher may give one only for
// zeros.
ORVA_HOST_API int Encrypt(unsigned char** outData, int* outLen, const unsigned char* inData, int inLen) noexcept;

// Ends a run of Encrypt calls. This cipher holds nothing back, so the result is always a null pointer and the count 0.
ORVA_HOST_API int EndEncrypt(unsigned char** outData, int* outLen) noexcept;

// As Encrypt. Calls are independent: each may begin at any block, in any order.
ORVA_HOST_API int Decrypt(unsigned char** outData, int* outLen, const unsigned char* inData, int inLen) noexcept;

// Frees a result of any thread, without erasing its bytes; null is allowed. Always 1.
ORVA_HOST_API int FreeOutData(unsigned char* data) noexcept;

// Sets a key of the host's own: 32 bytes, which are copied. Fails once Encrypt or Decrypt has run, since what they
// wrote would be lost.
ORVA_HOST_API int setKey(const unsigned char* key, int length) noexcept;

}  // namespace workdir
