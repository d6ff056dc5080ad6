// How the help of the command and of its verbs is laid out: in 80 columns, with what each option takes by one word.
#pragma once

#include <memory>

namespace CLI {
class FormatterBase;
}

std::shared_ptr<CLI::FormatterBase> helpLayout();
