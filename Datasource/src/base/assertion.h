// ORVA_ASSERT checks a duty of the caller or an invariant of the library, in every build. A breach prints
// "FILE:LINE: TEXT" to standard error and aborts. Not for what bytes of a file can cause: that is DamagedFileError.
#pragma once

namespace orva {
[[noreturn]] void assertionFailed(const char* file, int line, const char* text) noexcept;
}

// TEXT is separate from the condition because it is part of the interface: hosts search their logs for it.
#define ORVA_ASSERT(condition, text) \
    (static_cast<bool>(condition) ? static_cast<void>(0) : orva::assertionFailed(__FILE__, __LINE__, text))
