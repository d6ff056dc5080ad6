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
// The codecs in use and their versions: "zlib 1.2.13, LZ4 1.9.4". Of zlib and LZ4 the ones that run, of the fast
// engines those that the library was built with, which tell no other.
ORVA_API std::string codecs();

}  // namespace orva
