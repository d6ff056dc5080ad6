// Which version of orva runs, and with which codecs: for messages, bug reports, and records of how a file was made.
//
// Threads: any.
// Failure: bad_alloc.
#pragma once

#include <orva/orvaApi.h>

#include <string>

namespace orva {

// The version of the running library, which may be newer than the headers: "0.1.0".
ORVA_API std::string version();
// The codecs in use and their versions: "zlib 1.2.13, LZ4 1.9.4". Those of zlib and LZ4 are the ones at run time; those
// of the fast engines, which report none then, the ones at build time.
ORVA_API std::string codecs();

}  // namespace orva
