// CRC32C and CRC16 T10-DIF against ISA-L's crc32_iscsi and crc16_t10dif;
// CRC32C also against the plain loop of the processor's CRC32C instruction.
// bench-link: isal
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include <isa-l/crc.h>

#include "tovi_arch.hpp"
#include "tovi_bitop.h"

namespace {

const std::vector<uint8_t> &data()
{
    static const std::vector<uint8_t> bytes = [] {
        std::vector<uint8_t> v((1u << 20) + 64);
        std::mt19937_64 rng(1);
        for (auto &b : v)
            b = static_cast<uint8_t>(rng());
        return v;
    }();
    return bytes;
}

// Each call continues from the previous result, as a caller walking a
// buffer chain would: the calls cannot overlap.
void BM_tovi_crc32c(benchmark::State &state)
{
    tovi_crc32_init();
    auto len = static_cast<uint32_t>(state.range(0));
    const uint8_t *p = data().data();
    uint32_t crc = 0xFFFFFFFFu;
    for (auto _ : state)
        crc = tovi_crc32cContinue(crc, p, len);
    benchmark::DoNotOptimize(crc);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * len);
}

void BM_isal_crc32_iscsi(benchmark::State &state)
{
    auto len = static_cast<int>(state.range(0));
    auto *p = const_cast<unsigned char *>(data().data());
    unsigned int crc = 0xFFFFFFFFu;
    for (auto _ : state)
        crc = crc32_iscsi(p, len, crc);
    benchmark::DoNotOptimize(crc);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * len);
}

// The one-instruction loop: 8 bytes a step, one dependent chain.
void BM_crc32c_instruction_loop(benchmark::State &state)
{
    if (!tovi::arch::crc32c_hw_available()) {
        state.SkipWithError("no CRC32C instruction");
        return;
    }
    auto len = static_cast<uint64_t>(state.range(0));
    const uint8_t *p = data().data();
    uint32_t crc = 0xFFFFFFFFu;
    for (auto _ : state)
        crc = tovi::arch::crc32c_serial(crc, p, len);
    benchmark::DoNotOptimize(crc);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
}

void BM_tovi_crc32c_soft(benchmark::State &state)
{
    auto len = static_cast<uint32_t>(state.range(0));
    const uint8_t *p = data().data();
    uint32_t crc = 0xFFFFFFFFu;
    for (auto _ : state)
        crc = tovi_crc32cContinueSoft(crc, p, len);
    benchmark::DoNotOptimize(crc);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * len);
}

void BM_tovi_crc32c_with_cpy(benchmark::State &state)
{
    auto len = static_cast<uint32_t>(state.range(0));
    std::vector<uint8_t> dst(len);
    uint32_t crc = 0xFFFFFFFFu;
    for (auto _ : state)
        crc = tovi_crc32cContinue_with_cpy(crc, data().data(), len, dst.data());
    benchmark::DoNotOptimize(crc);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * len);
}

void BM_tovi_crc16(benchmark::State &state)
{
    auto len = static_cast<uint64_t>(state.range(0));
    const uint8_t *p = data().data();
    uint16_t crc = 0;
    for (auto _ : state)
        crc = tovi_crc16(crc, p, len);
    benchmark::DoNotOptimize(crc);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
}

void BM_isal_crc16_t10dif(benchmark::State &state)
{
    auto len = static_cast<uint64_t>(state.range(0));
    const uint8_t *p = data().data();
    uint16_t crc = 0;
    for (auto _ : state)
        crc = crc16_t10dif(crc, p, len);
    benchmark::DoNotOptimize(crc);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
}

void BM_tovi_crc16_soft(benchmark::State &state)
{
    auto len = static_cast<uint64_t>(state.range(0));
    const uint8_t *p = data().data();
    uint16_t crc = 0;
    for (auto _ : state)
        crc = tovi_crc16_soft(crc, p, len);
    benchmark::DoNotOptimize(crc);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
}

}  // namespace

BENCHMARK(BM_tovi_crc32c)->Arg(64)->Arg(256)->Arg(1024)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_isal_crc32_iscsi)->Arg(64)->Arg(256)->Arg(1024)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_crc32c_instruction_loop)->Arg(64)->Arg(256)->Arg(1024)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_tovi_crc32c_soft)->Arg(64)->Arg(4096);
BENCHMARK(BM_tovi_crc32c_with_cpy)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_tovi_crc16)->Arg(64)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_isal_crc16_t10dif)->Arg(64)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_tovi_crc16_soft)->Arg(64)->Arg(4096);
