// The name of the side file of a safe append (zcmpsFilestr::setSafeAppend). Its content: docs/recovery.md.
//
// Threads: no state.
#pragma once

#include <orva/orvaApi.h>

#include <string>

namespace orva {

// The side file in which a safe append of `name` keeps what it overwrites: beside the file that the name leads to.
ORVA_API std::string sideFileName(const std::string& name);

}  // namespace orva
