// Which orva this is, and what it compresses with: for messages, reports of faults, and records of how a file was made.
//
// Threads: any.
// Failure: bad_alloc.
#pragma once

#include <orva/orvaApi.h>

#include <string>

namespace orva {

// Of the library that runs, which may be newer than the headers: "0.1.0".
ORVA_API std::string version();
// The codecs in use and their versions, as they run: "zlib 1.2.13, LZ4 1.9.4".
ORVA_API std::string codecs();

}  // namespace orva
