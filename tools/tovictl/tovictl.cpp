// tovictl: inspect and demonstrate the library from the command line.
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tovi_bitop.h"
#include "tovi_companion.h"
#include "tovi_init.h"
#include "tovi_jiffies.h"
#include "tovi_sched.h"
#include "tovi_semaphore.h"
#include "tovi_time.h"
#include "tovi_timer.h"
#include "tovi_version.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

bool start_library()
{
    tovi_log_init(TOVI_MODULE_ID, "KOMI");
    if (tovi_Init() != 0) {
        std::fprintf(stderr, "tovictl: the library failed to start (see the log above)\n");
        return false;
    }
    return true;
}

// Verbs that take nothing say so in one line.
bool no_arguments(const char *verb, int argc, char **argv)
{
    if (argc == 0)
        return true;
    std::fprintf(stderr, "tovictl: %s: takes no arguments, got '%s'\n", verb, argv[0]);
    return false;
}

int cmd_info(int argc, char **argv)
{
    if (!no_arguments("info", argc, argv))
        return kExitUsage;
    if (!start_library())
        return kExitFailure;
    std::printf("version:            %s\n", TOVI_VERSION_STRING);
    std::printf("companion:          %s\n", tovi_companion_name());
    std::printf("jiffies:            %" PRIu64 "\n", tovi_get_jiffies());
    std::printf("nanoseconds:        %" PRIu64 "\n", tovi_time_getnanosec());
    std::printf("milliseconds:       %" PRIu64 "\n", tovi_time_getmillisec());
    std::printf("counter ns/tick:    %" PRIu64 "\n", tovi_time_cycles2ns(1));
    std::printf("counter frequency:  %" PRIu64 " Hz\n",
                tovi_time_cycles2ns(1) == 0 ? 0 : UINT64_C(1000000000) / tovi_time_cycles2ns(1));
    std::printf("module %u:         %s\n", TOVI_MODULE_ID, tovi_pid_get_name(TOVI_MODULE_ID));
    std::printf("process version:    %" PRIu64 "\n", ps_get_version());
    tovi_destory();
    return kExitOk;
}

struct Sleeper {
    uint32_t word = 1;
    std::atomic<int32_t> tid{0};
    int64_t result = 0;
    uint64_t woke_ns = 0;
};

void *sleeper_main(void *arg)
{
    auto *s = static_cast<Sleeper *>(arg);
    s->tid.store(gettid());
    s->result = tovi_wait_comm(&s->word, 5 * TOVI_HZ);
    s->woke_ns = tovi_time_getnanosec();
    return nullptr;
}

void demo_clocks()
{
    std::printf("== clocks\n");
    uint64_t j0 = tovi_get_jiffies();
    uint64_t n0 = tovi_time_getnanosec();
    tovi_msleep(100);
    uint64_t j1 = tovi_get_jiffies();
    uint64_t n1 = tovi_time_getnanosec();
    std::printf("tovi_msleep(100): %.3f ms, %" PRIu64 " jiffies (4 ms each)\n", (n1 - n0) / 1e6, j1 - j0);
    uint64_t spun = tovi_mdelay(5);
    std::printf("tovi_mdelay(5) busy-waited %.3f ms\n", spun / 1e6);
    tovi_estimate_tsc_freq();
    std::printf("measured counter rate: %.3f GHz\n", currCpuGHz);
}

void demo_wake_up()
{
    std::printf("== wait and wake-up\n");
    Sleeper s;
    pthread_t thread;
    if (pthread_create(&thread, nullptr, sleeper_main, &s) != 0) {
        std::printf("cannot start a thread\n");
        return;
    }
    while (s.tid.load() == 0)
        tovi_yield();
    tovi_msleep(50);  // let it park
    uint64_t sent = tovi_time_getnanosec();
    __atomic_store_n(&s.word, 0, __ATOMIC_RELEASE);
    uint32_t ret = tovi_wake_up_process(s.tid.load());
    pthread_join(thread, nullptr);
    std::printf("woke thread %d (tovi_wake_up_process=%u): tovi_wait_comm returned %" PRId64
                " jiffies left, after %.1f us\n",
                s.tid.load(), ret, s.result, (s.woke_ns - sent) / 1e3);
    uint32_t word = 1;
    uint64_t t0 = tovi_time_getnanosec();
    int64_t timed_out = tovi_wait_comm(&word, 25);
    std::printf("tovi_wait_comm(word, 25) with nobody waking: %" PRId64 " after %.1f ms\n", timed_out,
                (tovi_time_getnanosec() - t0) / 1e6);
}

struct HandOff {
    tovi_sem_enhance_s sem;
    std::atomic<bool> parked{false};
    uint64_t got_ns = 0;
};

void *taker_main(void *arg)
{
    auto *h = static_cast<HandOff *>(arg);
    h->parked = true;
    tovi_sem_enhance_down(&h->sem);
    h->got_ns = tovi_time_getnanosec();
    return nullptr;
}

void demo_semaphore()
{
    std::printf("== semaphore hand-off\n");
    HandOff h;
    tovi_sem_enhance_init(&h.sem, 0);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, taker_main, &h) != 0)
        return;
    while (!h.parked.load())
        tovi_yield();
    tovi_msleep(20);
    uint64_t up = tovi_time_getnanosec();
    tovi_sem_enhance_up(&h.sem);
    pthread_join(thread, nullptr);
    std::printf("up on one thread, down returned on another after %.1f us; count stays %d\n",
                (h.got_ns - up) / 1e3, h.sem.count);
}

struct Fired {
    std::atomic<int> count{0};
    uint64_t due_ms[3] = {};
    double late_ms[3] = {};
    bool fired[3] = {};
};

Fired g_fired;

void on_timer(uint64_t i)
{
    g_fired.late_ms[i] = static_cast<double>(tovi_time_getnanosec()) / 1e6 - static_cast<double>(g_fired.due_ms[i]);
    g_fired.fired[i] = true;
    ++g_fired.count;
}

void demo_timers()
{
    std::printf("== timers\n");
    tovi_timer timers[3];
    const uint64_t after[3] = {10, 50, 120};
    bool armed[3] = {};
    for (uint64_t i = 0; i < 3; ++i) {
        // A timer is initialised once before it is set and armed.
        if (tovi_timer_init(&timers[i]) != 0 || tovi_timer_set(&timers[i], after[i], i, on_timer) != 0) {
            std::printf("timer of %3lu ms could not be set up\n", static_cast<unsigned long>(after[i]));
            continue;
        }
        g_fired.due_ms[i] = tovi_time_getmillisec() + after[i];
        armed[i] = tovi_timer_add(&timers[i]) == 0;
    }
    int expected = 0;
    for (bool a : armed)
        expected += a ? 1 : 0;
    for (int waited = 0; g_fired.count.load() < expected && waited < 2000; waited += 5)
        tovi_msleep(5);
    for (int i = 0; i < 3; ++i) {
        const auto ms = static_cast<unsigned long>(after[i]);
        if (!armed[i])
            std::printf("timer of %3lu ms was not armed\n", ms);
        else if (!g_fired.fired[i])
            std::printf("timer of %3lu ms did not fire within 2 s\n", ms);
        else
            std::printf("timer of %3lu ms fired %.3f ms after its due millisecond\n", ms, g_fired.late_ms[i]);
        if (armed[i])
            tovi_timer_delete_sync(&timers[i]);
    }
}

void demo_modules()
{
    std::printf("== module names\n");
    std::printf("module 381: %s, module 5: %s, module 70000: %s\n", tovi_pid_get_name(381),
                tovi_pid_get_name(5), tovi_pid_get_name(70000));
}

int cmd_demo(int argc, char **argv)
{
    if (!no_arguments("demo", argc, argv))
        return kExitUsage;
    if (!start_library())
        return kExitFailure;
    std::printf("libtovi %s, companion %s\n", TOVI_VERSION_STRING, tovi_companion_name());
    demo_clocks();
    demo_wake_up();
    demo_semaphore();
    demo_timers();
    demo_modules();
    tovi_destory();
    return kExitOk;
}

// Checksums of files, read in 1 MiB pieces.
struct Checksum {
    const char *name;
    int digits;
    uint32_t start;
    uint32_t (*update)(uint32_t state, const uint8_t *p, size_t n);
    uint32_t (*finish)(uint32_t state);
};

const Checksum kCrc32c = {
    "crc32c", 8, 0xFFFFFFFFu,
    [](uint32_t s, const uint8_t *p, size_t n) { return tovi_crc32cContinue(s, p, static_cast<uint32_t>(n)); },
    tovi_crc32cEnd};

const Checksum kCrc16 = {
    "crc16", 4, 0,
    [](uint32_t s, const uint8_t *p, size_t n) -> uint32_t { return tovi_crc16(static_cast<uint16_t>(s), p, n); },
    [](uint32_t s) { return s; }};

// One file: prints "CHECKSUM  FILE" (and the throughput with -v); false
// when the file cannot be read.
bool checksum_file(const Checksum &c, const char *path, bool verbose)
{
    struct stat st {};
    if (stat(path, &st) == 0 && S_ISDIR(st.st_mode)) {
        std::fprintf(stderr, "tovictl: %s: '%s' is a directory\n", c.name, path);
        return false;
    }
    FILE *f = std::fopen(path, "rb");
    if (f == nullptr) {
        std::fprintf(stderr, "tovictl: %s: cannot open '%s': %s\n", c.name, path, std::strerror(errno));
        return false;
    }
    static uint8_t buf[1u << 20];
    uint32_t state = c.start;
    uint64_t bytes = 0;
    uint64_t ns = 0;
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
        uint64_t t0 = tovi_time_getnanosec();
        state = c.update(state, buf, n);
        ns += tovi_time_getnanosec() - t0;
        bytes += n;
    }
    bool failed = std::ferror(f) != 0;
    int read_errno = errno;
    std::fclose(f);
    if (failed) {
        std::fprintf(stderr, "tovictl: %s: cannot read '%s': %s\n", c.name, path, std::strerror(read_errno));
        return false;
    }
    std::printf("%0*x  %s\n", c.digits, c.finish(state), path);
    if (verbose)
        std::printf("%s: %" PRIu64 " bytes in %.3f ms, %.2f GB/s\n", c.name, bytes, ns / 1e6,
                    ns == 0 ? 0.0 : static_cast<double>(bytes) / static_cast<double>(ns));
    return true;
}

int run_checksum(const Checksum &c, int argc, char **argv)
{
    bool verbose = false;
    int first = 0;
    for (; first < argc && argv[first][0] == '-'; ++first) {
        if (std::strcmp(argv[first], "--") == 0) {
            ++first;
            break;
        }
        if (std::strcmp(argv[first], "-v") != 0) {
            std::fprintf(stderr, "tovictl: %s: unknown option '%s' (usage: tovictl %s [-v] FILE...)\n", c.name,
                         argv[first], c.name);
            return kExitUsage;
        }
        verbose = true;
    }
    if (first == argc) {
        std::fprintf(stderr, "tovictl: %s: no FILE given (usage: tovictl %s [-v] FILE...)\n", c.name, c.name);
        return kExitUsage;
    }
    tovi_crc32_init();
    int ret = kExitOk;
    for (int i = first; i < argc; ++i)
        if (!checksum_file(c, argv[i], verbose))
            ret = kExitFailure;
    return ret;
}

int cmd_crc32c(int argc, char **argv)
{
    return run_checksum(kCrc32c, argc, argv);
}

int cmd_crc16(int argc, char **argv)
{
    return run_checksum(kCrc16, argc, argv);
}

struct Command {
    const char *name;
    const char *usage;
    int (*run)(int argc, char **argv);
};

}  // namespace

int tovictl_threads(int argc, char **argv);
int tovictl_mem(int argc, char **argv);
int tovictl_timers(int argc, char **argv);
int tovictl_cfg(int argc, char **argv);
int tovictl_work(int argc, char **argv);
int tovictl_net(int argc, char **argv);
int tovictl_time(int argc, char **argv);
int tovictl_numa(int argc, char **argv);
int tovictl_partitions(int argc, char **argv);
int tovictl_syscall(int argc, char **argv);
int tovictl_dump(int argc, char **argv);
int tovictl_crash(int argc, char **argv);
int tovictl_cpu(int argc, char **argv);
int tovictl_lwp(int argc, char **argv);

namespace {

const Command kCommands[] = {
    {"info", "info                 version, companion, clocks and module 381", cmd_info},
    {"demo", "demo                 a short tour of the library", cmd_demo},
    {"crc32c", "crc32c [-v] FILE...  CRC32C of each file (-v: and the throughput)", cmd_crc32c},
    {"crc16", "crc16 [-v] FILE...   CRC16 T10-DIF of each file (-v: and the throughput)", cmd_crc16},
    {"threads", "threads              the library threads of a process with a few named threads and a pool", tovictl_threads},
    {"mem", "mem                  the tracked memory of each module and the shared memory the library made", tovictl_mem},
    {"timers", "timers [-n COUNT]    the pending timers (-n: arm COUNT sample timers first)", tovictl_timers},
    {"cfg", "cfg VERB FILE ...     get|set|add|del|delsection|dump an ini file", tovictl_cfg},
    {"work", "work [-n COUNT]      the work pool's and hr timers' counters under a sample load", tovictl_work},
    {"net", "net IFNAME           addresses, recorded rules and routes of an interface; the sshd port", tovictl_net},
    {"time", "time [ZONE]          UTC, local time, zone, DST and the zone table's next transitions", tovictl_time},
    {"numa", "numa [FILE]          the system CPU masks and the NUMA nodes of FILE (default: the platform's)", tovictl_numa},
    {"partitions", "partitions [FILE]    the CPU partition table of FILE (default: the platform's)", tovictl_partitions},
    {"syscall", "syscall CMD [HEX]    call a private system call of this user's running server", tovictl_syscall},
    {"dump", "dump PID TID         a thread of a running libtovi process dumps its stack into its log", tovictl_dump},
    {"crash", "crash                a child dies of a fault: what its dump looks like", tovictl_crash},
    {"cpu", "cpu [-n N]           CPU usage of the machine and of each CPU once a second (-n: N samples)", tovictl_cpu},
    {"lwp", "lwp                  the light-weight process instances of a sample process", tovictl_lwp},
};

int usage(FILE *out, int code)
{
    std::fprintf(out, "usage: tovictl [-v] COMMAND [ARGS]\n\n"
                      "  -v                   show the library's own messages too (as does VRLOG_LEVEL)\n\n"
                      "commands:\n");
    for (const Command &c : kCommands)
        std::fprintf(out, "  %s\n", c.usage);
    std::fprintf(out, "  help                 this text\n");
    return code;
}

}  // namespace

int main(int argc, char **argv)
{
    bool verbose = false;
    if (argc >= 2 && std::strcmp(argv[1], "-v") == 0) {
        verbose = true;
        --argc;
        ++argv;
    }
    if (argc < 2)
        return usage(stderr, kExitUsage);
    if (std::strcmp(argv[1], "help") == 0 || std::strcmp(argv[1], "--help") == 0 ||
        std::strcmp(argv[1], "-h") == 0)
        return usage(stdout, kExitOk);
    // The tool's own output only: the library's errors and warnings still
    // show, its progress messages only when asked for.
    if (!verbose && std::getenv("VRLOG_LEVEL") == nullptr)
        tovi_log_level_set(TOVI_MODULE_ID, 4);
    for (const Command &c : kCommands)
        if (std::strcmp(argv[1], c.name) == 0)
            return c.run(argc - 2, argv + 2);
    std::fprintf(stderr, "tovictl: unknown command '%s' (tovictl help lists them)\n", argv[1]);
    return kExitUsage;
}
