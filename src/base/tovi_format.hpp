// The bounded formatter's result, read whole: snprintf_s keeps size - 1
// characters of a text of exactly size characters and still returns size,
// so a check for a negative result alone lets a command or a path through
// one character short, which can name another file or program.
#pragma once

#include <cstddef>

namespace tovi {

// True when a text of n characters (a snprintf_s result) fit whole in size bytes.
inline bool formatted(int n, size_t size)
{
    return n >= 0 && static_cast<size_t>(n) < size;
}

}  // namespace tovi
