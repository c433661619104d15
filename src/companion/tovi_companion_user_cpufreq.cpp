// User-space backend: the CPU frequency commands. Frequencies belong to the
// platform kernel; the stand-in has nothing to change them with.
#include <cerrno>

#include "tovi_companion.hpp"

namespace tovi::companion::user {

long cpufreq_refused(long, long, long)
{
    errno = ENOSYS;
    return -1;
}

}  // namespace tovi::companion::user
