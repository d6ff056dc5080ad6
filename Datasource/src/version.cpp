#include <orva/version.h>

#include <lz4.h>
#include <zlib.h>

namespace orva {

std::string version() {
    return ORVA_VERSION;
}

std::string codecs() {
    return std::string("zlib ") + zlibVersion() + ", LZ4 " + LZ4_versionString();
}

}  // namespace orva
