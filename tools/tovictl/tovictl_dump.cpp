// tovictl dump / crash: what the library's stack dumps look like.
//   dump PID TID  asks a thread of a running libtovi process to dump its own
//                 stack into that process's log (signal 61); refused for a
//                 process that does not catch the signal, which it would kill.
//   crash         a child with the fault handlers installed dies of a write
//                 through a bad pointer: its dump (registers with symbols, call trace,
//                 stack words) is written on standard error.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "tovi_exception.h"
#include "tovi_thread.h"

namespace {

bool parse_id(const char *s, long *out)
{
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(s, &end, 10);
    if (errno != 0 || end == s || *end != '\0' || v <= 0 || v > 0x7FFFFFFF)
        return false;
    *out = v;
    return true;
}

// Whether process `pid` has a handler for signal `sig` (SigCgt in its status).
bool catches(long pid, int sig)
{
    std::string path = "/proc/" + std::to_string(pid) + "/status";
    FILE *f = std::fopen(path.c_str(), "re");
    if (f == nullptr)
        return false;
    char line[256];
    unsigned long long mask = 0;
    while (std::fgets(line, sizeof line, f) != nullptr)
        if (std::sscanf(line, "SigCgt: %llx", &mask) == 1)
            break;
    std::fclose(f);
    return (mask >> (sig - 1) & 1ULL) != 0;
}

extern "C" __attribute__((noinline)) void tovictl_crash_here(volatile int *where)
{
    *where = 0x7E57;
    asm volatile("" ::: "memory");
}

extern "C" __attribute__((noinline)) void tovictl_crash_caller(volatile int *where)
{
    tovictl_crash_here(where);
    asm volatile("" ::: "memory");
}

}  // namespace

int tovictl_dump(int argc, char **argv)
{
    long pid = 0, tid = 0;
    if (argc != 2 || !parse_id(argv[0], &pid) || !parse_id(argv[1], &tid)) {
        std::fprintf(stderr, "tovictl: dump: usage: tovictl dump PID TID\n");
        return 2;
    }
    std::string task = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid);
    if (access(task.c_str(), F_OK) != 0) {
        std::fprintf(stderr, "tovictl: dump: no thread %ld in process %ld\n", tid, pid);
        return 1;
    }
    if (!catches(pid, TOVI_SIGNAL_TASKTRACK)) {
        std::fprintf(stderr, "tovictl: dump: process %ld does not catch signal %d; it would be killed\n", pid,
                     TOVI_SIGNAL_TASKTRACK);
        return 1;
    }
    dump_thread_stack_sig(static_cast<int32_t>(pid), static_cast<int32_t>(tid));
    std::printf("asked thread %ld of process %ld for its stack: see that process's log\n", tid, pid);
    return 0;
}

int tovictl_crash(int argc, char **argv)
{
    if (argc != 0) {
        std::fprintf(stderr, "tovictl: crash: takes no arguments, got '%s'\n", argv[0]);
        return 2;
    }
    std::fflush(stdout);
    pid_t child = fork();
    if (child < 0) {
        std::fprintf(stderr, "tovictl: crash: fork: %s\n", std::strerror(errno));
        return 1;
    }
    if (child == 0) {
        tovi_thrd_setcurthreadinfo();  // a record: the dump knows its stack
        tovi_exception_init();
        tovictl_crash_caller(reinterpret_cast<volatile int *>(16));  // unmapped (and not null)
        _exit(0);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFSIGNALED(status)) {
        std::printf("child %d did not die of its fault (status %d)\n", static_cast<int>(child), status);
        return 1;
    }
    std::printf("child %d died of signal %d (%s) after the dump above\n", static_cast<int>(child), WTERMSIG(status),
                strsignal(WTERMSIG(status)));
    return 0;
}
