// The name of the side file of a safe append (zcmpsFilestr::setSafeAppend). Its content: docs/recovery.md.
//
// Threads: no state.
#pragma once

#include <orva/orvaApi.h>

#include <string>

namespace orva {

// The name of the side file in which a safe append to `name` keeps what it overwrites. It is in the directory of the
// file that `name` leads to, even through links.
ORVA_API std::string sideFileName(const std::string& name);

}  // namespace orva
