// Checks of every value that the user gives.
#pragma once

namespace CLI {
class App;
class Validator;
}  // namespace CLI

// Makes the verb refuse empty values, which an unset shell variable gives, and numbers beyond 64 bits, which the parser
// would replace by the nearest one in range.
void checkValues(CLI::App& command);

// Refuses a number below 1.
CLI::Validator atLeastOne();
