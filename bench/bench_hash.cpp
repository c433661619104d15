// The intrusive hash table against GLib's GHashTable: insert, find and erase
// of one million random 64-bit keys. Our nodes are embedded in the caller's
// array (the table allocates only its buckets); GLib stores a key and a
// value pointer in its own arrays, which grow as it fills.
// bench-pkg: glib-2.0
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include <glib.h>

#include "tovi_hash.h"

namespace {

constexpr size_t kKeys = 1u << 20;

struct Keys {
    std::vector<uint64_t> insert_order;
    std::vector<uint64_t> lookup_order;
};

const Keys &keys()
{
    static const Keys k = [] {
        Keys out;
        std::mt19937_64 rng(42);
        out.insert_order.resize(kKeys);
        for (auto &v : out.insert_order)
            v = rng() | 1;  // never 0: GLib's direct keys would take it as NULL
        std::sort(out.insert_order.begin(), out.insert_order.end());
        out.insert_order.erase(std::unique(out.insert_order.begin(), out.insert_order.end()), out.insert_order.end());
        std::shuffle(out.insert_order.begin(), out.insert_order.end(), rng);
        out.lookup_order = out.insert_order;
        std::shuffle(out.lookup_order.begin(), out.lookup_order.end(), rng);
        return out;
    }();
    return k;
}

std::vector<tovi_hash_node_s> make_nodes()
{
    const auto &k = keys().insert_order;
    std::vector<tovi_hash_node_s> nodes(k.size());
    for (size_t i = 0; i < k.size(); ++i) {
        nodes[i].key32 = static_cast<uint32_t>(k[i] >> 32);
        nodes[i].key64 = k[i];
    }
    return nodes;
}

tovi_hash_table_s *tovi_filled(std::vector<tovi_hash_node_s> &nodes)
{
    tovi_hash_table_s *t = nullptr;
    tovi_hash_create(kKeys, &t, 0);
    for (auto &n : nodes)
        tovi_hash_insert(t, &n);
    return t;
}

GHashTable *glib_filled(std::vector<tovi_hash_node_s> &nodes)
{
    GHashTable *h = g_hash_table_new(g_direct_hash, g_direct_equal);
    for (auto &n : nodes)
        g_hash_table_insert(h, reinterpret_cast<gpointer>(n.key64), &n);
    return h;
}

void BM_tovi_hash_insert(benchmark::State &state)
{
    auto nodes = make_nodes();
    for (auto _ : state) {
        tovi_hash_table_s *t = nullptr;
        tovi_hash_create(kKeys, &t, 0);
        for (auto &n : nodes)
            tovi_hash_insert(t, &n);
        state.PauseTiming();
        tovi_hash_destory(t, nullptr);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * nodes.size()));
}

void BM_glib_insert(benchmark::State &state)
{
    auto nodes = make_nodes();
    for (auto _ : state) {
        GHashTable *h = g_hash_table_new(g_direct_hash, g_direct_equal);
        for (auto &n : nodes)
            g_hash_table_insert(h, reinterpret_cast<gpointer>(n.key64), &n);
        state.PauseTiming();
        g_hash_table_destroy(h);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * nodes.size()));
}

void BM_tovi_hash_find(benchmark::State &state)
{
    auto nodes = make_nodes();
    tovi_hash_table_s *t = tovi_filled(nodes);
    const auto &order = keys().lookup_order;
    for (auto _ : state)
        for (uint64_t k : order) {
            tovi_hash_node_s *n = nullptr;
            tovi_hash_search(t, static_cast<uint32_t>(k >> 32), k, &n);
            benchmark::DoNotOptimize(n);
        }
    tovi_hash_destory(t, nullptr);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * order.size()));
}

void BM_glib_find(benchmark::State &state)
{
    auto nodes = make_nodes();
    GHashTable *h = glib_filled(nodes);
    const auto &order = keys().lookup_order;
    for (auto _ : state)
        for (uint64_t k : order)
            benchmark::DoNotOptimize(g_hash_table_lookup(h, reinterpret_cast<gconstpointer>(k)));
    g_hash_table_destroy(h);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * order.size()));
}

void BM_tovi_hash_erase(benchmark::State &state)
{
    auto nodes = make_nodes();
    const auto &order = keys().lookup_order;
    for (auto _ : state) {
        state.PauseTiming();
        tovi_hash_table_s *t = tovi_filled(nodes);
        state.ResumeTiming();
        for (uint64_t k : order)
            tovi_hash_delete(t, static_cast<uint32_t>(k >> 32), k, nullptr);
        state.PauseTiming();
        tovi_hash_destory(t, nullptr);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * order.size()));
}

void BM_glib_erase(benchmark::State &state)
{
    auto nodes = make_nodes();
    const auto &order = keys().lookup_order;
    for (auto _ : state) {
        state.PauseTiming();
        GHashTable *h = glib_filled(nodes);
        state.ResumeTiming();
        for (uint64_t k : order)
            g_hash_table_remove(h, reinterpret_cast<gconstpointer>(k));
        state.PauseTiming();
        g_hash_table_destroy(h);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * order.size()));
}

}  // namespace

BENCHMARK(BM_tovi_hash_insert)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_glib_insert)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_tovi_hash_find)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_glib_find)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_tovi_hash_erase)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_glib_erase)->Unit(benchmark::kMillisecond);
