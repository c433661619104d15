// CRC32C (Castagnoli) on the hardware and the table path, and CRC16 T10-DIF.
//
// The hardware path takes the processor's CRC32C instruction one 8-byte
// step at a time for short buffers; from kCrc32cFoldMin bytes on, one of the
// processor's carry-less-multiply folding routines may take the whole 16-byte
// blocks and the instruction the rest. Which one, for each power-of-two size
// class, is measured once, on first use: the machine decides where folding
// starts to pay and which width wins, not a guessed threshold. Every path
// gives the table path's result.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

#include <isa-l/crc.h>

#include "tovi_arch.hpp"
#include "tovi_bitop.h"
#include "tovi_bitop.hpp"

namespace {

using tovi::bitop::Crc32cRoutine;

struct Crc32cTable {
    uint32_t entry[256];
};

// Reflected polynomial 0x82F63B78, one byte at a time.
constexpr Crc32cTable make_crc32c_table()
{
    Crc32cTable t{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k)
            c = (c & 1u) != 0 ? (c >> 1) ^ 0x82F63B78u : c >> 1;
        t.entry[i] = c;
    }
    return t;
}

constexpr Crc32cTable kCrc32c = make_crc32c_table();
static_assert(kCrc32c.entry[1] == 0xF26B8303u);

struct Crc16Table {
    uint16_t entry[256];
};

// Polynomial 0x8BB7, most significant bit first.
constexpr Crc16Table make_crc16_table()
{
    Crc16Table t{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i << 8;
        for (int k = 0; k < 8; ++k)
            c = (c & 0x8000u) != 0 ? (c << 1) ^ 0x8BB7u : c << 1;
        t.entry[i] = static_cast<uint16_t>(c);
    }
    return t;
}

constexpr Crc16Table kCrc16 = make_crc16_table();
static_assert(kCrc16.entry[1] == 0x8BB7u);

uint32_t crc32c_table_path(uint32_t crc, const uint8_t *p, uint64_t n)
{
    for (; n != 0; --n, ++p)
        crc = kCrc32c.entry[(crc ^ *p) & 0xFFu] ^ (crc >> 8);
    return crc;
}

using tovi::arch::Crc32cFold;

// Size class of n: floor(log2(n)) (0 for 0), the last class also holding every
// larger size. Classes up to kMeasuredClasses - 1 are measured; the larger
// ones take the last measured class's choice.
constexpr unsigned kClasses = 32;
constexpr unsigned kMeasuredClasses = 17;  // up to 128 KiB
constexpr unsigned kMaxFolds = 4;
constexpr unsigned kRounds = 3;              // best of, against other work on the machine
constexpr uint64_t kBytesPerTiming = 65536;  // enough for a coarse counter to resolve

unsigned size_class(uint64_t n)
{
    const unsigned k = 63u - static_cast<unsigned>(__builtin_clzll(n | 1));
    return k < kClasses ? k : kClasses - 1;
}

// CRC32C with the instruction, the whole 16-byte blocks folded by `fold`
// when given.
uint32_t crc32c_with(Crc32cFold fold, uint32_t crc, const uint8_t *p, uint64_t n)
{
    if (fold != nullptr) {
        const uint64_t blocks = n & ~uint64_t{15};
        crc = fold(crc, p, blocks);
        p += blocks;
        n -= blocks;
    }
    return tovi::arch::crc32c_serial(crc, p, n);
}

// Counter ticks to run `fold` over n bytes, the fastest of kRounds timings.
uint64_t time_route(Crc32cFold fold, const uint8_t *buf, uint64_t n)
{
    const uint64_t reps = n >= kBytesPerTiming ? 1 : kBytesPerTiming / n;
    uint64_t best = UINT64_MAX;
    uint32_t crc = 0;
    for (unsigned round = 0; round < kRounds; ++round) {
        const uint64_t t0 = tovi::arch::cycle_counter_read();
        for (uint64_t i = 0; i < reps; ++i)
            crc = crc32c_with(fold, crc, buf, n);
        const uint64_t t = tovi::arch::cycle_counter_read() - t0;
        best = t < best ? t : best;
    }
    // Keeps the loops: their result is otherwise unused.
    asm volatile("" : : "r"(crc));
    return best;
}

// What the processor offers, and the route of each size class (nullptr: the
// instruction alone), found on first use.
struct Hardware {
    bool instruction;
    Crc32cFold route[kClasses];
};

// Each measured class is timed at one and a half times its lower bound.
void plan_routes(Hardware &hw)
{
    Crc32cFold folds[kMaxFolds];
    const unsigned nfolds = tovi::arch::crc32c_fold_routines(folds, kMaxFolds);
    if (nfolds == 0)
        return;
    constexpr uint64_t kLargest = (uint64_t{1} << (kMeasuredClasses - 1)) * 3 / 2;
    std::vector<uint8_t> buf(kLargest, 0xA5);
    Crc32cFold last = nullptr;
    for (unsigned k = 0; k < kClasses; ++k) {
        const uint64_t n = (uint64_t{1} << k) * 3 / 2;
        if (k >= kMeasuredClasses) {
            hw.route[k] = last;
            continue;
        }
        if ((uint64_t{1} << k) < tovi::arch::kCrc32cFoldMin)
            continue;  // below what folding accepts
        Crc32cFold best = nullptr;
        uint64_t best_ticks = time_route(nullptr, buf.data(), n);
        for (unsigned f = 0; f < nfolds; ++f) {
            const uint64_t t = time_route(folds[f], buf.data(), n);
            if (t < best_ticks) {
                best_ticks = t;
                best = folds[f];
            }
        }
        hw.route[k] = last = best;
    }
}

const Hardware &hardware()
{
    static const Hardware hw = [] {
        Hardware h{};
        h.instruction = tovi::arch::crc32c_hw_available();
        if (h.instruction)
            plan_routes(h);
        return h;
    }();
    return hw;
}

uint32_t crc32c_hardware(uint32_t crc, const uint8_t *p, uint64_t n)
{
    const Hardware &hw = hardware();
    if (!hw.instruction) [[unlikely]]
        return crc32c_table_path(crc, p, n);
    return crc32c_with(hw.route[size_class(n)], crc, p, n);
}

// The CRC32C dispatch: empty until tovi_crc32_init. It holds only a code
// address, so plain relaxed loads and stores serve: no data is published
// through it.
std::atomic<Crc32cRoutine> g_crc32c_dispatch{nullptr};

// Copy and CRC in slices that stay in the first-level cache between the two.
constexpr uint32_t kCopySlice = 4096;

}  // namespace

namespace tovi::bitop {

const uint32_t *crc32c_table()
{
    return kCrc32c.entry;
}

const uint16_t *crc16_table()
{
    return kCrc16.entry;
}

Crc32cRoutine crc32c_hardware_routine()
{
    return hardware().instruction ? crc32c_hardware : crc32c_table_path;
}

Crc32cRoutine crc32c_dispatch()
{
    return g_crc32c_dispatch.load(std::memory_order_relaxed);
}

}  // namespace tovi::bitop

extern "C" uint32_t tovi_crc32_init(void);

namespace {

// Called before start-up: set the dispatch up now rather than fault.
[[gnu::cold, gnu::noinline]] Crc32cRoutine dispatch_before_start()
{
    tovi_crc32_init();
    return g_crc32c_dispatch.load(std::memory_order_relaxed);
}

}  // namespace

extern "C" {

uint32_t tovi_crc32_init(void)
{
    g_crc32c_dispatch.store(tovi::bitop::crc32c_hardware_routine(), std::memory_order_relaxed);
    return 0;
}

uint32_t tovi_crc32cContinue(uint32_t crc, const void *buf, uint32_t len)
{
    if (buf == nullptr || len == 0)
        return crc;
    Crc32cRoutine routine = g_crc32c_dispatch.load(std::memory_order_relaxed);
    // Below the folding bound every route is the instruction loop: run it
    // here, with no call at all (short headers and sectors are the common
    // case).
    if (routine == crc32c_hardware && len < tovi::arch::kCrc32cFoldMin)
        return tovi::arch::crc32c_serial(crc, static_cast<const uint8_t *>(buf), len);
    if (routine == nullptr) [[unlikely]]
        routine = dispatch_before_start();
    return routine(crc, static_cast<const uint8_t *>(buf), len);
}

uint32_t tovi_crc32cContinueHard(uint32_t crc, const void *buf, uint32_t len)
{
    if (buf == nullptr || len == 0)
        return crc;
    return crc32c_hardware(crc, static_cast<const uint8_t *>(buf), len);
}

uint32_t tovi_crc32cContinueSoft(uint32_t crc, const void *buf, uint32_t len)
{
    if (buf == nullptr || len == 0)
        return crc;
    return crc32c_table_path(crc, static_cast<const uint8_t *>(buf), len);
}

uint32_t tovi_crc32cContinue_with_cpy(uint32_t crc, const void *src, uint32_t len, void *dst)
{
    if (src == nullptr || dst == nullptr || len == 0)
        return crc;
    const auto *s = static_cast<const uint8_t *>(src);
    auto *d = static_cast<uint8_t *>(dst);
    while (len != 0) {
        uint32_t n = std::min(len, kCopySlice);
        crc = crc32c_hardware(crc, s, n);
        std::memcpy(d, s, n);
        s += n;
        d += n;
        len -= n;
    }
    return crc;
}

uint32_t tovi_crc32cStart(const void *buf, uint32_t len)
{
    return tovi_crc32cContinue(0xFFFFFFFFu, buf, len);
}

uint32_t tovi_crc32cEnd(uint32_t crc)
{
    return ~crc;
}

uint32_t tovi_crc32c(const void *buf, uint32_t len)
{
    return tovi_crc32cEnd(tovi_crc32cStart(buf, len));
}

uint32_t tovi_crc32c_soft(const void *buf, uint32_t len)
{
    if (buf == nullptr || len == 0)
        return 0;
    return ~crc32c_table_path(0xFFFFFFFFu, static_cast<const uint8_t *>(buf), len);
}

uint16_t tovi_crc16(uint16_t crc, const void *buf, uint64_t len)
{
    if (buf == nullptr || len == 0)
        return crc;
    return crc16_t10dif(crc, static_cast<const unsigned char *>(buf), len);
}

uint16_t tovi_crc16_soft(uint16_t crc, const void *buf, uint64_t len)
{
    if (buf == nullptr || len == 0)
        return crc;
    const auto *p = static_cast<const uint8_t *>(buf);
    for (; len != 0; --len, ++p)
        crc = static_cast<uint16_t>(((crc & 0xFFu) << 8) ^ kCrc16.entry[*p ^ (crc >> 8)]);
    return crc;
}

}  // extern "C"
