// Spin, reader-writer and ticket locks.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <ctime>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "race.hpp"
#include "tovi_lock.h"
#include "tovi_thread.h"
#include "tovi_arch.hpp"
#include "tovi_lock.hpp"
#include "tovi_symbol.h"
#include "tovi_time.h"

// Functions whose names the stack reports must show; extern "C" so that the
// symbol table gives plain names, never inlined so that each has a frame.
extern "C" {

__attribute__((noinline)) void tovi_test_spin_waiter(uint64_t *word)
{
    tovi_spinlock_lock(word);
    tovi_spinlock_unlock(word);
}

__attribute__((noinline)) void tovi_test_dump_inner(uint32_t skip)
{
    debug_dump_stack(skip);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);  // not a tail call
}

__attribute__((noinline)) void tovi_test_dump_middle(uint32_t skip)
{
    tovi_test_dump_inner(skip);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

__attribute__((noinline)) void tovi_test_dump_outer(uint32_t skip)
{
    tovi_test_dump_middle(skip);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

// Puts 8 KiB of stack between its callee's frames and its caller's.
__attribute__((noinline)) void tovi_test_dump_big_frame(uint32_t skip)
{
    volatile char pad[8192];
    pad[0] = 1;
    pad[sizeof pad - 1] = pad[0];
    tovi_test_dump_inner(skip);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

}  // extern "C"

namespace {

using namespace std::chrono_literals;
using tovi::test::eventually;
using tovi::test::LogCapture;

constexpr uint64_t kNoOwner = TOVI_LOCK_NO_OWNER;

uint64_t my_tid()
{
    return static_cast<uint32_t>(gettid());
}

uint64_t thread_cpu_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

// One parsed short stack report.
struct StackLine {
    long tid = 0;
    std::string address[3];
    std::string text[3];
};

bool starts_with(const std::string &s, const std::string &prefix)
{
    return s.compare(0, prefix.size(), prefix) == 0;
}

// Parses "current tid:%d, stack:%p(%s) << %p(%s) << %p(%s).".
bool parse_stack_line(const std::string &text, StackLine &out)
{
    const std::string head = "current tid:", mid = ", stack:", sep = " << ";
    size_t comma = text.find(mid);
    if (!starts_with(text, head) || comma == std::string::npos || text.back() != '.')
        return false;
    out.tid = std::stol(text.substr(head.size(), comma - head.size()));
    std::string rest = text.substr(comma + mid.size(), text.size() - comma - mid.size() - 1);
    for (int i = 0; i < 3; ++i) {
        size_t end = i < 2 ? rest.find(sep) : rest.size();
        if (end == std::string::npos)
            return false;
        std::string part = rest.substr(0, end);
        size_t open = part.rfind('(');
        if (open == std::string::npos || part.back() != ')')
            return false;
        out.address[i] = part.substr(0, open);
        out.text[i] = part.substr(open + 1, part.size() - open - 2);
        rest = i < 2 ? rest.substr(end + sep.size()) : "";
    }
    return true;
}

std::vector<StackLine> stack_lines(const LogCapture &cap)
{
    std::vector<StackLine> out;
    for (const auto &r : cap.records()) {
        StackLine s;
        if (r.raw && parse_stack_line(r.text, s))
            out.push_back(s);
    }
    return out;
}

// The ticket spin lock's report, as it must read.
std::string report(const char *tag, const char *func, unsigned line, uint64_t pair, uint32_t magic,
                   uint64_t owner, uint32_t other)
{
    char buf[256];
    std::snprintf(buf, sizeof buf, "%s in %s:%u lock:0x%lx magic:0x%x owner:%lu other:%u", tag, func, line, pair,
                  magic, owner, other);
    return buf;
}

uint64_t pair_of(const tovi_tspinlock_s &l)
{
    return static_cast<uint64_t>(__atomic_load_n(&l.next, __ATOMIC_RELAXED)) << 32 |
           __atomic_load_n(&l.serving, __ATOMIC_RELAXED);
}

uint64_t halves(uint32_t low, uint32_t high)
{
    return static_cast<uint64_t>(high) << 32 | low;
}

}  // namespace

// ---- plain spin lock ----

TEST(SpinLock, TrylockAndUnlockResults)
{
    uint64_t word = 0;
    EXPECT_EQ(tovi_spinlock_trylock(&word), 1u);
    EXPECT_EQ(word, 1u);
    EXPECT_EQ(tovi_spinlock_trylock(&word), 0u) << "held";
    EXPECT_EQ(word, 1u);
    tovi_spinlock_unlock(&word);
    EXPECT_EQ(word, 0u);
    tovi_spinlock_unlock(&word);
    EXPECT_EQ(word, 0u) << "unlocking a free lock changes nothing";
    word = 7;
    tovi_spinlock_unlock(&word);
    EXPECT_EQ(word, 7u) << "only a held word (1) is released";
    word = 0;
    tovi_spinlock_lock(&word);
    EXPECT_EQ(word, 1u);
    tovi_spinlock_unlock(&word);
    uint64_t flags = 99;
    EXPECT_EQ(tovi_spinlock_set_flags(0x5), 0u);
    EXPECT_EQ(tovi_spinlock_clear_flags(0x4), 0u);
    ASSERT_EQ(tovi_spinlock_get_flags(&flags), 0u);
    EXPECT_EQ(flags, 0x1u);
    tovi_spinlock_clear_flags(~0ULL);
}

// A waiter spins about 100 us, then sleeps 1 ms, over and over; with the debug
// flag each spin period that runs out is reported with the waiter's id and
// the place that called the lock.
TEST(SpinLock, SpinsThenSleepsAndReportsEachLongSpin)
{
    ASSERT_EQ(tovi_symbol_init(), 0u);
    LogCapture cap;
    uint64_t word = 1;  // held by this thread
    tovi_spinlock_set_flags(TOVI_SPINLOCK_DEBUG_LONGWAIT);
    std::atomic<long> waiter_tid{0};
    std::atomic<bool> entered{false};
    uint64_t wait_ns = 0, cpu_ns = 0;
    std::thread waiter([&] {
        waiter_tid = gettid();
        uint64_t cpu0 = thread_cpu_ns();
        uint64_t t0 = tovi_time_getnanosec();
        tovi_test_spin_waiter(&word);
        wait_ns = tovi_time_getnanosec() - t0;
        cpu_ns = thread_cpu_ns() - cpu0;
        entered = true;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(entered.load());
    tovi_spinlock_unlock(&word);
    waiter.join();
    tovi_spinlock_clear_flags(TOVI_SPINLOCK_DEBUG_LONGWAIT);
    EXPECT_EQ(word, 0u);

    const double wait_ms = static_cast<double>(wait_ns) / 1e6;
    auto lines = stack_lines(cap);
    // Each period is at least 100 us of spinning plus a 1 ms sleep.
    EXPECT_LE(static_cast<double>(lines.size()), wait_ms / 1.1 + 1) << wait_ms << " ms";
    EXPECT_GE(lines.size(), 5u) << wait_ms << " ms";
    EXPECT_LT(static_cast<double>(cpu_ns), 0.5 * static_cast<double>(wait_ns))
        << "mostly asleep: cpu " << cpu_ns / 1000 << " us of " << wait_ns / 1000 << " us";
    for (const auto &l : lines) {
        EXPECT_EQ(l.tid, waiter_tid.load());
        EXPECT_TRUE(starts_with(l.text[0], "tovi_test_spin_waiter+0x")) << l.text[0];
        EXPECT_NE(l.address[1], "(nil)");
    }
    EXPECT_EQ(cap.records().size(), lines.size()) << "nothing else is logged";
}

// ---- short stack report ----

TEST(DumpStack, ReportsThreeReturnAddressesAfterTheSkippedFrames)
{
    ASSERT_EQ(tovi_symbol_init(), 0u);
    LogCapture cap;
    tovi_test_dump_outer(0);
    tovi_test_dump_outer(1);
    auto lines = stack_lines(cap);
    ASSERT_EQ(lines.size(), 2u);
    ASSERT_EQ(cap.records().size(), 2u);
    EXPECT_TRUE(cap.records()[0].raw);
    for (const auto &l : lines)
        EXPECT_EQ(l.tid, gettid());
    EXPECT_TRUE(starts_with(lines[0].text[0], "tovi_test_dump_inner+0x")) << lines[0].text[0];
    EXPECT_TRUE(starts_with(lines[0].text[1], "tovi_test_dump_middle+0x")) << lines[0].text[1];
    EXPECT_TRUE(starts_with(lines[0].text[2], "tovi_test_dump_outer+0x")) << lines[0].text[2];
    EXPECT_TRUE(starts_with(lines[1].text[0], "tovi_test_dump_middle+0x")) << lines[1].text[0];
    EXPECT_TRUE(starts_with(lines[1].text[1], "tovi_test_dump_outer+0x")) << lines[1].text[1];
    // The texts are the symbol table's for the printed addresses.
    char text[64];
    tovi_symbol_addr_to_string(std::stoull(lines[0].address[1], nullptr, 16), text, sizeof text);
    EXPECT_EQ(lines[0].text[1], text);
}

// ---- reader-writer spin lock ----

TEST(RwSpinLock, WordValuesOfReadersAndBothWriterForms)
{
    int64_t word = 0;
    tovi_rwlock_write_lock(&word);
    EXPECT_EQ(word, -1) << "all ones";
    EXPECT_EQ(tovi_rwlock_try_read_lock(&word), 0u);
    tovi::lock::rwlock_write_unlock(&word);
    tovi_rwlock_write_lock_mayblock(&word);
    EXPECT_EQ(word, INT64_MIN) << "only bit 63";
    EXPECT_EQ(tovi_rwlock_try_read_lock(&word), 0u);
    EXPECT_EQ(word, INT64_MIN);
    tovi::lock::rwlock_write_unlock(&word);
    EXPECT_EQ(word, 0);

    word = 5;
    EXPECT_EQ(tovi_rwlock_try_read_lock(&word), 1u);
    EXPECT_EQ(word, 6);
    tovi_rwlock_read_lock(&word);
    tovi_rwlock_read_lock_mayblock(&word);
    EXPECT_EQ(word, 8);
    tovi::lock::rwlock_read_unlock(&word);
    EXPECT_EQ(word, 7);
}

// Readers, plain and may-block, wait for a writer of either form and enter
// once it stores 0; writers wait for readers.
TEST(RwSpinLock, ReadersWaitForEitherWriterForm)
{
    for (int form = 0; form < 2; ++form) {
        for (int reader_kind = 0; reader_kind < 2; ++reader_kind) {
            int64_t word = 0;
            if (form == 0)
                tovi_rwlock_write_lock(&word);
            else
                tovi_rwlock_write_lock_mayblock(&word);
            std::atomic<bool> entered{false};
            std::thread reader([&] {
                if (reader_kind == 0)
                    tovi_rwlock_read_lock(&word);
                else
                    tovi_rwlock_read_lock_mayblock(&word);
                entered = true;
            });
            std::this_thread::sleep_for(20ms);
            EXPECT_FALSE(entered.load()) << "form " << form << " reader " << reader_kind;
            tovi::lock::rwlock_write_unlock(&word);
            reader.join();
            EXPECT_TRUE(entered.load());
            EXPECT_EQ(__atomic_load_n(&word, __ATOMIC_RELAXED), 1);
        }
    }
    for (int form = 0; form < 2; ++form) {
        int64_t word = 0;
        tovi_rwlock_read_lock(&word);
        tovi_rwlock_read_lock(&word);
        std::atomic<bool> entered{false};
        std::thread writer([&] {
            if (form == 0)
                tovi_rwlock_write_lock(&word);
            else
                tovi_rwlock_write_lock_mayblock(&word);
            entered = true;
        });
        tovi::lock::rwlock_read_unlock(&word);
        std::this_thread::sleep_for(20ms);
        EXPECT_FALSE(entered.load()) << "one reader left";
        tovi::lock::rwlock_read_unlock(&word);
        writer.join();
        EXPECT_EQ(__atomic_load_n(&word, __ATOMIC_RELAXED), form == 0 ? -1 : INT64_MIN);
    }
}

// ---- ticket spin lock ----

TEST(TicketSpinLock, SelfDeadlockAndForeignUnlock)
{
    LogCapture cap;
    tovi_tspinlock_s l{};
    do_tovi_tspinlock_init(&l, "f", 1);
    std::atomic<uint64_t> tid{0};
    std::atomic<int> stage{0};
    std::thread t([&] {
        tid = my_tid();
        do_tovi_tspinlock_lock(&l, "first", 30);
        stage = 1;
        do_tovi_tspinlock_lock(&l, "second", 31);
        stage = 2;
        do_tovi_tspinlock_unlock(&l, "release", 32);
    });
    ASSERT_TRUE(eventually([&] { return cap.records().size() == 1; }));
    const uint64_t holder = tid.load();
    EXPECT_EQ(cap.texts()[0], report("AA lock", "second", 31, 0x100000000u, 0xDEAD5EAD, holder, 0xFFFFFFFF));
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(stage.load(), 1) << "the second lock waits for its own release";
    do_tovi_tspinlock_unlock(&l, "rescuer", 33);
    t.join();
    EXPECT_EQ(stage.load(), 2);
    ASSERT_EQ(cap.records().size(), 2u);
    EXPECT_EQ(cap.texts()[1], report("AB lock", "rescuer", 33, 0x200000000u, 0xDEAD5EAD, holder, 0xFFFFFFFF));
    EXPECT_EQ(pair_of(l), 0x200000002u);
    EXPECT_EQ(l.owner, kNoOwner);
}

TEST(TicketSpinLock, WaitersEnterInTicketOrder)
{
    tovi_tspinlock_s l{};
    do_tovi_tspinlock_init(&l, "f", 1);
    do_tovi_tspinlock_lock(&l, "f", 2);
    std::vector<int> order;  // written under the lock
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
            do_tovi_tspinlock_lock(&l, "waiter", 3);
            order.push_back(i);
            do_tovi_tspinlock_unlock(&l, "waiter", 4);
        });
        // The next waiter starts only once this one holds its ticket.
        ASSERT_TRUE(eventually([&] { return __atomic_load_n(&l.next, __ATOMIC_RELAXED) == uint32_t(i) + 2; }));
    }
    do_tovi_tspinlock_unlock(&l, "f", 5);
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

// Random single-thread sequences of every operation against a model that
// predicts the fields, the results and each report.
TEST(TicketSpinLock, MatchesAModelOfFieldsResultsAndReports)
{
    struct Model {
        uint32_t serving = 0, next = 0, magic = 0, other = 0;
        uint64_t owner = 0;
        uint64_t pair() const { return static_cast<uint64_t>(next) << 32 | serving; }
    };
    LogCapture cap;
    const uint64_t me = my_tid();
    std::mt19937 rng(20240611);
    tovi_tspinlock_s l{};
    Model m;
    for (unsigned step = 1; step <= 3000; ++step) {
        cap.clear();
        std::vector<std::string> expect;
        auto rep = [&](const char *tag, const char *func) {
            expect.push_back(report(tag, func, step, m.pair(), m.magic, m.owner, m.other));
        };
        auto check_lock = [&] {
            if (m.magic != 0xDEAD5EAD)
                rep("UnInited lock", "op");
            if (m.owner == me)
                rep("AA lock", "op");
        };
        const unsigned op = rng() % 10;
        if (op == 0) {
            if (m.magic == 0xDEAD5EAD)
                rep("ReInited lock", "op");
            m = Model{0, 0, 0xDEAD5EAD, 0xFFFFFFFF, kNoOwner};
            do_tovi_tspinlock_init(&l, "op", step);
        } else if (op <= 3) {
            check_lock();
            uint32_t want = m.next == m.serving ? 1 : 0;
            if (want == 1) {
                ++m.next;
                m.owner = me;
            }
            ASSERT_EQ(do_tovi_tspinlock_trylock(&l, "op", step), want) << step;
        } else if (op <= 5) {
            if (m.next != m.serving)
                continue;  // would wait for ever
            check_lock();
            ++m.next;
            m.owner = me;
            do_tovi_tspinlock_lock(&l, "op", step);
        } else if (op <= 8) {
            if (m.magic != 0xDEAD5EAD)
                rep("UnInited lock", "op");
            if (m.owner != me)
                rep("AB lock", "op");
            m.owner = kNoOwner;
            if (m.next == m.serving)
                rep("ReUnlock", "ticket_unlock");
            ++m.serving;
            do_tovi_tspinlock_unlock(&l, "op", step);
        } else {
            if (m.magic != 0xDEAD5EAD)
                rep("UnInited lock", "op");
            m.magic = 0x5EADDEAD;
            do_tovi_tspinlock_destroy(&l, "op", step);
        }
        ASSERT_EQ(cap.texts(), expect) << "step " << step << " op " << op;
        for (const auto &r : cap.records())
            ASSERT_EQ(r.level, 6u) << r.text;
        ASSERT_EQ(l.serving, m.serving) << step;
        ASSERT_EQ(l.next, m.next) << step;
        ASSERT_EQ(l.magic, m.magic) << step;
        ASSERT_EQ(l.other, m.other) << step;
        ASSERT_EQ(l.owner, m.owner) << step;
    }
}

TEST(TicketSpinLock, CachedThreadIdIsRenewedInAForkedChild)
{
    ASSERT_EQ(tovi_thrd_gettid_accl(), gettid());
    int status = tovi::test::run_in_child([] {
        if (tovi_thrd_gettid_accl() != getpid())
            return 1;
        tovi_tspinlock_s l{};
        do_tovi_tspinlock_init(&l, "f", 1);
        do_tovi_tspinlock_lock(&l, "f", 2);
        return l.owner == static_cast<uint64_t>(getpid()) ? 0 : 2;
    });
    EXPECT_EQ(status, 0);
}

// ---- ticket reader-writer lock ----

TEST(TicketRwLock, CountersOfEachOperation)
{
    tovi_trwlock_s l{~0ULL, ~0ULL, ~0ULL};
    tovi_trwlock_init(&l);
    EXPECT_EQ(l.serving, 0u);
    EXPECT_EQ(l.tickets, 0u);
    EXPECT_EQ(l.reserved, 0u);
    tovi_trwlock_read_lock(&l);
    EXPECT_EQ(l.tickets, halves(1, 0));
    EXPECT_EQ(tovi_trwlock_read_trylock(&l), 1u) << "readers share";
    EXPECT_EQ(tovi_trwlock_write_trylock(&l), 0u);
    EXPECT_EQ(l.tickets, halves(2, 0));
    tovi_trwlock_read_unlock(&l);
    tovi_trwlock_read_unlock(&l);
    EXPECT_EQ(l.serving, halves(2, 0));
    tovi_trwlock_write_lock(&l);
    EXPECT_EQ(l.tickets, halves(3, 1));
    EXPECT_EQ(tovi_trwlock_read_trylock(&l), 0u);
    EXPECT_EQ(tovi_trwlock_write_trylock(&l), 0u);
    tovi_trwlock_write_unlock(&l);
    EXPECT_EQ(l.serving, halves(3, 1));
    EXPECT_EQ(tovi_trwlock_write_trylock(&l), 1u);
    EXPECT_EQ(l.tickets, halves(4, 2));
    tovi_trwlock_write_unlock(&l);
    EXPECT_EQ(l.serving, halves(4, 2));
    tovi_trwlock_destroy(&l);
    EXPECT_EQ(l.serving, halves(4, 2)) << "destroy changes nothing";
    EXPECT_EQ(l.reserved, 0u);
}

// R1 holds; W arrives, then R2: W enters when R1 leaves, R2 only after W.
TEST(TicketRwLock, AWriterWaitingBeforeAReaderGoesFirst)
{
    tovi_trwlock_s l{};
    tovi_trwlock_init(&l);
    tovi_trwlock_read_lock(&l);  // R1
    std::mutex m;
    std::vector<std::string> order;
    auto note = [&](const char *what) {
        std::lock_guard<std::mutex> g(m);
        order.push_back(what);
    };
    std::atomic<bool> w_may_leave{false};
    std::thread w([&] {
        tovi_trwlock_write_lock(&l);
        note("W in");
        while (!w_may_leave.load())
            std::this_thread::sleep_for(1ms);
        note("W out");
        tovi_trwlock_write_unlock(&l);
    });
    ASSERT_TRUE(eventually([&] { return __atomic_load_n(&l.tickets, __ATOMIC_RELAXED) == halves(2, 1); }));
    std::thread r2([&] {
        tovi_trwlock_read_lock(&l);
        note("R2 in");
        tovi_trwlock_read_unlock(&l);
    });
    ASSERT_TRUE(eventually([&] { return __atomic_load_n(&l.tickets, __ATOMIC_RELAXED) == halves(3, 1); }));
    EXPECT_EQ(tovi_trwlock_read_trylock(&l), 0u) << "a writer waits";
    std::this_thread::sleep_for(20ms);
    {
        std::lock_guard<std::mutex> g(m);
        EXPECT_TRUE(order.empty()) << "R2 must not pass the waiting writer";
    }
    tovi_trwlock_read_unlock(&l);  // R1 leaves
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> g(m);
        return !order.empty();
    }));
    std::this_thread::sleep_for(20ms);
    {
        std::lock_guard<std::mutex> g(m);
        EXPECT_EQ(order, std::vector<std::string>{"W in"}) << "R2 waits while W holds";
    }
    w_may_leave = true;
    w.join();
    r2.join();
    EXPECT_EQ(order, (std::vector<std::string>{"W in", "W out", "R2 in"}));
    EXPECT_EQ(l.serving, halves(3, 1));
}

// ---- every lock under contention ----

TEST(Locks, EachExcludesWritersAndLetsOnlyReadersShare)
{
    LogCapture cap;
    uint64_t spin = 0;
    int64_t rw = 0;
    tovi_tspinlock_s ticket{};
    tovi_tspinlock_init(&ticket);
    tovi_trwlock_s trw{};
    tovi_trwlock_init(&trw);
    const tovi::test::LockOps table[] = {
        {"spinlock", [&] { tovi_spinlock_lock(&spin); }, [&] { tovi_spinlock_unlock(&spin); },
         [&] { return tovi_spinlock_trylock(&spin) == 1; }, {}, {}, {}},
        {"rwlock", [&] { tovi_rwlock_write_lock(&rw); }, [&] { tovi::lock::rwlock_write_unlock(&rw); },
         [&] {
             tovi_rwlock_write_lock_mayblock(&rw);  // the other writer form stands in for a try
             return true;
         },
         [&] { tovi_rwlock_read_lock(&rw); }, [&] { tovi::lock::rwlock_read_unlock(&rw); },
         [&] {
             static thread_local int n;
             if (++n % 2 == 0) {
                 tovi_rwlock_read_lock_mayblock(&rw);
                 return true;
             }
             return tovi_rwlock_try_read_lock(&rw) == 1;
         }},
        {"ticket spinlock", [&] { tovi_tspinlock_lock(&ticket); }, [&] { tovi_tspinlock_unlock(&ticket); },
         [&] { return tovi_tspinlock_trylock(&ticket) == 1; }, {}, {}, {}},
        {"ticket rwlock", [&] { tovi_trwlock_write_lock(&trw); }, [&] { tovi_trwlock_write_unlock(&trw); },
         [&] { return tovi_trwlock_write_trylock(&trw) == 1; }, [&] { tovi_trwlock_read_lock(&trw); },
         [&] { tovi_trwlock_read_unlock(&trw); }, [&] { return tovi_trwlock_read_trylock(&trw) == 1; }},
    };
    for (const auto &ops : table) {
        const auto r = tovi::test::race_lock(ops);
        EXPECT_EQ(r.torn, 0) << ops.name;
        EXPECT_EQ(r.a, r.writes) << ops.name;
        EXPECT_EQ(r.b, r.writes) << ops.name;
        EXPECT_GE(r.writes, long{tovi::test::Race::kMinRounds}) << ops.name;
        if (ops.read_lock) {
            EXPECT_GT(r.reads, 0) << ops.name;
        }
    }
    EXPECT_EQ(spin, 0u);
    EXPECT_EQ(rw, 0);
    EXPECT_EQ(ticket.serving, ticket.next);
    EXPECT_EQ(ticket.owner, kNoOwner);
    // Every ticket handed out has been served.
    EXPECT_EQ(trw.serving, trw.tickets);
    EXPECT_TRUE(cap.records().empty()) << (cap.records().empty() ? "" : cap.texts()[0]);
}

// ---- flags words and frame walks under stress ----

TEST(SpinLock, ConcurrentSetAndClearOfOtherBitsLoseNothing)
{
    std::atomic<bool> lost{false};
    auto toggle = [&lost](uint64_t bit) {
        uint64_t flags = 0;
        for (int i = 0; i < 1000000 && !lost.load(std::memory_order_relaxed); ++i) {
            tovi_spinlock_set_flags(bit);
            tovi_spinlock_get_flags(&flags);
            bool set = (flags & bit) != 0;
            tovi_spinlock_clear_flags(bit);
            tovi_spinlock_get_flags(&flags);
            if (!set || (flags & bit) != 0)
                lost = true;
        }
    };
    std::vector<std::thread> threads;
    for (unsigned bit = 40; bit < 44; ++bit)
        threads.emplace_back(toggle, uint64_t{1} << bit);
    for (auto &t : threads)
        t.join();
    EXPECT_FALSE(lost.load());
}

// Bends its own saved frame pointer to an address that is no frame record
// (not aligned) while the report runs, then puts it back.
extern "C" __attribute__((noinline)) void tovi_test_dump_bent_link()
{
    auto *record = const_cast<tovi::arch::FrameRecord *>(tovi::arch::frame_pointer());
    auto *link = reinterpret_cast<volatile uintptr_t *>(&record->next);
    const uintptr_t saved = *link;
    *link = reinterpret_cast<uintptr_t>(record) + 4;
    debug_dump_stack(1);
    *link = saved;
}

TEST(DumpStack, StopsAtALinkThatIsNoFrameRecord)
{
    LogCapture cap;
    tovi_test_dump_bent_link();
    auto lines = stack_lines(cap);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].address[0], "(nil)");
    EXPECT_EQ(lines[0].address[1], "(nil)");
    EXPECT_EQ(lines[0].address[2], "(nil)");
}
