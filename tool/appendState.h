// What an append has to do with a file that does not fit itself.
//
// Failure: none; where nothing can be found out, nothing is said.
#pragma once

#include <string>

// That one is at work, or was interrupted, and what to do; empty where there is no sign of either.
std::string appendState(const std::string& file);
