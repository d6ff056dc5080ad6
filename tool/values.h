// What is asked of every value that the user gives.
#pragma once

namespace CLI {
class App;
}

// Has the verb refuse empty values, which an unset variable of a shell gives, and numbers that no 64 bits hold, which
// the parser would take for the nearest one that they do.
void checkValues(CLI::App& command);
