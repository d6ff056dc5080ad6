#include <orva/version.h>

#if ORVA_FAST_CODEC
#include <isa-l.h>
#include <libdeflate.h>
#endif
#include <lz4.h>
#include <zlib.h>

namespace orva {

std::string version() {
    return ORVA_VERSION;
}

std::string codecs() {
    std::string text = std::string("zlib ") + zlibVersion();
#if ORVA_FAST_CODEC
    text += ", ISA-L " + std::to_string(ISAL_MAJOR_VERSION) + '.' + std::to_string(ISAL_MINOR_VERSION) + '.' +
            std::to_string(ISAL_PATCH_VERSION) + ", libdeflate " + LIBDEFLATE_VERSION_STRING;
#endif
    return text + ", LZ4 " + LZ4_versionString();
}

}  // namespace orva
