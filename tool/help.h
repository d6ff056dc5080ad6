// The layout of help texts: 80 columns, and one word for the value of each option.
#pragma once

#include <memory>

namespace CLI {
class FormatterBase;
}

std::shared_ptr<CLI::FormatterBase> helpLayout();
