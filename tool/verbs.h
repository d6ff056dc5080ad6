// The verbs of the tool. A new one is a file of its name, a name here and a line in main's table.
#pragma once

#include <memory>

namespace CLI {
class App;
}

// One verb of one command line, with the values of its options.
class verb {
public:
    virtual ~verb() = default;
    virtual void addOptions(CLI::App& command) = 0;
    // Runs after the options have been parsed. Returns the exit code or throws.
    virtual int run() = 0;
};

using makeVerb = std::unique_ptr<verb>();
makeVerb makePack, makeJoin, makeCat, makeAppend, makeInfo, makeVerify, makeRecover, makeSplits;
