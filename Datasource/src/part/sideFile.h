// The side file of a safe append (zcmpsFilestr::setSafeAppend): where it stands, and how it goes.
//
// Threads: no state.
// Failure: FileError (1002) with the side file's name.
#pragma once

#include <orva/orvaApi.h>

#include <string>

namespace orva {

// Where a safe append of `name` keeps what it overwrites: beside the file that the name leads to.
ORVA_API std::string sideFileName(const std::string& name);

// Removes the side file of `name`, durably, if there is one: for a file that begins anew under that name, whose new
// rows a roll-back of its former life would destroy.
ORVA_API void dropSideFile(const std::string& name);

}  // namespace orva
