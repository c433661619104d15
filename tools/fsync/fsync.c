/*
 * fsync FILE...: flushes each file's data and metadata to its device. The
 * library's sshd port change runs it on the kept port file; hosts whose
 * distribution has no such command get this one. Exit status 0 when every
 * file was flushed, 1 otherwise (each failure is reported on stderr).
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    int status = argc > 1 ? 0 : 1;
    if (argc < 2)
        fprintf(stderr, "usage: fsync FILE...\n");
    for (int i = 1; i < argc; ++i) {
        /* Read-only is enough for fsync and works on read-only files too. */
        int fd = open(argv[i], O_RDONLY | O_CLOEXEC);
        if (fd < 0 || fsync(fd) != 0) {
            fprintf(stderr, "fsync: %s: %s\n", argv[i], strerror(errno));
            status = 1;
        }
        if (fd >= 0)
            close(fd);
    }
    return status;
}
