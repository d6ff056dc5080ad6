// The verbs of the tool. A new one is a file of its name, a name here and a line in main's table.
#pragma once

#include <memory>

namespace CLI {
class App;
}

// One verb of one command line; what its options say is kept in it.
class verb {
public:
    virtual ~verb() = default;
    virtual void addOptions(CLI::App& command) = 0;
    // Once they have been parsed. Gives the exit code, or throws what fails.
    virtual int run() = 0;
};

using makeVerb = std::unique_ptr<verb>();
makeVerb makePack, makeJoin, makeCat, makeAppend, makeInfo, makeVerify, makeRecover, makeSplits;
