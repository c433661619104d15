// Spin, reader-writer and ticket locks.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "race.hpp"
#include "tovi_arch.hpp"
#include "tovi_lock.h"
#include "tovi_lock.hpp"
#include "tovi_symbol.h"
#include "tovi_thread.h"
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

__attribute__((noinline)) void tovi_test_dump_outer(uint32_t skip)
{
    tovi_test_dump_inner(skip);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

// Bends its own saved frame pointer to an address that is no frame record
// (not aligned) while the report runs, then puts it back.
__attribute__((noinline)) void tovi_test_dump_bent_link()
{
    auto *record = const_cast<tovi::arch::FrameRecord *>(tovi::arch::frame_pointer());
    auto *link = reinterpret_cast<volatile uintptr_t *>(&record->next);
    const uintptr_t saved = *link;
    *link = reinterpret_cast<uintptr_t>(record) + 4;
    debug_dump_stack(1);
    *link = saved;
}

}  // extern "C"

namespace {

using namespace std::chrono_literals;
using tovi::test::eventually;
using tovi::test::LogCapture;

constexpr uint64_t kNoOwner = TOVI_LOCK_NO_OWNER;
constexpr uint32_t kMagic = 0xDEAD5EAD;

// Short stack reports, "current tid:%d, stack:%p(%s) << %p(%s) << %p(%s).", as
// [1] the id, then the address and the text of each frame: [2] [3], [4] [5], [6] [7].
std::vector<std::vector<std::string>> stack_lines(const LogCapture &cap)
{
    std::vector<std::vector<std::string>> out;
    for (const auto &r : cap.records()) {
        const size_t at = r.text.find(", stack:");
        if (!r.raw || r.text.rfind("current tid:", 0) != 0 || at == std::string::npos || r.text.back() != '.')
            continue;
        std::vector<std::string> l{r.text, r.text.substr(12, at - 12)};
        std::string rest = r.text.substr(at + 8, r.text.size() - at - 9) + " << ";
        for (size_t end; (end = rest.find(" << ")) != std::string::npos; rest.erase(0, end + 4)) {
            const size_t open = rest.rfind('(', end);
            l.push_back(rest.substr(0, open));
            l.push_back(rest.substr(open + 1, end - open - 2));
        }
        if (l.size() == 8)
            out.push_back(l);
    }
    return out;
}

bool starts_with(const std::string &s, const char *prefix)
{
    return s.rfind(prefix, 0) == 0;
}

uint64_t halves(uint32_t low, uint32_t high)
{
    return static_cast<uint64_t>(high) << 32 | low;
}

}  // namespace


TEST(SpinLock, TrylockUnlockAndFlags)
{
    uint64_t word = 0, flags = 99;
    EXPECT_EQ(tovi_spinlock_trylock(&word), 1u);
    EXPECT_EQ(tovi_spinlock_trylock(&word), 0u) << "held";
    EXPECT_EQ(word, 1u);
    for (uint64_t before : {1, 0, 7}) {  // only a held word (1) is released
        word = before;
        tovi_spinlock_unlock(&word);
        EXPECT_EQ(word, before == 1 ? 0 : before);
    }
    word = 0;
    tovi_spinlock_lock(&word);
    EXPECT_EQ(word, 1u);
    EXPECT_EQ(tovi_spinlock_set_flags(0x5) + tovi_spinlock_clear_flags(0x4), 0u);
    ASSERT_EQ(tovi_spinlock_get_flags(&flags), 0u);
    EXPECT_EQ(flags, 0x1u);
    tovi_spinlock_clear_flags(~0ULL);
}

// Setting and clearing one bit must not lose another thread's bit.
TEST(SpinLock, ConcurrentSetAndClearOfOtherBitsLoseNothing)
{
    std::atomic<bool> lost{false};
    tovi::test::Race race;
    auto toggle = [&](uint64_t bit) {
        uint64_t flags = 0;
        race.wait();
        for (int i = 0; race.more(i) && !lost.load(std::memory_order_relaxed); ++i) {
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
    race.run(400ms);  // the window of a lost update is a few instructions wide
    for (auto &t : threads)
        t.join();
    EXPECT_FALSE(lost.load());
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
    uint64_t wait_ns = 0;
    std::thread waiter([&] {
        waiter_tid = gettid();
        const uint64_t t0 = tovi_time_getnanosec();
        tovi_test_spin_waiter(&word);
        wait_ns = tovi_time_getnanosec() - t0;
        entered = true;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(entered.load());
    tovi_spinlock_unlock(&word);
    waiter.join();
    tovi_spinlock_clear_flags(TOVI_SPINLOCK_DEBUG_LONGWAIT);
    const double wait_ms = static_cast<double>(wait_ns) / 1e6;
    auto lines = stack_lines(cap);
    // Each period is at least 100 us of spinning plus a 1 ms sleep (so the waiter sleeps).
    EXPECT_TRUE(lines.size() >= 5 && static_cast<double>(lines.size()) <= wait_ms / 1.1 + 1) << lines.size() << " in " << wait_ms << " ms";
    for (const auto &l : lines) {
        EXPECT_EQ(std::stol(l[1]), waiter_tid.load());
        EXPECT_TRUE(starts_with(l[3], "tovi_test_spin_waiter+0x")) << l[3];
        EXPECT_NE(l[4], "(nil)");
    }
    EXPECT_EQ(cap.records().size(), lines.size()) << "nothing else is logged";
}


TEST(DumpStack, ReportsThreeReturnAddressesAfterTheSkippedFramesAndStopsAtABadLink)
{
    ASSERT_EQ(tovi_symbol_init(), 0u);
    LogCapture cap;
    tovi_test_dump_outer(0);
    tovi_test_dump_outer(1);
    tovi_test_dump_bent_link();
    auto lines = stack_lines(cap);
    ASSERT_EQ(lines.size(), 3u);
    ASSERT_EQ(cap.records().size(), 3u);
    const char *want[2][2] = {{"tovi_test_dump_inner+0x", "tovi_test_dump_outer+0x"}, {"tovi_test_dump_outer+0x", ""}};
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(std::stol(lines[i][1]), gettid());
        for (int f = 0; f < 2; ++f)
            EXPECT_TRUE(starts_with(lines[i][2 * f + 3], want[i][f])) << lines[i][2 * f + 3];
    }
    EXPECT_EQ(lines[0][7], lines[1][5]) << "the caller of outer, in both";
    // The texts are the symbol table's for the printed addresses.
    char text[64];
    tovi_symbol_addr_to_string(std::stoull(lines[0][4], nullptr, 16), text, sizeof text);
    EXPECT_EQ(lines[0][5], text);
    // A link that is no frame record ends the walk.
    EXPECT_NE(lines[2][2], "(nil)");
    EXPECT_EQ(lines[2][4] + lines[2][6], "(nil)(nil)");
}


// Word values of each form; that each excludes the others is the contention test's.
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
    tovi::lock::rwlock_write_unlock(&word);
    EXPECT_EQ(word, 0);
    word = 5;
    EXPECT_EQ(tovi_rwlock_try_read_lock(&word), 1u);
    tovi_rwlock_read_lock(&word);
    tovi_rwlock_read_lock_mayblock(&word);
    EXPECT_EQ(word, 8);
    tovi::lock::rwlock_read_unlock(&word);
    EXPECT_EQ(word, 7);
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
    LogCapture cap;
    const uint64_t me = static_cast<uint64_t>(gettid());
    std::mt19937 rng(20240611);
    tovi_tspinlock_s l{}, m{};  // m: the model
    for (unsigned step = 1; step <= 3000; ++step) {
        cap.clear();
        std::vector<std::string> expect;
        auto rep = [&](bool when, const char *tag, const char *func = "op") {  // the report as it must read
            char buf[256];
            std::snprintf(buf, sizeof buf, "%s in %s:%u lock:0x%lx magic:0x%x owner:%lu other:%u", tag, func, step,
                          halves(m.serving, m.next), m.magic, m.owner, m.other);
            if (when)
                expect.push_back(buf);
        };
        const unsigned op = rng() % 10;
        const bool inited = m.magic == kMagic, free = m.next == m.serving;
        if (op > 3 && op <= 5 && !free)
            continue;  // a lock would wait for ever
        rep(op != 0 && !inited, "UnInited lock");
        if (op == 0) {
            rep(inited, "ReInited lock");
            m = {0, 0, kMagic, 0xFFFFFFFF, kNoOwner};
            do_tovi_tspinlock_init(&l, "op", step);
        } else if (op <= 5) {  // trylock or lock
            rep(m.owner == me, "AA lock");
            m.next += free;
            m.owner = free ? me : m.owner;
            if (op > 3)
                do_tovi_tspinlock_lock(&l, "op", step);
            else
                ASSERT_EQ(do_tovi_tspinlock_trylock(&l, "op", step), free ? 1u : 0u) << step;
        } else if (op <= 8) {
            rep(m.owner != me, "AB lock");
            m.owner = kNoOwner;
            rep(free, "ReUnlock", "ticket_unlock");
            ++m.serving;
            do_tovi_tspinlock_unlock(&l, "op", step);
        } else {
            m.magic = 0x5EADDEAD;
            do_tovi_tspinlock_destroy(&l, "op", step);
        }
        ASSERT_EQ(cap.texts(6), expect) << "step " << step << " op " << op;
        ASSERT_EQ(cap.records().size(), expect.size()) << "all at level 6";
        ASSERT_EQ(std::tie(l.serving, l.next, l.magic, l.other, l.owner),
                  std::tie(m.serving, m.next, m.magic, m.other, m.owner))
            << step;
    }
}

TEST(TicketSpinLock, CachedThreadIdIsRenewedInAForkedChild)
{
    ASSERT_EQ(tovi_thrd_gettid_accl(), gettid());
    EXPECT_EQ(tovi::test::run_in_child([] {
                  tovi_tspinlock_s l{};
                  do_tovi_tspinlock_init(&l, "f", 1);
                  do_tovi_tspinlock_lock(&l, "f", 2);
                  return tovi_thrd_gettid_accl() == getpid() && l.owner == static_cast<uint64_t>(getpid()) ? 0 : 1;
              }),
              0);
}


// Readers share and take tickets; R1 holds, W arrives, then R2: W enters when
// R1 leaves, R2 only after W. The low half counts all, the high half writers.
TEST(TicketRwLock, CountersAndAWriterWaitingBeforeAReaderGoesFirst)
{
    tovi_trwlock_s l{~0ULL, ~0ULL, ~0ULL};
    tovi_trwlock_init(&l);
    EXPECT_EQ(l.serving + l.tickets + l.reserved, 0u);
    tovi_trwlock_read_lock(&l);  // R1
    EXPECT_EQ(tovi_trwlock_read_trylock(&l), 1u) << "readers share";
    EXPECT_EQ(tovi_trwlock_write_trylock(&l), 0u);
    tovi_trwlock_read_unlock(&l);
    EXPECT_EQ(l.serving, halves(1, 0));
    std::atomic<int> w{0}, r2{0};  // W: 1 in, 2 may leave, 3 leaving; R2: 10 + W's state on entering
    std::thread tw([&] {
        tovi_trwlock_write_lock(&l);
        w = 1;
        while (w.load() != 2)
            std::this_thread::sleep_for(1ms);
        w = 3;
        tovi_trwlock_write_unlock(&l);
    });
    ASSERT_TRUE(eventually([&] { return __atomic_load_n(&l.tickets, __ATOMIC_RELAXED) == halves(3, 1); }));
    std::thread tr([&] {
        tovi_trwlock_read_lock(&l);
        r2 = 10 + w.load();
        tovi_trwlock_read_unlock(&l);
    });
    ASSERT_TRUE(eventually([&] { return __atomic_load_n(&l.tickets, __ATOMIC_RELAXED) == halves(4, 1); }));
    EXPECT_EQ(tovi_trwlock_read_trylock(&l), 0u) << "a writer waits";
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(w.load() + r2.load(), 0);
    tovi_trwlock_read_unlock(&l);  // R1 leaves
    ASSERT_TRUE(eventually([&] { return w.load() == 1; }));
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(r2.load(), 0) << "R2 passed the waiting writer";
    w = 2;
    tw.join();
    tr.join();
    EXPECT_EQ(r2.load(), 13) << "R2 entered after W left";
    EXPECT_EQ(l.serving, halves(4, 1));
    EXPECT_EQ(tovi_trwlock_write_trylock(&l), 1u);
    EXPECT_EQ(l.tickets, halves(5, 2));
    tovi_trwlock_write_unlock(&l);
    tovi_trwlock_destroy(&l);
    EXPECT_EQ(l.serving, halves(5, 2)) << "destroy changes nothing";
}


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
        // The may-block forms stand in for a try: always for the writer, every other time for the reader.
        {"rwlock", [&] { tovi_rwlock_write_lock(&rw); }, [&] { tovi::lock::rwlock_write_unlock(&rw); },
         [&] { return tovi_rwlock_write_lock_mayblock(&rw), true; }, [&] { tovi_rwlock_read_lock(&rw); },
         [&] { tovi::lock::rwlock_read_unlock(&rw); },
         [&, n = 0]() mutable {
             return ++n % 2 ? tovi_rwlock_try_read_lock(&rw) == 1 : (tovi_rwlock_read_lock_mayblock(&rw), true);
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
        EXPECT_TRUE(r.a == r.writes && r.b == r.writes) << ops.name << ": lost updates";
        EXPECT_GE(r.writes, long{tovi::test::Race::kMinRounds}) << ops.name;
        EXPECT_TRUE(!ops.read_lock || r.reads > 0) << ops.name;
    }
    EXPECT_EQ(spin + static_cast<uint64_t>(rw), 0u);
    EXPECT_EQ(ticket.serving, ticket.next);
    EXPECT_EQ(ticket.owner, kNoOwner);
    EXPECT_EQ(trw.serving, trw.tickets) << "every ticket handed out has been served";
    EXPECT_TRUE(cap.records().empty()) << (cap.records().empty() ? "" : cap.texts()[0]);
}
