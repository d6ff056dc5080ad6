#include "base/assertion.h"

#include <cstdio>
#include <cstdlib>

void orva::assertionFailed(const char* file, int line, const char* text) noexcept {
    std::fprintf(stderr, "%s:%d: %s\n", file, line, text);
    std::abort();
}
