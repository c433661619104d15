// Insert, find and erase of 1 M keys in random order: the AVL and red-black
// trees against GLib's balanced tree, with std::map as a reference point.
// Each iteration runs the whole batch; trees are built and torn down outside
// the timed part.
// bench-pkg: glib-2.0
#include <benchmark/benchmark.h>

#include <glib.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <numeric>
#include <random>
#include <vector>

#include "tovi_avl.h"
#include "tovi_rbtree.h"

namespace {

constexpr int kKeys = 1000000;
constexpr int kIterations = 5;

// 0 .. kKeys - 1, shuffled once; every benchmark uses the same order.
const std::vector<int> &keys()
{
    static const std::vector<int> k = [] {
        std::vector<int> v(kKeys);
        std::iota(v.begin(), v.end(), 0);
        std::shuffle(v.begin(), v.end(), std::mt19937(12345));
        return v;
    }();
    return k;
}

void done(benchmark::State &state)
{
    state.SetItemsProcessed(state.iterations() * kKeys);
}

// ---- AVL ----

struct AvlItem {
    int key;
    tovi_avl_node_s node;
};

int avl_compar(const void *value, const void *object)
{
    int a = static_cast<const AvlItem *>(value)->key;
    int b = static_cast<const AvlItem *>(object)->key;
    return a < b ? -1 : a > b ? 1 : 0;
}

int avl_compar_key(const void *value, const void *object)
{
    int a = *static_cast<const int *>(value);
    int b = static_cast<const AvlItem *>(object)->key;
    return a < b ? -1 : a > b ? 1 : 0;
}

struct AvlTree {
    std::vector<AvlItem> items = std::vector<AvlItem>(kKeys);
    tovi_avl_tree_s tree{};

    AvlTree()
    {
        for (int i = 0; i < kKeys; ++i)
            items[static_cast<size_t>(i)].key = i;
        reset();
    }
    void reset()
    {
        tovi_create_avl_new(&tree, avl_compar, avl_compar_key, sizeof(AvlItem),
                            offsetof(AvlItem, node));
    }
    void fill()
    {
        for (int k : keys())
            tovi_add_avl_node(&tree, &items[static_cast<size_t>(k)]);
    }
};

void BM_avl_insert(benchmark::State &state)
{
    AvlTree t;
    for (auto _ : state) {
        state.PauseTiming();
        t.reset();
        state.ResumeTiming();
        t.fill();
    }
    done(state);
}

void BM_avl_find(benchmark::State &state)
{
    AvlTree t;
    t.fill();
    for (auto _ : state)
        for (int k : keys())
            benchmark::DoNotOptimize(tovi_find_avl_node(&t.tree, &k, nullptr));
    done(state);
}

void BM_avl_erase(benchmark::State &state)
{
    AvlTree t;
    for (auto _ : state) {
        state.PauseTiming();
        t.reset();
        t.fill();
        state.ResumeTiming();
        for (int k : keys())
            tovi_remove_avl_node(&t.tree, tovi_find_avl_node(&t.tree, &k, nullptr));
    }
    done(state);
}

// ---- red-black: the caller descends itself ----

struct RbItem {
    int key;
    tovi_rb_node node;
};

int rb_key(const tovi_rb_node *n)
{
    return tovi_rb_entry(n, const RbItem, node)->key;
}

struct RbTree {
    std::vector<RbItem> items = std::vector<RbItem>(kKeys);
    tovi_rb_root root = TOVI_RB_ROOT_INIT;

    RbTree()
    {
        for (int i = 0; i < kKeys; ++i)
            items[static_cast<size_t>(i)].key = i;
    }
    void insert(RbItem *it)
    {
        tovi_rb_node **link = &root.node;
        tovi_rb_node *parent = nullptr;
        while (*link != nullptr) {
            parent = *link;
            int k = rb_key(parent);
            if (it->key < k)
                link = &parent->left;
            else if (it->key > k)
                link = &parent->right;
            else
                return;
        }
        tovi_rb_link_node(&it->node, parent, link);
        tovi_rb_insert_color(&it->node, &root);
    }
    tovi_rb_node *find(int key) const
    {
        tovi_rb_node *n = root.node;
        while (n != nullptr) {
            int k = rb_key(n);
            if (key < k)
                n = n->left;
            else if (key > k)
                n = n->right;
            else
                return n;
        }
        return nullptr;
    }
    void fill()
    {
        for (int k : keys())
            insert(&items[static_cast<size_t>(k)]);
    }
};

void BM_rb_insert(benchmark::State &state)
{
    RbTree t;
    for (auto _ : state) {
        state.PauseTiming();
        t.root.node = nullptr;
        state.ResumeTiming();
        t.fill();
    }
    done(state);
}

void BM_rb_find(benchmark::State &state)
{
    RbTree t;
    t.fill();
    for (auto _ : state)
        for (int k : keys())
            benchmark::DoNotOptimize(t.find(k));
    done(state);
}

void BM_rb_erase(benchmark::State &state)
{
    RbTree t;
    for (auto _ : state) {
        state.PauseTiming();
        t.root.node = nullptr;
        t.fill();
        state.ResumeTiming();
        for (int k : keys())
            tovi_rb_erase(t.find(k), &t.root);
    }
    done(state);
}

// ---- GLib's GTree: allocates a node per key, compares through a pointer ----

gint gtree_compar(gconstpointer a, gconstpointer b)
{
    int x = GPOINTER_TO_INT(a);
    int y = GPOINTER_TO_INT(b);
    return x < y ? -1 : x > y ? 1 : 0;
}

GTree *gtree_filled()
{
    GTree *t = g_tree_new(gtree_compar);
    for (int k : keys())
        g_tree_insert(t, GINT_TO_POINTER(k), GINT_TO_POINTER(k + 1));
    return t;
}

void BM_gtree_insert(benchmark::State &state)
{
    for (auto _ : state) {
        GTree *t = gtree_filled();
        state.PauseTiming();
        g_tree_destroy(t);
        state.ResumeTiming();
    }
    done(state);
}

void BM_gtree_find(benchmark::State &state)
{
    GTree *t = gtree_filled();
    for (auto _ : state)
        for (int k : keys())
            benchmark::DoNotOptimize(g_tree_lookup(t, GINT_TO_POINTER(k)));
    g_tree_destroy(t);
    done(state);
}

void BM_gtree_erase(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        GTree *t = gtree_filled();
        state.ResumeTiming();
        for (int k : keys())
            g_tree_remove(t, GINT_TO_POINTER(k));
        state.PauseTiming();
        g_tree_destroy(t);
        state.ResumeTiming();
    }
    done(state);
}

// ---- std::map ----

std::map<int, int> map_filled()
{
    std::map<int, int> m;
    for (int k : keys())
        m.emplace(k, k);
    return m;
}

void BM_map_insert(benchmark::State &state)
{
    for (auto _ : state) {
        std::map<int, int> m = map_filled();
        state.PauseTiming();
        m.clear();
        state.ResumeTiming();
    }
    done(state);
}

void BM_map_find(benchmark::State &state)
{
    std::map<int, int> m = map_filled();
    for (auto _ : state)
        for (int k : keys())
            benchmark::DoNotOptimize(m.find(k));
    done(state);
}

void BM_map_erase(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        std::map<int, int> m = map_filled();
        state.ResumeTiming();
        for (int k : keys())
            m.erase(k);
    }
    done(state);
}

}  // namespace

#define TREE_BENCH(fn) BENCHMARK(fn)->Iterations(kIterations)->Unit(benchmark::kMillisecond)
TREE_BENCH(BM_avl_insert);
TREE_BENCH(BM_rb_insert);
TREE_BENCH(BM_gtree_insert);
TREE_BENCH(BM_map_insert);
TREE_BENCH(BM_avl_find);
TREE_BENCH(BM_rb_find);
TREE_BENCH(BM_gtree_find);
TREE_BENCH(BM_map_find);
TREE_BENCH(BM_avl_erase);
TREE_BENCH(BM_rb_erase);
TREE_BENCH(BM_gtree_erase);
TREE_BENCH(BM_map_erase);
