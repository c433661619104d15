// Thread registry, creation, names, ids, stacks, the watch table, the pool,
// and scheduling strategies with their nice values and CPU binding.
// test-labels: concurrency
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <sched.h>
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
#include "tovi_companion.hpp"
#include "tovi_sched.h"
#include "tovi_thread.h"
#include "tovi_thread.hpp"

using tovi::test::LogCapture;
using Texts = std::vector<std::string>;

namespace {

constexpr uint64_t kRecordBytes = TOVI_THREAD_SIGSTACK_SIZE + sizeof(tovi_thread_s);

bool eventually(const std::function<bool()> &pred, double seconds = 20)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > until)
            return false;
        usleep(1000);
    }
    return true;
}

// Every thread of earlier tests has given its slot back.
bool all_slots_free()
{
    return eventually([] { return tovi::thrd::free_slots() == TOVI_THREAD_SLOTS; });
}

struct Task {
    std::function<void()> body;
    std::promise<void> done;
};

void *run_task(void *arg)
{
    auto *task = static_cast<Task *>(arg);
    task->body();
    task->done.set_value();
    return nullptr;
}

using Creator = uint32_t (*)(tovi_thread_fn, void *, pthread_t *);

// Runs `body` on a thread started by `create` and waits for it to return.
void on_tovi_thread(const std::function<void()> &body, Creator create = create_thread_raw, pthread_t *id = nullptr)
{
    Task task{body, {}};
    auto done = task.done.get_future();
    ASSERT_EQ(create(run_task, &task, id), 0u);
    done.wait();
}

// A gate a thread waits at until the test opens it.
class Gate {
public:
    void open()
    {
        std::lock_guard<std::mutex> g(m_);
        open_ = true;
        cv_.notify_all();
    }
    void wait()
    {
        std::unique_lock<std::mutex> g(m_);
        cv_.wait(g, [this] { return open_; });
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    bool open_ = false;
};

std::string kernel_name()
{
    char name[16] = {};
    prctl(PR_GET_NAME, name);
    return name;
}

int nice_now()
{
    errno = 0;
    return getpriority(PRIO_PROCESS, 0);
}

// The suite may itself run under nice: "unchanged" means the value it started with.
const int start_nice = nice_now();

uint64_t usage_of_library()
{
    uint64_t *table = nullptr;
    tovi::companion::syscall(tovi::companion::kCmdMemTable, reinterpret_cast<long>(&table));
    return table == nullptr ? 0 : __atomic_load_n(&table[TOVI_MODULE_ID], __ATOMIC_ACQUIRE);
}

std::string listing()
{
    testing::internal::CaptureStdout();
    tovi_thrd_list();
    return testing::internal::GetCapturedStdout();
}

std::string row(int32_t tid, const char *name, int preempt, int strategy)
{
    char text[128];
    std::snprintf(text, sizeof text, "%5lu %-18s %-11d %-8d\n", static_cast<unsigned long>(tid), name, preempt,
                  strategy);
    return text;
}

const std::string kListHead = "list threads flag(0:preempt 1:nonpreempt) created by tovi:\n"
                              "tid   name               preemptflag strategy\n";

size_t occurrences(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

uint64_t here()
{
    return reinterpret_cast<uint64_t>(__builtin_frame_address(0));
}

// The lowest CPU this process may run on.
int first_allowed_cpu()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof set, &set);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &set))
            return cpu;
    return -1;
}

std::atomic<const char *> g_handler_desc{nullptr};

void note_stack(int)
{
    uint64_t start = 0;
    uint64_t end = 0;
    const char *desc = nullptr;
    tovi_thrd_getcurrentstack(0, here(), &start, &end, &desc);
    g_handler_desc.store(desc);
}

}  // namespace

// ---- records ----

TEST(Registry, RawThreadCarriesItsRecordAndStacks)
{
    ASSERT_TRUE(all_slots_free());
    LogCapture cap;
    pthread_t id = 0;
    std::atomic<int32_t> tid{0};
    Gate finish;
    std::atomic<uint64_t> frame{0};
    Task task{[&] {
                  tovi_thread_s *rec = tovi_thrd_currentthreadinfo();
                  ASSERT_NE(rec, nullptr);
                  EXPECT_NE(rec->slot, nullptr);
                  EXPECT_EQ(rec->tid, gettid());
                  EXPECT_EQ(rec->pid, getpid());
                  EXPECT_TRUE(pthread_equal(rec->pthread_id, pthread_self()));
                  EXPECT_EQ(rec->start_routine, &run_task);
                  EXPECT_EQ(rec->bind_cpu, ~0ULL);
                  EXPECT_EQ(rec->numa_id, ~0U);
                  EXPECT_EQ(rec->preempt_flag, 0u);
                  EXPECT_STREQ(tovi_thrd_getname(), "[NULL]");
                  EXPECT_EQ(tovi::thrd::slot_state(rec), TOVI_THREAD_RUNNING);

                  stack_t ss{};
                  ASSERT_EQ(sigaltstack(nullptr, &ss), 0);
                  EXPECT_EQ(ss.ss_sp, rec->sig_stack);
                  EXPECT_EQ(ss.ss_size, TOVI_THREAD_SIGSTACK_SIZE);

                  uint64_t start = 0;
                  uint64_t end = 0;
                  const char *desc = nullptr;
                  ASSERT_EQ(tovi_thrd_getcurrentstack(0, here(), &start, &end, &desc), 0u);
                  EXPECT_STREQ(desc, "OS_STACK");
                  EXPECT_EQ(start, rec->os_stack_low);
                  EXPECT_EQ(end, rec->os_stack_high);
                  EXPECT_LT(start, here());
                  EXPECT_GT(end, here());
                  const auto sig = reinterpret_cast<uint64_t>(rec->sig_stack);
                  ASSERT_EQ(tovi_thrd_getcurrentstack(gettid(), sig + 100, &start, &end, &desc), 0u);
                  EXPECT_STREQ(desc, "SIG_STACK");
                  EXPECT_EQ(start, sig);
                  EXPECT_EQ(end, sig + TOVI_THREAD_SIGSTACK_SIZE);
                  EXPECT_EQ(tovi_thrd_getcurrentstack(0, 64, &start, &end, &desc), TOVI_ERR);
                  EXPECT_STREQ(desc, "INVALID_STACK");

                  // A handler installed for the alternate stack runs on the record's.
                  struct sigaction sa {};
                  sa.sa_handler = note_stack;
                  sa.sa_flags = SA_ONSTACK;
                  sigemptyset(&sa.sa_mask);
                  struct sigaction old {};
                  sigaction(SIGRTMIN + 3, &sa, &old);
                  pthread_kill(pthread_self(), SIGRTMIN + 3);
                  sigaction(SIGRTMIN + 3, &old, nullptr);
#if !defined(__SANITIZE_THREAD__)  // the thread checker defers handlers to the normal stack
                  EXPECT_STREQ(g_handler_desc.load(), "SIG_STACK");
#endif

                  frame.store(here());
                  tid.store(gettid());
                  finish.wait();
              },
              {}};
    auto done = task.done.get_future();
    ASSERT_EQ(create_thread_raw(run_task, &task, &id), 0u);
    ASSERT_TRUE(eventually([&] { return tid.load() != 0; }));

    // Another thread finds it by kernel tid, with a reference.
    tovi_thread_s *rec = tovi_thrd_getthreadinfobytid(tid.load());
    ASSERT_NE(rec, nullptr);
    EXPECT_TRUE(pthread_equal(rec->pthread_id, id));
    EXPECT_EQ(__atomic_load_n(&rec->slot->refs, __ATOMIC_RELAXED), 2u);
    uint64_t start = 0;
    uint64_t end = 0;
    const char *desc = nullptr;
    EXPECT_EQ(tovi_thrd_getcurrentstack(tid.load(), frame.load(), &start, &end, &desc), 0u);
    EXPECT_STREQ(desc, "OS_STACK");
    EXPECT_EQ(tovi_thrd_getosstack(tid.load(), &start, &end), 0u);
    EXPECT_EQ(start, rec->os_stack_low);
    EXPECT_EQ(end, rec->os_stack_high);
    EXPECT_EQ(tovi_thread_get_specific_stack(tid.load(), &start, &end), 0u);
    EXPECT_EQ(end, rec->os_stack_high);
    tovi_thrd_putthreadinfo(rec);
    EXPECT_EQ(__atomic_load_n(&rec->slot->refs, __ATOMIC_RELAXED), 1u);
    EXPECT_EQ(tovi::thrd::free_slots(), TOVI_THREAD_SLOTS - 1);

    finish.open();
    done.wait();
    // Once ended it is no longer found and its slot is free again.
    ASSERT_TRUE(all_slots_free());
    EXPECT_EQ(tovi_thrd_getthreadinfobytid(tid.load()), nullptr);
    EXPECT_EQ(tovi_thrd_getcurrentstack(tid.load(), frame.load(), &start, &end, &desc), TOVI_ERR);
    EXPECT_STREQ(desc, "UNKNOWN_STACK");
    EXPECT_EQ(tovi_thrd_getosstack(tid.load(), &start, &end), TOVI_ERR);
    EXPECT_TRUE(cap.texts().empty());
}

TEST(Registry, NamesAreCutAt15AndOnlyForLibraryThreads)
{
    LogCapture cap;
    on_tovi_thread([] {
        EXPECT_EQ(tovi_thrd_setname("%s-%d", "abcdefghijklmnop", 42), 0u);
        EXPECT_STREQ(tovi_thrd_getname(), "abcdefghijklmno");
        EXPECT_EQ(kernel_name(), "abcdefghijklmno");

        EXPECT_EQ(tovi_thrd_setname(nullptr), TOVI_ERR);
        const std::string huge(300, 'z');
        EXPECT_EQ(tovi_thrd_setname("long:%s", huge.c_str()), TOVI_ERR);
        EXPECT_STREQ(tovi_thrd_getname(), "abcdefghijklmno");

        EXPECT_EQ(tovi_set_process_name("svc_main"), 0u);
        EXPECT_STREQ(tovi_thrd_getname(), "svc_main");
        EXPECT_EQ(kernel_name(), "svc_main");
    });
    std::thread plain([] {
        EXPECT_EQ(tovi_thrd_currentthreadinfo(), nullptr);
        EXPECT_EQ(tovi_thrd_getname(), nullptr);
        const std::string before = kernel_name();
        EXPECT_EQ(tovi_thrd_setname("worker%d", 1), TOVI_ERR);
        EXPECT_EQ(tovi_set_process_name("other"), 0u);
        EXPECT_EQ(kernel_name(), before);
    });
    plain.join();
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

    Gate finish;
    std::atomic<int32_t> plain{0};
    std::atomic<int32_t> nopreempt{0};
    Task a{[&] {
               tovi_thrd_setname("lister_a");
               plain.store(gettid());
               finish.wait();
           },
           {}};
    Task b{[&] {
               tovi_thrd_setname("lister_b_name_is_long");
               EXPECT_EQ(tovi_setCurThreadStrategy(2), 0u);
               nopreempt.store(gettid());
               finish.wait();
           },
           {}};
    auto a_done = a.done.get_future();
    auto b_done = b.done.get_future();
    ASSERT_EQ(create_thread_raw(run_task, &a, nullptr), 0u);
    ASSERT_EQ(create_thread_nopreempt_raw(run_task, &b, nullptr), 0u);  // no pool yet: a raw thread
    ASSERT_TRUE(eventually([&] { return plain.load() != 0 && nopreempt.load() != 0; }));

    const std::string text = listing();
    EXPECT_EQ(text.rfind(kListHead, 0), 0u) << text;
    EXPECT_NE(text.find(row(plain.load(), "lister_a", 0, 0)), std::string::npos) << text;
    EXPECT_NE(text.find(row(nopreempt.load(), "lister_b_name_i", 1, 2)), std::string::npos) << text;
    EXPECT_EQ(occurrences(text, "\n"), 4u) << text;

    finish.open();
    a_done.wait();
    b_done.wait();
    ASSERT_TRUE(all_slots_free());
    EXPECT_EQ(listing(), kListHead);
    tovi_thread_strategy_s invalid{0, ""};
    tovi_initThreadStrategy(2, &invalid);
}

// ---- beyond the registry ----

namespace {

struct Beyond {
    pthread_barrier_t arrived;
    pthread_barrier_t release;
    std::atomic<uint32_t> finished{0};
    struct Seen {
        tovi_thread_s *rec = nullptr;
        int32_t tid = 0;
    } seen[TOVI_THREAD_SLOTS + 1];
};

struct BeyondArg {
    Beyond *shared;
    uint32_t index;
};

void *beyond_body(void *p)
{
    auto *arg = static_cast<BeyondArg *>(p);
    Beyond *b = arg->shared;
    b->seen[arg->index] = {tovi_thrd_currentthreadinfo(), static_cast<int32_t>(gettid())};
    pthread_barrier_wait(&b->arrived);
    pthread_barrier_wait(&b->release);
    b->finished.fetch_add(1);
    return nullptr;
}

}  // namespace

TEST(Registry, ThreadBeyondTheSlotsRunsUnlisted)
{
    ASSERT_TRUE(all_slots_free());
    LogCapture cap;
    constexpr uint32_t kThreads = TOVI_THREAD_SLOTS + 1;
    auto shared = std::make_unique<Beyond>();
    pthread_barrier_init(&shared->arrived, nullptr, kThreads + 1);
    pthread_barrier_init(&shared->release, nullptr, kThreads + 1);
    std::vector<BeyondArg> args(kThreads);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, std::max<size_t>(PTHREAD_STACK_MIN, 128 * 1024));
    for (uint32_t i = 0; i < kThreads; ++i) {
        args[i] = {shared.get(), i};
        ASSERT_EQ(create_thread_raw_base(beyond_body, &args[i], nullptr, nullptr, &attr), 0u) << i;
    }
    pthread_attr_destroy(&attr);
    pthread_barrier_wait(&shared->arrived);

    // Every thread runs with a record; exactly one has no slot.
    std::vector<uint32_t> slotless;
    std::set<tovi_thread_s *> records;
    for (uint32_t i = 0; i < kThreads; ++i) {
        ASSERT_NE(shared->seen[i].rec, nullptr);
        EXPECT_EQ(shared->seen[i].rec->tid, shared->seen[i].tid);
        records.insert(shared->seen[i].rec);
        if (shared->seen[i].rec->slot == nullptr)
            slotless.push_back(i);
    }
    EXPECT_EQ(records.size(), kThreads);
    ASSERT_EQ(slotless.size(), 1u);
    EXPECT_EQ(tovi::thrd::free_slots(), 0u);
    const Beyond::Seen &lost = shared->seen[slotless[0]];
    EXPECT_EQ(tovi_thrd_getthreadinfobytid(lost.tid), nullptr);
    const Beyond::Seen &kept = shared->seen[slotless[0] == 0 ? 1 : 0];
    tovi_thread_s *found = tovi_thrd_getthreadinfobytid(kept.tid);
    EXPECT_EQ(found, kept.rec);
    tovi_thrd_putthreadinfo(found);
    const std::string text = listing();
    EXPECT_EQ(occurrences(text, "\n"), 2u + TOVI_THREAD_SLOTS);
    EXPECT_EQ(text.find(row(lost.tid, "[NULL]", 0, 0)), std::string::npos);
    EXPECT_NE(text.find(row(kept.tid, "[NULL]", 0, 0)), std::string::npos);
    const uint64_t during = usage_of_library();

    pthread_barrier_wait(&shared->release);
    ASSERT_TRUE(eventually([&] { return shared->finished.load() == kThreads; }));
    ASSERT_TRUE(all_slots_free());
    // The record without slot is freed with its signal stack; the others
    // stay with their slots.
    EXPECT_TRUE(eventually([&] { return usage_of_library() == during - kRecordBytes; }))
        << during << " " << usage_of_library();
    pthread_barrier_destroy(&shared->arrived);
    pthread_barrier_destroy(&shared->release);
    EXPECT_TRUE(cap.texts().empty());
}

// ---- adopted threads ----

TEST(Registry, AdoptedThreadHasARecordUntilItEnds)
{
    ASSERT_TRUE(all_slots_free());
    LogCapture cap;
    int32_t tid = 0;
    std::thread adopted([&] {
        tid = static_cast<int32_t>(gettid());
        ASSERT_EQ(tovi_thrd_setcurthreadinfo(), 0u);
        tovi_thread_s *rec = tovi_thrd_currentthreadinfo();
        ASSERT_NE(rec, nullptr);
        EXPECT_EQ(tovi_thrd_setcurthreadinfo(), 0u);
        EXPECT_EQ(tovi_thrd_currentthreadinfo(), rec);
        EXPECT_EQ(rec->tid, tid);
        EXPECT_EQ(rec->start_routine, nullptr);
        EXPECT_EQ(tovi::thrd::slot_state(rec), TOVI_THREAD_RUNNING);
        stack_t ss{};
        sigaltstack(nullptr, &ss);
        EXPECT_EQ(ss.ss_sp, rec->sig_stack);
        tovi_thread_s *found = tovi_thrd_getthreadinfobytid(tid);
        EXPECT_EQ(found, rec);
        tovi_thrd_putthreadinfo(found);
        EXPECT_EQ(tovi_thrd_setname("adopted"), 0u);
        EXPECT_EQ(tovi::thrd::free_slots(), TOVI_THREAD_SLOTS - 1);
    });
    adopted.join();
    EXPECT_TRUE(all_slots_free());
    EXPECT_EQ(tovi_thrd_getthreadinfobytid(tid), nullptr);
    EXPECT_TRUE(cap.texts().empty());
}

// ---- ids, thread-locals, process names ----

TEST(Ids, CachedIdsFollowTheCallerAndAFork)
{
    EXPECT_EQ(tovi_thrd_setpid_accl(), 0u);
    EXPECT_EQ(tovi_thrd_getpid_accl(), getpid());
    EXPECT_EQ(tovi_thrd_gettid_accl(), gettid());
    EXPECT_EQ(tovi_thread_get_knl_tid(), gettid());
    std::thread other([] {
        EXPECT_EQ(tovi_thrd_gettid_accl(), gettid());
        EXPECT_NE(tovi_thrd_gettid_accl(), getpid());
        tovi_thrd_settid_accl();
        EXPECT_EQ(tovi_thread_get_knl_tid(), gettid());
    });
    other.join();
    int status = tovi::test::run_in_child([] {
        bool ok = tovi_thrd_getpid_accl() == getpid() && tovi_thrd_gettid_accl() == gettid();
        return ok ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
}

// ---- stack lookups ----

namespace {

std::atomic<int> g_lwt_calls{0};
std::atomic<bool> g_lwt_answer{true};

int lwt_lookup(int32_t, uint64_t sp, uint64_t *start, uint64_t *end)
{
    g_lwt_calls.fetch_add(1);
    if (!g_lwt_answer.load())
        return -1;
    *start = sp & ~0xFFFULL;
    *end = *start + 0x1000;
    return 0;
}

const tovi_lwt_stack_ops_s kLwtOps = {lwt_lookup, "LWT_STACK"};
const tovi_lwt_stack_ops_s kOtherOps = {lwt_lookup, "OTHER"};

}  // namespace

TEST(Stacks, LightWeightLookupServesStacksTheRecordDoesNotKnow)
{
    EXPECT_EQ(register_lwt_stack_ops(nullptr), TOVI_ERR);
    ASSERT_EQ(register_lwt_stack_ops(&kLwtOps), 0u);
    EXPECT_EQ(register_lwt_stack_ops(&kOtherOps), TOVI_ERR);
    on_tovi_thread([] {
        uint64_t start = 0;
        uint64_t end = 0;
        const char *desc = nullptr;
        // The record's own stacks come first.
        ASSERT_EQ(tovi_thrd_getcurrentstack(0, here(), &start, &end, &desc), 0u);
        EXPECT_STREQ(desc, "OS_STACK");
        EXPECT_EQ(g_lwt_calls.load(), 0);
        ASSERT_EQ(tovi_thrd_getcurrentstack(0, 0x12345678, &start, &end, &desc), 0u);
        EXPECT_STREQ(desc, "LWT_STACK");
        EXPECT_EQ(start, 0x12345000u);
        EXPECT_EQ(end, 0x12346000u);
        g_lwt_answer.store(false);
        EXPECT_EQ(tovi_thrd_getcurrentstack(0, 0x12345678, &start, &end, &desc), TOVI_ERR);
        EXPECT_STREQ(desc, "INVALID_LWT_STACK");
        EXPECT_EQ(g_lwt_calls.load(), 2);
    });
    EXPECT_EQ(unregister_lwt_stack_ops(&kOtherOps), TOVI_ERR);
    EXPECT_EQ(unregister_lwt_stack_ops(&kLwtOps), 0u);
    on_tovi_thread([] {
        uint64_t start = 0;
        uint64_t end = 0;
        const char *desc = nullptr;
        EXPECT_EQ(tovi_thrd_getcurrentstack(0, 0x12345678, &start, &end, &desc), TOVI_ERR);
        EXPECT_STREQ(desc, "INVALID_STACK");
    });
    EXPECT_EQ(g_lwt_calls.load(), 2);
}

// ---- thread watch ----

TEST(Watch, ThreadsAnnounceAndEndTheirDeadlines)
{
    LogCapture cap;
    tovi_thread_watch_s entry{};
    EXPECT_EQ(tovi_thread_watch_get(0, nullptr), TOVI_ERR);
    EXPECT_EQ(tovi_thread_watch_get(TOVI_THREAD_WATCH_MAX, &entry), TOVI_ERR);
    on_tovi_thread([] {
        tovi_thrd_setname("watched");
        int32_t index = tovi_thread_watch_add(1000);
        ASSERT_GE(index, 0);
        tovi_thread_watch_s e{};
        ASSERT_EQ(tovi_thread_watch_get(static_cast<uint32_t>(index), &e), 0u);
        EXPECT_EQ(e.tid, gettid());
        EXPECT_STREQ(e.name, "watched");
        EXPECT_EQ(e.timeout, 1000u);
        EXPECT_EQ(e.overdue, 0u);
        // Renewing keeps the entry; a deadline of 0 jiffies passes at once.
        EXPECT_EQ(tovi_thread_watch_add(0), index);
        usleep(20000);
        ASSERT_EQ(tovi_thread_watch_get(static_cast<uint32_t>(index), &e), 0u);
        EXPECT_EQ(e.overdue, 1u);
        EXPECT_EQ(tovi_thread_watch_del(), 0u);
        EXPECT_EQ(tovi_thread_watch_del(), TOVI_ERR);
        EXPECT_EQ(tovi_thread_watch_get(static_cast<uint32_t>(index), &e), TOVI_ERR);
    });
    // Threads of any kind may be watched; entries outlive them until deleted.
    std::set<int32_t> indexes;
    for (uint32_t i = 0; i < TOVI_THREAD_WATCH_MAX; ++i) {
        std::thread t([&] {
            int32_t index = tovi_thread_watch_add(10);
            EXPECT_GE(index, 0);
            indexes.insert(index);
        });
        t.join();
    }
    EXPECT_EQ(indexes.size(), TOVI_THREAD_WATCH_MAX);
    EXPECT_TRUE(cap.texts().empty());
    EXPECT_EQ(tovi_thread_watch_add(10), -1);
    EXPECT_EQ(cap.texts(3), Texts{"Thread watch table toviThreadWatch is full, tid:" + std::to_string(gettid()) + "."});
}

// ---- scheduling strategies, priority and binding ----

namespace {

std::vector<int> affinity_of_caller()
{
    uint64_t set[TOVI_CPUSET_WORDS];
    std::vector<int> cpus;
    if (tovi_thrd_getbindcpu(pthread_self(), set) != 0)
        return cpus;
    for (int cpu = 0; cpu < 1024; ++cpu)
        if ((set[cpu / 64] >> (cpu % 64) & 1) != 0)
            cpus.push_back(cpu);
    return cpus;
}

// An entry is made invalid by a list that does not parse.
void invalidate(uint32_t strategy)
{
    tovi_thread_strategy_s none{0, ""};
    tovi_initThreadStrategy(strategy, &none);
}

class Strategy : public testing::Test {
protected:
    void TearDown() override
    {
        for (uint32_t i = 0; i < TOVI_THREAD_STRATEGIES; ++i)
            invalidate(i);
    }
};

}  // namespace

TEST_F(Strategy, NumbersAboveFiveAreRefusedOrIgnored)
{
    LogCapture cap;
    tovi_thread_strategy_s desc{5, "0"};
    EXPECT_EQ(tovi_initThreadStrategy(6, &desc), TOVI_ERR);
    EXPECT_EQ(tovi_initThreadStrategy(0, nullptr), TOVI_ERR);
    on_tovi_thread([] {
        const std::vector<int> before = affinity_of_caller();
        EXPECT_EQ(tovi_setCurThreadStrategy(7), 0u);
        EXPECT_EQ(nice_now(), start_nice);
        EXPECT_EQ(affinity_of_caller(), before);
        EXPECT_EQ(tovi_thrd_currentthreadinfo()->strategy, 0u);
        // With no valid entry nothing is applied.
        EXPECT_EQ(tovi_setCurThreadStrategy(2), 0u);
        EXPECT_EQ(tovi_thrd_currentthreadinfo()->strategy, 0u);
    });
    EXPECT_EQ(cap.texts(6), (Texts{"Invalid thread strategy 6.", "Invalid thread strategy 7."}));
}

TEST_F(Strategy, ABadCpuListLeavesTheEntryInvalid)
{
    LogCapture cap;
    tovi_thread_strategy_s good{3, "0"};
    ASSERT_EQ(tovi_initThreadStrategy(2, &good), 0u);
    tovi_thread_strategy_s bad{3, "x"};
    EXPECT_EQ(tovi_initThreadStrategy(2, &bad), TOVI_ERR);
    tovi_thread_strategy_s none{3, nullptr};
    EXPECT_EQ(tovi_initThreadStrategy(2, &none), TOVI_ERR);
    EXPECT_EQ(cap.texts(6), (Texts{"Parse cpu mask fail, invalid format:x", "Invalid cpu mask info:x.",
                                   "Invalid cpu mask info:NULL."}));
    on_tovi_thread([] {
        EXPECT_EQ(tovi_setCurThreadStrategy(2), 0u);
        EXPECT_EQ(nice_now(), start_nice);
        EXPECT_EQ(tovi_thrd_currentthreadinfo()->strategy, 0u);
    });
}

TEST_F(Strategy, PriorityLevelsMapToNiceValues)
{
    LogCapture cap;
    on_tovi_thread([] {
        tovi_thrd_setprio(5);
        EXPECT_EQ(nice_now(), start_nice);
        tovi_thrd_setprio(3);
        EXPECT_EQ(nice_now(), 10);
        tovi_thrd_setprio(4);
        EXPECT_EQ(nice_now(), 15);
        tovi_thrd_setprio(99);
        EXPECT_EQ(nice_now(), 15);
        EXPECT_EQ(tovi_setCurThreadPrio(12), 0u);
        EXPECT_EQ(nice_now(), 12);
        // Lowering the nice value needs the privilege to do so.
        const bool may_raise = setpriority(PRIO_PROCESS, 0, 11) == 0;
        tovi_thrd_setprio(0);
        EXPECT_EQ(nice_now(), may_raise ? -20 : 12);
        if (may_raise) {
            tovi_thrd_setprio(1);
            EXPECT_EQ(nice_now(), -15);
            tovi_thrd_setprio(2);
            EXPECT_EQ(nice_now(), 0);
        }
    });
    std::thread plain([] { EXPECT_EQ(nice_now(), start_nice); });
    plain.join();
    if (geteuid() == 0)
        EXPECT_TRUE(cap.texts().empty());
    else
        EXPECT_EQ(cap.texts(4), Texts{"Set thread prio fail -20, errno 13."});
}

TEST_F(Strategy, BindingByListAndReadingItBack)
{
    LogCapture cap;
    const int cpu = first_allowed_cpu();
    ASSERT_GE(cpu, 0);
    on_tovi_thread([&cap, cpu] {
        const std::vector<int> before = affinity_of_caller();
        EXPECT_EQ(tovi_setCurThreadBind("5-2"), TOVI_ERR);
        EXPECT_EQ(tovi_setCurThreadBind(nullptr), TOVI_ERR);
        EXPECT_EQ(affinity_of_caller(), before);
        char text[128];
        std::snprintf(text, sizeof text, "Bind thread:%lu to cpu:5-2 fail, invalid cpu mask.",
                      static_cast<unsigned long>(pthread_self()));
        std::string null_text = text;
        null_text.replace(null_text.find("5-2"), 3, "NULL");
        EXPECT_EQ(cap.texts(3), (Texts{text, null_text}));
        EXPECT_EQ(cap.texts(6), Texts{"Parse cpu mask 5-2 fail, end:2 is less than start:5"});

        ASSERT_EQ(tovi_setCurThreadBind(std::to_string(cpu).c_str()), 0u);
        EXPECT_EQ(affinity_of_caller(), std::vector<int>{cpu});
        uint64_t by_tid[TOVI_CPUSET_WORDS];
        std::fill(std::begin(by_tid), std::end(by_tid), ~0ULL);
        ASSERT_EQ(tovi_thrd_getbindcpu_bypid(static_cast<int32_t>(gettid()), by_tid), 0u);
        for (uint32_t w = 0; w < TOVI_CPUSET_WORDS; ++w)
            EXPECT_EQ(by_tid[w], w == static_cast<uint32_t>(cpu / 64) ? 1ULL << (cpu % 64) : 0u) << w;
    });
    cap.clear();
    uint64_t set[TOVI_CPUSET_WORDS];
    EXPECT_EQ(tovi_thrd_getbindcpu(pthread_self(), nullptr), TOVI_ERR);
    EXPECT_EQ(tovi_thrd_getbindcpu_bypid(0x7FFFFFF0, set), TOVI_ERR);
    EXPECT_EQ(cap.texts(3),
              Texts{"Get thread(2147483632) affinity bind cpu by pid failed(-1), errno(3:No such process)."});
    EXPECT_EQ(tovi_thrd_setbindcpu(pthread_self(), nullptr), TOVI_ERR);
}

TEST_F(Strategy, DebugListingShowsEveryEntry)
{
    tovi_thread_strategy_s a{-5, "0-1,3,8-9"};
    tovi_thread_strategy_s b{19, "1000"};
    ASSERT_EQ(tovi_initThreadStrategy(0, &a), 0u);
    ASSERT_EQ(tovi_initThreadStrategy(5, &b), 0u);
    testing::internal::CaptureStdout();
    tovi_showThreadStrategyDbg();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "thread strategy table:\n"
                                                      "strategy valid nice  cpus\n"
                                                      "0        1     -5    0-1,3,8-9\n"
                                                      "1        0     0     -\n"
                                                      "2        0     0     -\n"
                                                      "3        0     0     -\n"
                                                      "4        0     0     -\n"
                                                      "5        1     19    1000\n");
}

// ---- the pool (once per process: one test walks its whole life) ----

namespace {

struct PoolWork {
    Gate *release = nullptr;
    std::atomic<int32_t> tid{0};
    std::atomic<bool> done{false};
    pthread_t self{};
    std::string name;
    uint32_t preempt = 9;
    void *arg_seen = nullptr;
};

void *pool_work(void *p)
{
    auto *w = static_cast<PoolWork *>(p);
    tovi_thread_s *rec = tovi_thrd_currentthreadinfo();
    w->self = pthread_self();
    w->name = tovi_thrd_getname() != nullptr ? tovi_thrd_getname() : "";
    w->preempt = rec != nullptr ? rec->preempt_flag : 9;
    w->arg_seen = rec != nullptr ? rec->arg : nullptr;
    w->tid.store(gettid());
    if (w->release != nullptr)
        w->release->wait();
    w->done.store(true);
    return nullptr;
}

size_t idle_pool_threads()
{
    return occurrences(listing(), " OSThrdPoolNull ");
}

}  // namespace

TEST(Pool, CreatedOnceServesWorkAndLeavesWhenDestroyed)
{
    ASSERT_TRUE(all_slots_free());
    LogCapture cap;
    PoolWork none;
    EXPECT_EQ(tovi_thread_pool_create(0), 0u);
    EXPECT_EQ(tovi::thrd::pool_size(), 0u);
    EXPECT_EQ(create_thread_from_thread_pool(pool_work, &none, nullptr), TOVI_ERR);

    // A quarter of the pool is started here, the rest by one starter thread.
    EXPECT_EQ(tovi_thread_pool_create(6), 2u);
    EXPECT_EQ(cap.texts(3), Texts{"Create OS thread pool 6, success 2."});
    ASSERT_TRUE(eventually([] { return idle_pool_threads() == 6; }));
    EXPECT_EQ(tovi::thrd::pool_size(), 6u);
    EXPECT_EQ(tovi::thrd::free_slots(), TOVI_THREAD_SLOTS - 6);
    cap.clear();
    EXPECT_EQ(tovi_thread_pool_create(3), 0u);
    EXPECT_EQ(cap.texts(3), Texts{"OS thread pool just allowed create once 3."});

    // Six works occupy the six threads; a seventh finds none idle.
    Gate release;
    std::vector<std::unique_ptr<PoolWork>> works;
    std::vector<pthread_t> ids(6);
    for (int i = 0; i < 6; ++i) {
        works.push_back(std::make_unique<PoolWork>());
        works.back()->release = &release;
        ASSERT_EQ(create_thread_from_thread_pool(pool_work, works.back().get(), &ids[i]), 0u);
    }
    PoolWork seventh;
    EXPECT_EQ(create_thread_from_thread_pool(pool_work, &seventh, nullptr), TOVI_ERR);
    std::set<int32_t> tids;
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(eventually([&] { return works[i]->tid.load() != 0; }));
        tids.insert(works[i]->tid.load());
        EXPECT_TRUE(pthread_equal(works[i]->self, ids[i]));
        EXPECT_EQ(works[i]->name, "OSThrdPoolRun");
        EXPECT_EQ(works[i]->preempt, 1u);
        EXPECT_EQ(works[i]->arg_seen, works[i].get());
    }
    EXPECT_EQ(tids.size(), 6u);
    EXPECT_EQ(idle_pool_threads(), 0u);
    EXPECT_EQ(occurrences(listing(), " OSThrdPoolRun "), 6u);

    // With every pool thread busy, non-preemptive work gets a raw thread.
    PoolWork fallback;
    ASSERT_EQ(create_thread_nopreempt_raw(pool_work, &fallback, nullptr), 0u);
    ASSERT_TRUE(eventually([&] { return fallback.done.load(); }));
    EXPECT_EQ(tids.count(fallback.tid.load()), 0u);
    EXPECT_EQ(fallback.name, "[NULL]");
    EXPECT_EQ(fallback.preempt, 1u);

    release.open();
    ASSERT_TRUE(eventually([] { return idle_pool_threads() == 6; }));
    // Now the pool serves non-preemptive work too.
    PoolWork pooled;
    ASSERT_EQ(create_thread_nopreempt_raw(pool_work, &pooled, nullptr), 0u);
    ASSERT_TRUE(eventually([&] { return pooled.done.load(); }));
    EXPECT_EQ(tids.count(pooled.tid.load()), 1u);
    EXPECT_EQ(pooled.name, "OSThrdPoolRun");

    // Work handed right before the destruction still runs.
    ASSERT_TRUE(eventually([] { return idle_pool_threads() == 6; }));
    PoolWork last;
    cap.clear();
    ASSERT_EQ(create_thread_from_thread_pool(pool_work, &last, nullptr), 0u);
    tovi_thread_pool_destroy();
    EXPECT_EQ(cap.texts(6), Texts{"TBA:res1 6, res2 0."});
    EXPECT_TRUE(eventually([&] { return last.done.load(); }));
    EXPECT_TRUE(all_slots_free());
    EXPECT_EQ(create_thread_from_thread_pool(pool_work, &none, nullptr), TOVI_ERR);
    EXPECT_EQ(none.tid.load(), 0);
}

TEST(Ids, ProcessNameAndExecutable)
{
    char comm[32] = {};
    FILE *f = std::fopen("/proc/self/comm", "r");
    ASSERT_NE(f, nullptr);
    ASSERT_NE(std::fgets(comm, sizeof comm, f), nullptr);
    std::fclose(f);
    comm[std::strcspn(comm, "\n")] = '\0';
    char name[32] = {};
    ASSERT_EQ(tovi_get_process_name(name), 0u);
    EXPECT_STREQ(name, comm);
    EXPECT_EQ(tovi_get_process_name(nullptr), TOVI_ERR);

    char exe[TOVI_PROCESS_EXE_LEN] = {};
    char link[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", link, sizeof link - 1), 0);
    ASSERT_EQ(tovi_get_process_exe_name(exe), 0u);
    EXPECT_EQ(std::string(exe), std::string(link).substr(0, TOVI_PROCESS_EXE_LEN - 1));
    EXPECT_EQ(tovi_get_process_exe_name(nullptr), TOVI_ERR);
}

TEST(Ids, CoreAndNumaAreThreadLocal)
{
    const long cpus = sysconf(_SC_NPROCESSORS_CONF);
    const int allowed = first_allowed_cpu();
    ASSERT_GE(allowed, 0);
    on_tovi_thread([cpus, allowed] {
        tovi_thread_s *rec = tovi_thrd_currentthreadinfo();
        int now = smp_processor_id();
        EXPECT_GE(now, 0);
        EXPECT_LT(now, cpus);
        tovi_thrd_core_set(5);
        EXPECT_EQ(smp_processor_id(), 5);
        EXPECT_EQ(rec->bind_cpu, 5u);
        tovi_thrd_core_set(-1);
        EXPECT_EQ(rec->bind_cpu, ~0ULL);
        EXPECT_EQ(tovi_thrd_numaId_get(), ~0U);
        tovi_thrd_numaId_set(1);
        EXPECT_EQ(tovi_thrd_numaId_get(), 1u);
        EXPECT_EQ(rec->numa_id, 1u);
        // Binding through the sched module records the CPU.
        ASSERT_EQ(tovi_sched_setaffinity(static_cast<uint64_t>(allowed)), 0u);
        EXPECT_EQ(smp_processor_id(), allowed);
        EXPECT_EQ(rec->bind_cpu, static_cast<uint64_t>(allowed));
        std::thread plain([] {
            EXPECT_EQ(tovi_thrd_numaId_get(), ~0U);
            tovi_thrd_core_set(1);  // no record: only the thread-local
            EXPECT_EQ(smp_processor_id(), 1);
        });
        plain.join();
        EXPECT_EQ(tovi_thrd_numaId_get(), 1u);
        EXPECT_EQ(smp_processor_id(), allowed);
    });
}

TEST(Pool, InstantMapThreadsGetSmallPopulatedStacks)
{
    // The pool is gone: non-preemptive work gets a raw thread with a small
    // stack whose pages are mapped before the routine runs.
    tovi_set_instant_map_flag(1);
    EXPECT_EQ(tovi_get_instant_map_flag(), 1);
    struct Seen {
        uint64_t low = 0;
        uint64_t high = 0;
        size_t resident = 0;
        size_t pages = 0;
    } seen;
    on_tovi_thread(
        [&seen] {
            tovi_thread_s *rec = tovi_thrd_currentthreadinfo();
            seen.low = rec->os_stack_low;
            seen.high = rec->os_stack_high;
            const long page = sysconf(_SC_PAGESIZE);
            const uint64_t top = here() & ~static_cast<uint64_t>(page - 1);
            // The pages well below the running frame were never touched.
            const uint64_t from = seen.low + static_cast<uint64_t>(page);
            seen.pages = (top - from) / static_cast<uint64_t>(page) - 2;
            std::vector<unsigned char> vec(seen.pages);
            if (mincore(reinterpret_cast<void *>(from), seen.pages * page, vec.data()) == 0)
                for (unsigned char v : vec)
                    seen.resident += v & 1;
        },
        create_thread_nopreempt_raw);
    tovi_set_instant_map_flag(0);
    EXPECT_GE(seen.high - seen.low, tovi::thrd::kPoolStackSize);
#if !defined(__SANITIZE_THREAD__)  // the thread checker enlarges small stacks
    EXPECT_LE(seen.high - seen.low, tovi::thrd::kPoolStackSize + 65536);
#endif
    // Populating needs a kernel that knows the advice (qemu's user mode
    // ignores it): probe it on a mapping of our own first.
    const long page = sysconf(_SC_PAGESIZE);
    void *probe = mmap(nullptr, 4 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(probe, MAP_FAILED);
    unsigned char vec[4] = {};
    const bool populates = madvise(probe, 4 * page, MADV_POPULATE_WRITE) == 0 &&
                           mincore(probe, 4 * page, vec) == 0 && (vec[0] & vec[3] & 1) != 0;
    munmap(probe, 4 * page);
    if (populates) {
        EXPECT_EQ(seen.resident, seen.pages);
    }
}
