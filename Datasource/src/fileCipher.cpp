// The enciphered roads of ORVA_File.
#include "fileCodes.h"

#include <orva/file.h>
#include <orva/platform.h>

namespace {

bool gKeepEncrypt = false;

}  // namespace

void SetKeepEncrypt(bool keep) {
    gKeepEncrypt = keep;
}

ORVA_File::ORVA_File(bool encrypted)
    : fEncrypted(encrypted && gKeepEncrypt),
      fRemainder(new unsigned char[CIPHER_BLOCK_SIZE]),
      fProcess(platform::processId()) {}

unsigned int ORVA_File::readEncrypted(void*, unsigned int, std::int64_t) {
    return 0;
}
unsigned int ORVA_File::WriteEncrypted(const void*, unsigned int, std::int64_t) {
    return 0;
}
unsigned int ORVA_File::endCipherRun() {
    return 0;
}
unsigned int ORVA_File::FinishEncryption() {
    return 0;
}
