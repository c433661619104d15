// test-labels: concurrency
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <functional>
#include <future>
#include <pthread.h>
#include <set>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "poll.hpp"
#include "tovi_companion.hpp"
#include "tovi_sched.h"
#include "tovi_thread.h"
#include "tovi_thread.hpp"

using tovi::test::fmt;
using tovi::test::LogCapture;
using tovi::test::wait_for;
using Texts = std::vector<std::string>;

namespace {

// Every thread of earlier tests has given its slot back.
bool all_slots_free() { return wait_for([] { return tovi::thrd::free_slots() == TOVI_THREAD_SLOTS; }); }

struct Task { std::function<void()> body; std::promise<void> done; };
void *run_task(void *arg) { return static_cast<Task *>(arg)->body(), static_cast<Task *>(arg)->done.set_value(), nullptr; }

using Creator = uint32_t (*)(tovi_thread_fn, void *, pthread_t *);

std::future<void> start(Task &task, Creator create = create_thread_raw, pthread_t *id = nullptr)
{
    auto done = task.done.get_future();
    EXPECT_EQ(create(run_task, &task, id), 0u);
    return done;
}

void on_tovi_thread(const std::function<void()> &body, Creator create = create_thread_raw)
{
    Task task{body, {}};
    start(task, create).wait();
}

void wait_open(const std::atomic<bool> &gate) { wait_for([&] { return gate.load(); }, 60000); }

std::string kernel_name() { char name[16] = {}; return prctl(PR_GET_NAME, name), name; }

int nice_now() { return getpriority(PRIO_PROCESS, 0); }

// The suite may itself run under nice: "unchanged" means the value it started with.
const int start_nice = nice_now();

std::string listing() { return testing::internal::CaptureStdout(), tovi_thrd_list(), testing::internal::GetCapturedStdout(); }

std::string row(int32_t tid, const char *name, int preempt, int strategy) { return fmt("%5d %-18s %-11d %-8d\n", tid, name, preempt, strategy); }

const std::string kListHead = "list threads flag(0:preempt 1:nonpreempt) created by tovi:\n"
                              "tid   name               preemptflag strategy\n";

size_t occurrences(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

uint64_t here() { return reinterpret_cast<uint64_t>(__builtin_frame_address(0)); }

std::vector<int> affinity_of_caller()
{
    uint64_t set[TOVI_CPUSET_WORDS];
    std::vector<int> cpus;
    for (int cpu = 0; tovi_thrd_getbindcpu(pthread_self(), set) == 0 && cpu < 1024; ++cpu)
        if ((set[cpu / 64] >> (cpu % 64) & 1) != 0)
            cpus.push_back(cpu);
    return cpus;
}

void invalidate_strategies()
{
    tovi_thread_strategy_s none{0, ""};  // a list that does not parse invalidates the entry
    for (uint32_t i = 0; i < TOVI_THREAD_STRATEGIES; ++i) tovi_initThreadStrategy(i, &none);
}

struct Stack {
    uint64_t start = 0, end = 0;
    const char *desc = nullptr;
    uint32_t rc;
    Stack(int32_t tid, uint64_t sp) : rc(tovi_thrd_getcurrentstack(tid, sp, &start, &end, &desc)) {}
};


struct PoolWork {
    const std::atomic<bool> *release = nullptr;
    std::atomic<int32_t> tid{0};
    std::atomic<bool> done{false};
    std::string seen;  // name and preempt flag
};

const std::atomic<bool> kOpen{true};
void *pool_work(void *p)
{
    auto *w = static_cast<PoolWork *>(p);
    if (tovi_thread_s *rec = tovi_thrd_currentthreadinfo(); rec != nullptr && rec->arg == p)
        w->seen = tovi_thrd_getname() + std::to_string(rec->preempt_flag);
    w->tid.store(gettid());
    wait_open(w->release != nullptr ? *w->release : kOpen);
    return w->done.store(true), nullptr;
}

size_t idle_pool_threads() { return occurrences(listing(), " OSThrdPoolNull "); }
}  // namespace

TEST(Registry, RawThreadCarriesItsRecordAndStacks)
{
    ASSERT_TRUE(all_slots_free());
    LogCapture cap;
    pthread_t id = 0;
    std::atomic<int32_t> tid{0};
    std::atomic<bool> finish{false};
    std::atomic<uint64_t> frame{0};
    Task task{[&] {
                  tovi_thread_s *rec = tovi_thrd_currentthreadinfo();
                  ASSERT_TRUE(rec != nullptr && rec->start_routine == &run_task);
                  EXPECT_EQ(tovi::thrd::slot_state(rec), TOVI_THREAD_RUNNING);
                  Stack os(0, here()), alt(gettid(), reinterpret_cast<uint64_t>(rec->sig_stack) + 100), none(0, 64);
                  EXPECT_TRUE(os.start == rec->os_stack_low && os.start < here() && os.end > here()) << os.desc;
                  EXPECT_EQ(fmt("%s %#lx %s %u", os.desc, alt.end - alt.start, alt.desc, none.rc),
                            fmt("OS_STACK %#lx SIG_STACK %u", static_cast<unsigned long>(TOVI_THREAD_SIGSTACK_SIZE), TOVI_ERR));
                  EXPECT_TRUE(alt.start == reinterpret_cast<uint64_t>(rec->sig_stack)) << none.desc;
                  EXPECT_STREQ(none.desc, "INVALID_STACK");
                  stack_t ss{};
                  sigaltstack(nullptr, &ss);
                  EXPECT_EQ(ss.ss_sp, rec->sig_stack) << "handlers run on the record's signal stack";
                  frame.store(here()), tid.store(gettid());
                  wait_open(finish);
              }, {}};
    auto done = start(task, create_thread_raw, &id);
    ASSERT_TRUE(wait_for([&] { return tid.load() != 0; }));
    tovi_thread_s *rec = tovi_thrd_getthreadinfobytid(tid.load());
    ASSERT_TRUE(rec != nullptr && pthread_equal(rec->pthread_id, id));
    EXPECT_EQ(__atomic_load_n(&rec->slot->refs, __ATOMIC_RELAXED), 2u);
    EXPECT_STREQ(Stack(tid.load(), frame.load()).desc, "OS_STACK");
    uint64_t start = 0, end = 0;
    EXPECT_TRUE(tovi_thrd_getosstack(tid.load(), &start, &end) == 0u && start == rec->os_stack_low &&
                end == rec->os_stack_high);
    EXPECT_EQ((tovi_thrd_putthreadinfo(rec), __atomic_load_n(&rec->slot->refs, __ATOMIC_RELAXED)), 1u);
    finish = true, done.wait();
    ASSERT_TRUE(all_slots_free());
    EXPECT_STREQ(Stack(tid.load(), frame.load()).desc, "UNKNOWN_STACK");
    EXPECT_TRUE(tovi_thrd_getthreadinfobytid(tid.load()) == nullptr && tovi_thrd_getosstack(tid.load(), &start, &end) == TOVI_ERR);
    EXPECT_TRUE(cap.texts().empty());
}

TEST(Registry, NamesAreCutAt15AndOnlyForLibraryThreads)
{
    LogCapture cap;
    on_tovi_thread([] {
        EXPECT_EQ(tovi_thrd_setname("%s-%d", "abcdefghijklmnop", 42), 0u);
        EXPECT_EQ(kernel_name(), "abcdefghijklmno");
        EXPECT_TRUE(tovi_thrd_setname(nullptr) == TOVI_ERR && tovi_thrd_setname("long:%s", std::string(300, 'z').c_str()) == TOVI_ERR);
        EXPECT_STREQ(tovi_thrd_getname(), "abcdefghijklmno");
        EXPECT_EQ(tovi_set_process_name("svc_main"), 0u);
        EXPECT_EQ(tovi_thrd_getname() + kernel_name(), "svc_mainsvc_main");
    });
    std::thread([] {
        const std::string before = kernel_name();
        EXPECT_TRUE(tovi_thrd_getname() == nullptr && tovi_thrd_setname("worker%d", 1) == TOVI_ERR);
        EXPECT_TRUE(tovi_set_process_name("other") == 0u && kernel_name() == before);
    }).join();
    EXPECT_EQ(cap.texts(3), (Texts{"Tovi set thrd name(NULL) fail.", "vsnprintf_s failed, name(long:%s).",
                                   "Tovi set thrd name(worker%d) fail, please use tovi or Nubo create thrd.",
                                   "Tovi set thrd name(%s) fail, please use tovi or Nubo create thrd."}));
}

TEST(Registry, ListShowsLiveThreadsWithFlagAndStrategy)
{
    ASSERT_TRUE(all_slots_free());
    EXPECT_EQ(listing(), kListHead);
    tovi_thread_strategy_s nowhere{0, "1000"};  // a set without configured CPUs: nothing moves
    ASSERT_EQ(tovi_initThreadStrategy(2, &nowhere), 0u);
    std::atomic<bool> finish{false};
    std::atomic<int32_t> plain{0}, nopreempt{0};
    Task a{[&] { tovi_thrd_setname("lister_a"), plain.store(gettid()), wait_open(finish); }, {}};
    Task b{[&] {
               tovi_thrd_setname("lister_b_name_is_long");
               EXPECT_EQ(tovi_setCurThreadStrategy(2), 0u);
               nopreempt.store(gettid()), wait_open(finish);
           }, {}};
    auto a_done = start(a);
    auto b_done = start(b, create_thread_nopreempt_raw);  // no pool yet: a raw thread
    ASSERT_TRUE(wait_for([&] { return plain.load() != 0 && nopreempt.load() != 0; }));
    EXPECT_EQ(listing(), kListHead + row(plain.load(), "lister_a", 0, 0) +
                             row(nopreempt.load(), "lister_b_name_i", 1, 2));
    finish = true;
    a_done.wait(), b_done.wait();
    ASSERT_TRUE(all_slots_free());
    EXPECT_EQ(listing(), kListHead);
    invalidate_strategies();
}

TEST(Registry, ThreadBeyondTheSlotsRunsUnlistedAndIsFreed)
{
    ASSERT_TRUE(all_slots_free());
    LogCapture cap;
    constexpr uint32_t kThreads = TOVI_THREAD_SLOTS + 1;
    static std::pair<tovi_thread_s *, int32_t> seen[kThreads];  // record, tid
    static std::barrier arrived(kThreads + 1), release(kThreads + 1);
    static std::atomic<uint32_t> finished{0};  // the threads are detached: count them out
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, std::max<size_t>(PTHREAD_STACK_MIN, 128 * 1024));
    auto body = [](void *p) -> void * {
        seen[reinterpret_cast<uintptr_t>(p)] = {tovi_thrd_currentthreadinfo(), static_cast<int32_t>(gettid())};
        arrived.arrive_and_wait(), release.arrive_and_wait();
        return finished.fetch_add(1), nullptr;
    };
    for (uintptr_t i = 0; i < kThreads; ++i)
        ASSERT_EQ(create_thread_raw_base(body, reinterpret_cast<void *>(i), nullptr, nullptr, &attr), 0u) << i;
    pthread_attr_destroy(&attr), arrived.arrive_and_wait();
    std::set<tovi_thread_s *> records;
    std::vector<int32_t> slotless;
    for (const auto &[rec, tid] : seen) {
        ASSERT_TRUE(rec != nullptr && rec->tid == tid);
        records.insert(rec);
        if (rec->slot == nullptr)
            slotless.push_back(tid);
    }
    ASSERT_TRUE(records.size() == kThreads && slotless.size() == 1u) << records.size() << " " << slotless.size();
    EXPECT_EQ(tovi_thrd_getthreadinfobytid(slotless[0]), nullptr);
    EXPECT_EQ(occurrences(listing(), "\n"), 2u + TOVI_THREAD_SLOTS);
    auto usage = [] {
        uint64_t *table = nullptr;
        tovi::companion::syscall(tovi::companion::kCmdMemTable, reinterpret_cast<long>(&table));
        return table == nullptr ? 0 : __atomic_load_n(&table[TOVI_MODULE_ID], __ATOMIC_ACQUIRE);
    };
    const uint64_t during = usage();
    release.arrive_and_wait();
    ASSERT_TRUE(wait_for([] { return finished.load() == kThreads; }) && all_slots_free());
    // The record without slot is freed with its signal stack; the others stay with their slots.
    EXPECT_TRUE(wait_for([&] { return usage() == during - TOVI_THREAD_SIGSTACK_SIZE - sizeof(tovi_thread_s); }))
        << during << " " << usage();
    EXPECT_TRUE(cap.texts().empty());
}

TEST(Registry, AdoptedThreadHasARecordUntilItEnds)
{
    ASSERT_TRUE(all_slots_free());
    int32_t tid = 0;
    std::thread([&] {
        tid = static_cast<int32_t>(gettid());
        ASSERT_EQ(tovi_thrd_setcurthreadinfo(), 0u);
        tovi_thread_s *rec = tovi_thrd_currentthreadinfo(), *found = tovi_thrd_getthreadinfobytid(tid);
        EXPECT_TRUE(tovi_thrd_setcurthreadinfo() == 0u && tovi_thrd_currentthreadinfo() == rec) << "adopting twice keeps it";
        EXPECT_TRUE(found == rec && tovi::thrd::free_slots() == TOVI_THREAD_SLOTS - 1);
        tovi_thrd_putthreadinfo(found);
    }).join();
    EXPECT_TRUE(all_slots_free() && tovi_thrd_getthreadinfobytid(tid) == nullptr);
}

TEST(Ids, CachedIdsProcessNamesCoreAndNuma)
{
    const auto ids_ok = [] { return tovi_thrd_getpid_accl() == getpid() && tovi_thrd_gettid_accl() == gettid(); };
    EXPECT_TRUE(tovi_thrd_setpid_accl() == 0u && ids_ok());
    std::thread([] {
        EXPECT_EQ(tovi_thrd_gettid_accl(), gettid());
        EXPECT_EQ((tovi_thrd_settid_accl(), tovi_thread_get_knl_tid()), gettid());
    }).join();
    EXPECT_EQ(tovi::test::run_in_child([&] { return ids_ok() ? 0 : 1; }), 0) << "the cached ids follow a fork";
    char name[32] = {}, exe[TOVI_PROCESS_EXE_LEN] = {}, link[4096] = {};
    ASSERT_TRUE(tovi_get_process_name(name) == 0u && tovi_get_process_exe_name(exe) == 0u);
    ASSERT_GT(readlink("/proc/self/exe", link, sizeof link - 1), 0);
    EXPECT_EQ(name + std::string("\n"), tovi::test::read_file("/proc/self/comm"));
    EXPECT_EQ(std::string(exe), std::string(link).substr(0, TOVI_PROCESS_EXE_LEN - 1));
    // Core and NUMA ids are thread-local, mirrored into the record; binding through sched records the CPU.
    const int allowed = affinity_of_caller().front();
    on_tovi_thread([allowed] {
        tovi_thread_s *rec = tovi_thrd_currentthreadinfo();
        EXPECT_LT(static_cast<uint32_t>(smp_processor_id()), sysconf(_SC_NPROCESSORS_CONF));
        tovi_thrd_core_set(5), tovi_thrd_numaId_set(1);
        EXPECT_TRUE(smp_processor_id() == 5 && rec->bind_cpu == 5u && rec->numa_id == 1u);
        ASSERT_EQ(tovi_sched_setaffinity(static_cast<uint64_t>(allowed)), 0u);
        EXPECT_TRUE(smp_processor_id() == allowed && rec->bind_cpu == static_cast<uint64_t>(allowed));
        std::thread([] {
            tovi_thrd_core_set(1);  // no record: only the thread-local
            EXPECT_TRUE(tovi_thrd_numaId_get() == ~0U && smp_processor_id() == 1);
        }).join();
        EXPECT_TRUE(tovi_thrd_numaId_get() == 1u && smp_processor_id() == allowed);
    });
}

// The executable's path is cut to the buffer: a copy of this program, under a
// path of the buffer's length and of one more, reports its own name.
TEST(Ids, ExeNameCutAtTheBuffer)
{
    if (const char *out = getenv("TOVI_TEST_EXE_OUT")) {  // the copy's run
        char exe[TOVI_PROCESS_EXE_LEN + 8];
        memset(exe, 'z', sizeof exe);
        ASSERT_TRUE(tovi_get_process_exe_name(exe) == 0u && tovi::test::write_file(out, std::string(exe, strnlen(exe, sizeof exe))));
        return;
    }
    // Under an emulator the shell sees the emulator's binary, this program its own:
    // the copy then runs under the emulator too.
    char self[4096] = {}, host[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    FILE *shell = popen(("readlink /proc/" + std::to_string(getpid()) + "/exe").c_str(), "r");
    ASSERT_TRUE(shell != nullptr && fgets(host, sizeof host, shell) != nullptr);
    pclose(shell);
    host[strcspn(host, "\n")] = '\0';
    const std::string runner = strcmp(host, self) == 0 ? "" : host + std::string(" ");
    char dir[] = "/tmp/tovi_exeXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    for (size_t len : {TOVI_PROCESS_EXE_LEN - 1, TOVI_PROCESS_EXE_LEN}) {
        const std::string exe = dir + ("/" + std::string(len - sizeof dir, 'x')), out = dir + std::string("/name");
        EXPECT_EQ(std::system(("cp " + std::string(self) + " " + exe + " && TOVI_TEST_EXE_OUT=" + out + " " + runner + exe +
                               " --gtest_filter=Ids.ExeNameCutAtTheBuffer >/dev/null").c_str()), 0);
        EXPECT_EQ(tovi::test::read_file(out), exe.substr(0, TOVI_PROCESS_EXE_LEN - 1)) << len;
        unlink(exe.c_str()), unlink(out.c_str());
    }
    rmdir(dir);
}

TEST(Stacks, LightWeightLookupServesStacksTheRecordDoesNotKnow)
{
    static std::atomic<int> g_lwt_calls{0};
    static std::atomic<bool> g_lwt_answer{true};
    static const tovi_lwt_stack_ops_s ops = {[](int32_t, uint64_t sp, uint64_t *start, uint64_t *end) {
                                                 g_lwt_calls.fetch_add(1);
                                                 *start = sp & ~0xFFFULL;
                                                 *end = *start + 0x1000;
                                                 return g_lwt_answer.load() ? 0 : -1;
                                             },
                                             "LWT_STACK"},
                                     other = {ops.get_stack, "OTHER"};
    EXPECT_TRUE(register_lwt_stack_ops(nullptr) == TOVI_ERR && register_lwt_stack_ops(&ops) == 0u);
    EXPECT_EQ(register_lwt_stack_ops(&other), TOVI_ERR);
    on_tovi_thread([] {
        EXPECT_STREQ(Stack(0, here()).desc, "OS_STACK") << "the record's own stacks come first";
        Stack lwt(0, 0x12345678);
        EXPECT_EQ(fmt("%u %s %#lx %#lx", lwt.rc, lwt.desc, lwt.start, lwt.end), "0 LWT_STACK 0x12345000 0x12346000");
        g_lwt_answer.store(false);
        Stack refused(0, 0x12345678);
        EXPECT_TRUE(refused.rc == TOVI_ERR && std::string(refused.desc) == "INVALID_LWT_STACK");
    });
    EXPECT_TRUE(unregister_lwt_stack_ops(&other) == TOVI_ERR && unregister_lwt_stack_ops(&ops) == 0u);
    on_tovi_thread([] { EXPECT_STREQ(Stack(0, 0x12345678).desc, "INVALID_STACK"); });
    EXPECT_EQ(g_lwt_calls.load(), 2);
}

TEST(Watch, ThreadsAnnounceAndEndTheirDeadlines)
{
    LogCapture cap;
    tovi_thread_watch_s entry{};
    EXPECT_TRUE(tovi_thread_watch_get(0, nullptr) == TOVI_ERR && tovi_thread_watch_get(TOVI_THREAD_WATCH_MAX, &entry) == TOVI_ERR);
    on_tovi_thread([] {
        tovi_thrd_setname("watched");
        const int32_t index = tovi_thread_watch_add(1000);
        const auto get = [index](tovi_thread_watch_s &e) { return tovi_thread_watch_get(static_cast<uint32_t>(index), &e); };
        tovi_thread_watch_s e{};
        ASSERT_TRUE(index >= 0 && get(e) == 0u);
        EXPECT_EQ(fmt("%d %s %u %u", e.tid, e.name, e.timeout, e.overdue), fmt("%d watched 1000 0", gettid()));
        EXPECT_EQ(tovi_thread_watch_add(0), index) << "renewing keeps the entry";
        usleep(20000);  // a deadline of 0 jiffies passes at once
        EXPECT_TRUE(get(e) == 0u && e.overdue == 1u);
        EXPECT_TRUE(tovi_thread_watch_del() == 0u && tovi_thread_watch_del() == TOVI_ERR && get(e) == TOVI_ERR);
    });
    // Threads of any kind may be watched; entries outlive them until deleted.
    std::set<int32_t> indexes;
    for (uint32_t i = 0; i < TOVI_THREAD_WATCH_MAX; ++i)
        std::thread([&] { indexes.insert(tovi_thread_watch_add(10)); }).join();
    EXPECT_TRUE(indexes.size() == TOVI_THREAD_WATCH_MAX && *indexes.begin() >= 0 && cap.texts().empty());
    EXPECT_EQ(tovi_thread_watch_add(10), -1);
    EXPECT_EQ(cap.texts(3), Texts{fmt("Thread watch table toviThreadWatch is full, tid:%d.", gettid())});
}

TEST(Strategy, BadNumbersAndCpuListsLeaveEntriesInvalid)
{
    LogCapture cap;
    // A valid entry would raise the nice value: seeing it unchanged shows nothing was applied.
    tovi_thread_strategy_s good{start_nice + 2, "0"}, bad{3, "x"}, none{3, nullptr}, a{-5, "0-1,3,8-9"}, b{19, "1000"};
    ASSERT_TRUE(tovi_initThreadStrategy(6, &good) == TOVI_ERR && tovi_initThreadStrategy(2, &good) == 0u);
    EXPECT_TRUE(tovi_initThreadStrategy(2, &bad) == TOVI_ERR && tovi_initThreadStrategy(2, &none) == TOVI_ERR);
    on_tovi_thread([] {
        const std::vector<int> before = affinity_of_caller();
        EXPECT_TRUE(tovi_setCurThreadStrategy(7) == 0u && tovi_setCurThreadStrategy(2) == 0u);
        EXPECT_TRUE(affinity_of_caller() == before && tovi_thrd_currentthreadinfo()->strategy == 0u);
        EXPECT_EQ(nice_now(), start_nice);
    });
    EXPECT_EQ(cap.texts(6), (Texts{"Invalid thread strategy 6.", "Parse cpu mask fail, invalid format:x",
                                   "Invalid cpu mask info:x.", "Invalid cpu mask info:NULL.",
                                   "Invalid thread strategy 7."}));
    ASSERT_TRUE(tovi_initThreadStrategy(0, &a) == 0u && tovi_initThreadStrategy(5, &b) == 0u);
    testing::internal::CaptureStdout();
    tovi_showThreadStrategyDbg();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "thread strategy table:\nstrategy valid nice  cpus\n"
                                                      "0        1     -5    0-1,3,8-9\n1        0     0     -\n"
                                                      "2        0     3     -\n3        0     0     -\n"
                                                      "4        0     0     -\n5        1     19    1000\n");
    invalidate_strategies();
}

TEST(Strategy, PriorityLevelsAndBindingApplyToTheCallerOnly)
{
    LogCapture cap;
    const int cpu = affinity_of_caller().front();
    on_tovi_thread([&cap, cpu] {
        // {level, nice after}: a level past the table changes nothing.
        const int table[][2] = {{5, start_nice}, {3, 10}, {4, 15}, {99, 15}};
        for (const auto &[level, nice] : table)
            EXPECT_EQ((tovi_thrd_setprio(static_cast<uint32_t>(level)), nice_now()), nice) << "level " << level;
        EXPECT_TRUE(tovi_setCurThreadPrio(12) == 0u && nice_now() == 12);
        const bool may_raise = setpriority(PRIO_PROCESS, 0, 11) == 0;  // lowering nice needs the privilege
        tovi_thrd_setprio(0);
        EXPECT_EQ(nice_now(), may_raise ? -20 : 12);
        EXPECT_EQ(may_raise ? (tovi_thrd_setprio(1), nice_now()) : -15, -15);
        const std::vector<int> before = affinity_of_caller();
        EXPECT_TRUE(tovi_setCurThreadBind("5-2") == TOVI_ERR && affinity_of_caller() == before);
        EXPECT_EQ(cap.texts(3), Texts{fmt("Bind thread:%lu to cpu:5-2 fail, invalid cpu mask.", pthread_self())});
        EXPECT_EQ(cap.texts(6), Texts{"Parse cpu mask 5-2 fail, end:2 is less than start:5"});
        ASSERT_EQ(tovi_setCurThreadBind(std::to_string(cpu).c_str()), 0u);
        EXPECT_EQ(affinity_of_caller(), std::vector<int>{cpu});
        uint64_t by_tid[TOVI_CPUSET_WORDS], want[TOVI_CPUSET_WORDS] = {};
        std::fill(std::begin(by_tid), std::end(by_tid), ~0ULL);
        want[cpu / 64] = 1ULL << (cpu % 64);
        ASSERT_EQ(tovi_thrd_getbindcpu_bypid(static_cast<int32_t>(gettid()), by_tid), 0u);
        EXPECT_TRUE(std::equal(std::begin(by_tid), std::end(by_tid), want)) << "every word is written";
    });
    std::thread([] { EXPECT_EQ(nice_now(), start_nice); }).join();
    EXPECT_EQ(cap.texts(4), geteuid() == 0 ? Texts{} : Texts{"Set thread prio fail -20, errno 13."});
    cap.clear();
    uint64_t set[TOVI_CPUSET_WORDS];
    EXPECT_EQ(tovi_thrd_getbindcpu_bypid(0x7FFFFFF0, set), TOVI_ERR);
    EXPECT_EQ(cap.texts(3),
              Texts{"Get thread(2147483632) affinity bind cpu by pid failed(-1), errno(3:No such process)."});
}


// The pool is made once per process: one test walks its whole life.
TEST(Pool, CreatedOnceServesWorkAndLeavesWhenDestroyed)
{
    ASSERT_TRUE(all_slots_free());
    LogCapture cap;
    PoolWork none;
    EXPECT_TRUE(tovi_thread_pool_create(0) == 0u && create_thread_from_thread_pool(pool_work, &none, nullptr) == TOVI_ERR);
    // A quarter of the pool is started here, the rest by one starter thread.
    EXPECT_EQ(tovi_thread_pool_create(6), 2u);
    ASSERT_TRUE(wait_for([] { return idle_pool_threads() == 6; }));
    EXPECT_TRUE(tovi_thread_pool_create(3) == 0u && cap.texts(3) == (Texts{"Create OS thread pool 6, success 2.", "OS thread pool just allowed create once 3."})) << cap.texts(3).size();
    std::atomic<bool> release{false};
    std::vector<PoolWork> works(6);
    std::set<int32_t> tids;
    for (auto &w : works) {
        w.release = &release;
        ASSERT_EQ(create_thread_from_thread_pool(pool_work, &w, nullptr), 0u);
    }
    EXPECT_EQ(create_thread_from_thread_pool(pool_work, &none, nullptr), TOVI_ERR);
    for (auto &w : works) {
        ASSERT_TRUE(wait_for([&] { return w.tid.load() != 0; }));
        tids.insert(w.tid.load());
        EXPECT_EQ(w.seen, "OSThrdPoolRun1");
    }
    EXPECT_TRUE(tids.size() == 6u && occurrences(listing(), " OSThrdPoolRun ") == 6u);
    // With every pool thread busy, non-preemptive work gets a raw thread.
    PoolWork fallback, pooled, last;
    ASSERT_TRUE(create_thread_nopreempt_raw(pool_work, &fallback, nullptr) == 0u && wait_for([&] { return fallback.done.load(); }));
    EXPECT_TRUE(tids.count(fallback.tid.load()) == 0u && fallback.seen == "[NULL]1") << fallback.seen;
    release = true;
    ASSERT_TRUE(wait_for([] { return idle_pool_threads() == 6; }));
    ASSERT_TRUE(create_thread_nopreempt_raw(pool_work, &pooled, nullptr) == 0u && wait_for([&] { return pooled.done.load(); }));
    EXPECT_TRUE(tids.count(pooled.tid.load()) == 1u && pooled.seen == "OSThrdPoolRun1") << pooled.seen;
    // Work handed right before the destruction still runs.
    ASSERT_TRUE(wait_for([] { return idle_pool_threads() == 6; }));
    cap.clear();
    ASSERT_EQ(create_thread_from_thread_pool(pool_work, &last, nullptr), 0u);
    tovi_thread_pool_destroy();
    EXPECT_EQ(cap.texts(6), Texts{"TBA:res1 6, res2 0."});
    EXPECT_TRUE(wait_for([&] { return last.done.load(); }));
    EXPECT_TRUE(all_slots_free() && create_thread_from_thread_pool(pool_work, &none, nullptr) == TOVI_ERR && none.tid.load() == 0);
}

// Without pool, non-preemptive work gets a raw thread with a small stack, mapped before the routine runs.
TEST(Pool, InstantMapThreadsGetSmallPopulatedStacks)
{
    tovi_set_instant_map_flag(1);
    const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    uint64_t low = 0, high = 0, resident = 0, pages = 0;
    on_tovi_thread([&] {
        low = tovi_thrd_currentthreadinfo()->os_stack_low, high = tovi_thrd_currentthreadinfo()->os_stack_high;
        pages = ((here() & ~(page - 1)) - low - page) / page - 2;  // never touched: well below the frame
        std::vector<unsigned char> vec(pages);
        if (mincore(reinterpret_cast<void *>(low + page), pages * page, vec.data()) == 0)
            resident = static_cast<uint64_t>(std::count_if(vec.begin(), vec.end(), [](auto v) { return v & 1; }));
    }, create_thread_nopreempt_raw);
    tovi_set_instant_map_flag(0);
    EXPECT_GE(high - low, tovi::thrd::kPoolStackSize);
#if !defined(__SANITIZE_THREAD__)  // the thread checker enlarges small stacks
    EXPECT_LE(high - low, tovi::thrd::kPoolStackSize + 65536);
#endif
    // Populating needs a kernel that knows the advice (qemu's user mode ignores it): probe it first.
    void *probe = mmap(nullptr, 4 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    unsigned char vec[4] = {};
    const bool populates = probe != MAP_FAILED && madvise(probe, 4 * page, MADV_POPULATE_WRITE) == 0 &&
                           mincore(probe, 4 * page, vec) == 0 && (vec[0] & vec[3] & 1) != 0;
    munmap(probe, 4 * page);
    EXPECT_TRUE(!populates || resident == pages) << resident << " of " << pages;
}
