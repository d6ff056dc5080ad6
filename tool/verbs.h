// The verbs of the tool. A new one is a file of its name, a name here and one in main's table.
#pragma once

#include <functional>

namespace CLI {
class App;
}

// Runs a verb whose options have been parsed, and gives the exit code. Throws what fails.
using verb = std::function<int()>;

// Declares a verb with its options on `app` and binds what runs it to them.
using addVerb = verb(CLI::App& app);

addVerb addPack, addJoin, addCat, addAppend, addInfo, addVerify, addRecover, addSplits;
