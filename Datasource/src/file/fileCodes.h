// The codes of the catalog "datasrc.err" that the file layer throws with.
#pragma once

inline constexpr long kWriteFailed = 1002;  // writing and closing
inline constexpr long kReadFailed = 1003;
