// The intrusive hash table: creation, its allocator and messages; random operations against a map.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tovi_hash.h"
#include "tovi_hash.hpp"

namespace {

tovi_hash_table_s *const kUntouched = reinterpret_cast<tovi_hash_table_s *>(0x1);

bool points_to_itself(tovi_hash_node_s *n) { return n->next == n->prev && n->prev == reinterpret_cast<tovi_hash_list_s *>(n); }

tovi_hash_list_s *bucket_of(const tovi_hash_table_s *t, uint32_t key32, uint64_t key64)
{
    return &t->buckets[tovi::hash::hash_func(key32, key64, t->pow) & (t->bucketCount - 1)];
}

using Nodes = std::vector<tovi_hash_node_s *>;

Nodes walk(tovi_hash_table_s *t)  // the nodes in visiting order
{
    Nodes seen;
    tovi_hash_for_each_ex(t, [](tovi_hash_node_s *n, void *s) { return static_cast<Nodes *>(s)->push_back(n), 0; }, &seen, 1);
    return seen;
}

// Records the calls, ('m', size) or ('f', index of the block); refuses the malloc numbered refuse_at.
using Calls = std::vector<std::pair<char, size_t>>;
struct Recorder { int refuse_at; Calls calls; std::vector<void *> blocks; } g_rec;

void *rec_malloc(size_t size)
{
    g_rec.calls.emplace_back('m', size);
    return static_cast<int>(g_rec.blocks.size()) == g_rec.refuse_at ? nullptr : g_rec.blocks.emplace_back(std::malloc(size));
}

void rec_free(void *p)
{
    g_rec.calls.emplace_back('f', std::find(g_rec.blocks.begin(), g_rec.blocks.end(), p) - g_rec.blocks.begin());
    std::free(p);
}

template <class... Args> std::string text_of(const char *format, Args... args)
{
    char text[200];
    std::snprintf(text, sizeof text, format, args...);
    return text;
}

}  // namespace

TEST(Hash, CreationSizesArgumentsAndAllocator)
{
    tovi_hash_table_s *t = nullptr;
    ASSERT_EQ(tovi_hash_create(1000, &t, 1023), 0);
    EXPECT_EQ(t->bucketCount, 512u);
    EXPECT_EQ(t->pow, 9);
    EXPECT_EQ((std::vector<int32_t>{tovi_hash_for_each(nullptr, [](tovi_hash_node_s *) { return 0; }, 0),
                                    tovi_hash_for_each(t, nullptr, 0), tovi_hash_destory(nullptr, nullptr),
                                    tovi_hash_for_each_ex(nullptr, [](tovi_hash_node_s *, void *) { return 0; }, nullptr, 0),
                                    tovi_hash_for_each_ex(t, nullptr, nullptr, 0)}),
              std::vector<int32_t>(5, -22));

    // A broken back link is reported and the delete goes on: b, then a, in one bucket.
    tovi_hash_node_s a{nullptr, nullptr, 1, 0}, b{nullptr, nullptr, uint64_t{1} << 32 | 1, 0};
    ASSERT_EQ(tovi_hash_insert(t, &a), 0);
    ASSERT_EQ(tovi_hash_insert(t, &b), 0);
    tovi_hash_list_s stray{}, *bucket = bucket_of(t, 0, 1);
    a.prev = &stray;
    tovi::test::LogCapture cap;
    EXPECT_EQ(tovi_hash_delete(t, 0, 1, nullptr), 0);  // a was last in the bucket: its next is the head
    EXPECT_EQ(cap.texts(3), (std::vector<std::string>{text_of("Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)",
                                                             static_cast<void *>(&stray), nullptr, nullptr, static_cast<void *>(&a),
                                                             static_cast<void *>(bucket), static_cast<void *>(&stray))}));
    EXPECT_TRUE(points_to_itself(&a));
    bucket->next = bucket->prev = bucket;  // beyond repair (b still points at a): empty it by hand
    EXPECT_EQ(tovi_hash_destory(t, nullptr), 0);

    // {count, output, limit}: argument errors leave the output alone.
    t = kUntouched;
    const struct { uint32_t count; tovi_hash_table_s **out; uint32_t limit; } bad[] = {
        {0, &t, 0}, {16, nullptr, 0}, {16, &t, 1024}, {0x80000000u, &t, 0}};
    for (const auto &arg : bad)
        EXPECT_EQ(tovi_hash_create(arg.count, arg.out, arg.limit), -22) << arg.count << " " << arg.limit;
    EXPECT_EQ(t, kUntouched);

    EXPECT_EQ(tovi_hash_attr_init(nullptr), -1);

    // {malloc refused, count, result, calls}: header first, freed last; a refused bucket array frees it.
    tovi_hash_attr_s attr{rec_malloc, rec_free};
    const size_t head = sizeof(tovi_hash_table_s), list = sizeof(tovi_hash_list_s);
    const struct { int refuse_at; uint32_t count; int32_t rc; Calls calls; } cases[] = {
        {-1, 64, 0, {{'m', head}, {'m', 64 * list}, {'f', 1}, {'f', 0}}},
        {1, 0x7FFFFFFFu, -12, {{'m', head}, {'m', (size_t{1} << 30) * list}, {'f', 0}}},
        {0, 8, -12, {{'m', head}}}};
    for (const auto &c : cases) {
        g_rec = Recorder{c.refuse_at, {}, {}};
        t = kUntouched;
        ASSERT_EQ(tovi_hash_create_ex(c.count, &t, 0, &attr), c.rc) << c.count;
        if (c.rc == 0) {
            EXPECT_EQ((std::vector<void *>{t, t->buckets, t->attr}), (std::vector<void *>{g_rec.blocks[0], g_rec.blocks[1], &attr}));
            EXPECT_EQ(tovi_hash_destory(t, nullptr), 0);
        }
        EXPECT_EQ(t == nullptr, c.rc != 0);
        EXPECT_EQ(g_rec.calls, c.calls) << c.count;
    }

    // Half an allocator is refused with a message; neither half is the system's, silently.
    cap.clear();
    tovi_hash_attr_s only_malloc{rec_malloc, nullptr}, only_free{nullptr, rec_free}, none{nullptr, nullptr};
    t = kUntouched;
    EXPECT_EQ(tovi_hash_create_ex(8, &t, 0, &only_malloc), -12);
    EXPECT_EQ(t, nullptr);
    EXPECT_EQ(tovi_hash_malloc(&only_free, 16), nullptr);
    tovi_hash_free(nullptr, tovi_hash_malloc(&none, 16));  // both the system's, silently: a mismatch shows under ASan
    const char *matched = "attr malloc(%p) and free(%p) must be matched";
    EXPECT_EQ(cap.texts(6), (std::vector<std::string>{text_of(matched, reinterpret_cast<void *>(rec_malloc), nullptr),
                                                     text_of(matched, nullptr, reinterpret_cast<void *>(rec_free))}));

}

// Inserts, deletes and searches against a map, the visiting order against (bucket, newest first).
TEST(Hash, RandomOperationsFollowAMapModel)
{
    static tovi_hash_table_s *t = nullptr;
    ASSERT_EQ(tovi_hash_create(64, &t, 100), 0);
    std::vector<tovi_hash_node_s> nodes(400);
    std::mt19937_64 rng(4);
    for (auto &n : nodes)  // few low halves: shared buckets, and keys that differ in the high half only
        n = {nullptr, nullptr, (rng() % 8) << 32 | (rng() % 50), static_cast<uint32_t>(rng() % 4)};
    std::map<std::pair<uint32_t, uint64_t>, tovi_hash_node_s *> model;
    std::map<tovi_hash_node_s *, uint64_t> inserted_at;
    for (int step = 0; step < 6000; ++step) {
        tovi_hash_node_s *n = &nodes[rng() % nodes.size()], *out = nullptr;
        auto it = model.find({n->key32, n->key64});
        bool known = it != model.end();
        SCOPED_TRACE(testing::Message() << "step " << step << " key " << n->key32 << ":" << n->key64);
        unsigned op = rng() % 3;
        if (op == 0 && !(known && it->second == n)) {  // inserting a linked node again is a caller error
            ASSERT_EQ(tovi_hash_insert(t, n), known ? -17 : 0);
            if (!known)
                inserted_at[model[{n->key32, n->key64}] = n] = step;
        } else if (op == 1) {
            ASSERT_EQ(tovi_hash_delete(t, n->key32, n->key64, &out), known ? 0 : -1);
            ASSERT_TRUE(!known || (out == it->second && points_to_itself(out)));
            if (known)
                model.erase(it);
        } else {
            // The inline search (the header's macro) and the exported function alike.
            auto search = step % 2 == 0 ? tovi_hash_search : [](tovi_hash_table_s *h, uint32_t k32, uint64_t k64,
                                                                tovi_hash_node_s **o) { return tovi_hash_search(h, k32, k64, o); };
            ASSERT_EQ(search(t, n->key32, n->key64, &out), known ? 0 : -1);
            ASSERT_EQ(out, known ? it->second : nullptr);
        }
        if (step % 150 == 0) {
            Nodes expected;
            for (auto &kv : model)
                expected.push_back(kv.second);
            std::sort(expected.begin(), expected.end(), [&](tovi_hash_node_s *x, tovi_hash_node_s *y) {
                tovi_hash_list_s *bx = bucket_of(t, x->key32, x->key64), *by = bucket_of(t, y->key32, y->key64);
                return bx != by ? bx < by : inserted_at[x] > inserted_at[y];
            });
            ASSERT_EQ(walk(t), expected);
        }
    }

    // A non-zero result stops a visit only when asked to.
    auto third_stops = [](tovi_hash_node_s *, void *calls) { return ++*static_cast<int *>(calls) == 3 ? -7 : 0; };
    for (uint8_t stop : {uint8_t{1}, uint8_t{0}}) {
        int calls = 0;
        EXPECT_EQ(tovi_hash_for_each_ex(t, third_stops, &calls, stop), stop ? -7 : 0);
        EXPECT_EQ(calls, stop ? 3 : static_cast<int>(model.size())) << "stop flag " << int{stop};
    }
    // A visit may delete the node it visits: every node is still visited once.
    static int visits = 0;
    auto remove_odd = [](tovi_hash_node_s *n) { ++visits; return n->key64 % 2 ? tovi_hash_delete(t, n->key32, n->key64, nullptr) : 0; };
    Nodes order = walk(t), kept;
    std::copy_if(order.begin(), order.end(), std::back_inserter(kept), [](auto *n) { return n->key64 % 2 == 0; });
    EXPECT_EQ(tovi_hash_for_each(t, remove_odd, 1), 0);
    EXPECT_EQ(visits, static_cast<int>(order.size()));
    // Tear-down hands every node over in visiting order, unlinked (a linked one shows as null).
    static Nodes released;
    ASSERT_EQ(tovi_hash_destory(t, [](tovi_hash_node_s *n) { released.push_back(points_to_itself(n) ? n : nullptr); }), 0);
    EXPECT_EQ(released, kept);
}
