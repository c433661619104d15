// File operations.
#include <cerrno>
#include <unistd.h>

#include "tovi_fileops.h"

extern "C" {

char *tovi_readline(int32_t fd, char *pBuf, int32_t size)
{
    if (pBuf == nullptr || size < 1)
        return nullptr;
    int32_t stored = 0;
    while (stored < size - 1) {
        char c;
        ssize_t n = read(fd, &c, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n != 1)
            break;  // end of file or error
        if (c == '\r')
            continue;
        pBuf[stored++] = c;
        if (c == '\n')
            break;
    }
    pBuf[stored] = '\0';
    pBuf[size - 1] = '\0';
    return stored == 0 ? nullptr : pBuf;
}

}  // extern "C"
