// The names of an output that stands under a hidden one beside its own until it is complete.
#pragma once

#include <orva/orvaApi.h>

#include <string>

namespace orva {

// Where links lead to: replacing a link would leave the file that it names as it was, and put a file where there was a
// link. What the last one names need not exist. `name` itself if it is no link. FileError (1002) with ELOOP.
ORVA_API std::string outputTarget(const std::string& name);

// A hidden name in the directory of `target` that no other process has. Cut, so that a long name does not make it too
// long for the system.
ORVA_API std::string hiddenNameBeside(const std::string& target);

}  // namespace orva
