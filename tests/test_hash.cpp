// The intrusive hash table: creation and its allocator, random operations
// against a map model, the visit walks and the messages.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tovi_hash.h"
#include "tovi_hash.hpp"

using tovi::test::LogCapture;

namespace {

tovi_hash_table_s *const kUntouched = reinterpret_cast<tovi_hash_table_s *>(0x1);

bool points_to_itself(tovi_hash_node_s *n)
{
    return n->next == reinterpret_cast<tovi_hash_list_s *>(n) && n->prev == reinterpret_cast<tovi_hash_list_s *>(n);
}

tovi_hash_list_s *bucket_of(const tovi_hash_table_s *t, uint32_t key32, uint64_t key64)
{
    return &t->buckets[tovi::hash::hash_func(key32, key64, t->pow) & (t->bucketCount - 1)];
}

// The nodes in visiting order.
std::vector<tovi_hash_node_s *> walk(tovi_hash_table_s *t)
{
    std::vector<tovi_hash_node_s *> seen;
    auto record = [](tovi_hash_node_s *n, void *arg) {
        static_cast<std::vector<tovi_hash_node_s *> *>(arg)->push_back(n);
        return int32_t{0};
    };
    tovi_hash_for_each_ex(t, record, &seen, 1);
    return seen;
}

// An allocator that records its calls, ('m', size) or ('f', index of the
// block), and refuses the malloc call numbered refuse_at.
using Calls = std::vector<std::pair<char, size_t>>;
struct Recorder {
    Calls calls;
    std::vector<void *> blocks;
    int refuse_at = -1;
} *g_rec;

void *rec_malloc(size_t size)
{
    g_rec->calls.emplace_back('m', size);
    if (static_cast<int>(g_rec->blocks.size()) == g_rec->refuse_at)
        return nullptr;
    return g_rec->blocks.emplace_back(std::malloc(size));
}

void rec_free(void *p)
{
    g_rec->calls.emplace_back('f', std::find(g_rec->blocks.begin(), g_rec->blocks.end(), p) - g_rec->blocks.begin());
    std::free(p);
}

std::string matched_message(void *m, void *f)
{
    char text[128];
    std::snprintf(text, sizeof text, "attr malloc(%p) and free(%p) must be matched", m, f);
    return text;
}

}  // namespace

TEST(Hash, CreationSizesArgumentsAndAllocator)
{
    tovi_hash_table_s *t = nullptr;
    ASSERT_EQ(tovi_hash_create(1000, &t, 1023), 0);
    EXPECT_EQ(t->bucketCount, 512u);
    EXPECT_EQ(t->pow, 9);
    for (uint32_t b = 0; b < t->bucketCount; ++b)
        ASSERT_TRUE(t->buckets[b].next == &t->buckets[b] && t->buckets[b].prev == &t->buckets[b]) << b;
    EXPECT_EQ(tovi_hash_destory(t, nullptr), 0);

    // {count, output, limit}: argument errors leave the output alone.
    t = kUntouched;
    const struct { uint32_t count; tovi_hash_table_s **out; uint32_t limit; } bad[] = {
        {0, &t, 0}, {16, nullptr, 0}, {16, &t, 1024}, {0x80000000u, &t, 0}};
    for (const auto &b : bad)
        EXPECT_EQ(tovi_hash_create(b.count, b.out, b.limit), -22) << b.count << " " << b.limit;
    EXPECT_EQ(t, kUntouched);
    EXPECT_EQ(tovi_hash_destory(nullptr, nullptr), -22);

    tovi_hash_attr_s attr{rec_malloc, rec_free};
    EXPECT_EQ(tovi_hash_attr_init(&attr), 0);
    EXPECT_TRUE(attr.malloc == nullptr && attr.free == nullptr);
    EXPECT_EQ(tovi_hash_attr_init(nullptr), -1);

    // {malloc refused, count, result, calls}: the header first, the buckets
    // freed before it; a refused bucket array gives the header back.
    attr = {rec_malloc, rec_free};
    const size_t head = sizeof(tovi_hash_table_s), list = sizeof(tovi_hash_list_s);
    const struct { int refuse_at; uint32_t count; int32_t rc; Calls calls; } cases[] = {
        {-1, 64, 0, {{'m', head}, {'m', 64 * list}, {'f', 1}, {'f', 0}}},
        {1, 0x7FFFFFFFu, -12, {{'m', head}, {'m', (size_t{1} << 30) * list}, {'f', 0}}},
        {0, 8, -12, {{'m', head}}}};
    for (const auto &c : cases) {
        Recorder rec;
        rec.refuse_at = c.refuse_at;
        g_rec = &rec;
        t = kUntouched;
        ASSERT_EQ(tovi_hash_create_ex(c.count, &t, 0, &attr), c.rc) << c.count;
        if (c.rc == 0) {
            EXPECT_EQ(t->attr, &attr);
            EXPECT_EQ((std::vector<void *>{t, t->buckets}), rec.blocks);
            EXPECT_EQ(tovi_hash_destory(t, nullptr), 0);
        } else {
            EXPECT_EQ(t, nullptr);
        }
        EXPECT_EQ(rec.calls, c.calls) << c.count;
    }
    g_rec = nullptr;

    // Half an allocator is refused with a message; neither half is the system's, silently.
    LogCapture cap;
    tovi_hash_attr_s only_malloc{rec_malloc, nullptr}, only_free{nullptr, rec_free}, none{nullptr, nullptr};
    t = kUntouched;
    EXPECT_EQ(tovi_hash_create_ex(8, &t, 0, &only_malloc), -12);
    EXPECT_EQ(t, nullptr);
    EXPECT_EQ(tovi_hash_malloc(&only_free, 16), nullptr);
    EXPECT_EQ(cap.texts(6), (std::vector<std::string>{matched_message(reinterpret_cast<void *>(rec_malloc), nullptr),
                                                     matched_message(nullptr, reinterpret_cast<void *>(rec_free))}));
    EXPECT_EQ(cap.records()[0].module, 381u);
    cap.clear();
    for (tovi_hash_attr_s *a : {&none, static_cast<tovi_hash_attr_s *>(nullptr)}) {
        void *p = tovi_hash_malloc(a, 16);
        ASSERT_NE(p, nullptr);
        tovi_hash_free(a, p);
    }
    EXPECT_TRUE(cap.texts().empty());
}

// Random inserts, deletes and searches against a map, and the visiting order
// against (bucket, newest first).
TEST(Hash, RandomOperationsFollowAMapModel)
{
    tovi_hash_table_s *t = nullptr;
    ASSERT_EQ(tovi_hash_create(64, &t, 100), 0);
    std::vector<tovi_hash_node_s> nodes(400);
    std::mt19937_64 rng(4);
    for (auto &n : nodes) {
        // Few key32 values and low halves: shared buckets, and keys that differ only in the high half.
        n.key32 = static_cast<uint32_t>(rng() % 4);
        n.key64 = (rng() % 8) << 32 | (rng() % 50);
    }
    std::map<std::pair<uint32_t, uint64_t>, tovi_hash_node_s *> model;
    std::map<tovi_hash_node_s *, uint64_t> inserted_at;
    for (int step = 0; step < 6000; ++step) {
        tovi_hash_node_s *n = &nodes[rng() % nodes.size()], *out = nullptr;
        auto it = model.find({n->key32, n->key64});
        bool known = it != model.end();
        SCOPED_TRACE(testing::Message() << "step " << step << " key " << n->key32 << ":" << n->key64);
        switch (rng() % 3) {
        case 0:
            if (known && it->second == n)
                break;  // already linked: inserting it again is a caller error
            ASSERT_EQ(tovi_hash_insert(t, n), known ? -17 : 0);
            if (!known) {
                model[{n->key32, n->key64}] = n;
                inserted_at[n] = step;
            }
            break;
        case 1:
            ASSERT_EQ(tovi_hash_delete(t, n->key32, n->key64, &out), known ? 0 : -1);
            if (known) {
                ASSERT_EQ(out, it->second);
                ASSERT_TRUE(points_to_itself(out));
                model.erase(it);
            }
            break;
        default:
            ASSERT_EQ(tovi_hash_search(t, n->key32, n->key64, &out), known ? 0 : -1);
            ASSERT_EQ(out, known ? it->second : nullptr);
        }
        if (step % 150 == 0) {
            std::vector<tovi_hash_node_s *> expected;
            for (auto &kv : model)
                expected.push_back(kv.second);
            std::sort(expected.begin(), expected.end(), [&](tovi_hash_node_s *x, tovi_hash_node_s *y) {
                tovi_hash_list_s *bx = bucket_of(t, x->key32, x->key64), *by = bucket_of(t, y->key32, y->key64);
                return bx != by ? bx < by : inserted_at[x] > inserted_at[y];
            });
            ASSERT_EQ(walk(t), expected);
        }
    }

    // Tear-down hands every node over in visiting order, unlinked.
    static std::vector<tovi_hash_node_s *> released;
    auto order = walk(t);
    ASSERT_EQ(tovi_hash_destory(t, [](tovi_hash_node_s *n) {
                  EXPECT_TRUE(points_to_itself(n));
                  released.push_back(n);
              }),
              0);
    EXPECT_EQ(released, order);
}

TEST(Hash, VisitsStopOnRequestAndSurviveRemovalOfTheVisitedNode)
{
    static tovi_hash_table_s *t = nullptr;
    ASSERT_EQ(tovi_hash_create(8, &t, 0), 0);
    std::vector<tovi_hash_node_s> nodes(30);
    for (uint32_t i = 0; i < nodes.size(); ++i) {
        nodes[i].key64 = i % 10 + (uint64_t{i / 10} << 40);  // three to a low half
        ASSERT_EQ(tovi_hash_insert(t, &nodes[i]), 0);
    }
    auto order = walk(t);
    ASSERT_EQ(order.size(), nodes.size());
    // Counts the calls in arg[0] and returns -7 at the node arg[1].
    auto stop_at = [](tovi_hash_node_s *n, void *arg) {
        auto *p = static_cast<uintptr_t *>(arg);
        ++p[0];
        return n == reinterpret_cast<tovi_hash_node_s *>(p[1]) ? int32_t{-7} : int32_t{0};
    };
    for (uint8_t stop : {uint8_t{1}, uint8_t{0}}) {
        uintptr_t probe[2] = {0, reinterpret_cast<uintptr_t>(order[2])};
        EXPECT_EQ(tovi_hash_for_each_ex(t, stop_at, probe, stop), stop ? -7 : 0);
        EXPECT_EQ(probe[0], stop ? 3u : 30u) << "stop flag " << int{stop};
    }

    static int visits = 0;
    auto remove = [](tovi_hash_node_s *n) {
        ++visits;
        return tovi_hash_delete(t, n->key32, n->key64, nullptr);
    };
    EXPECT_EQ(tovi_hash_for_each(t, remove, 1), 0);
    EXPECT_EQ(visits, 30) << "each node visited once though each was removed during its visit";
    EXPECT_TRUE(walk(t).empty());
    EXPECT_TRUE(std::all_of(nodes.begin(), nodes.end(), [](auto &n) { return points_to_itself(&n); }));

    EXPECT_EQ(tovi_hash_for_each(nullptr, remove, 0), -22);
    EXPECT_EQ(tovi_hash_for_each(t, nullptr, 0), -22);
    EXPECT_EQ(tovi_hash_for_each_ex(nullptr, stop_at, nullptr, 0), -22);
    EXPECT_EQ(tovi_hash_for_each_ex(t, nullptr, nullptr, 0), -22);

    // A broken back link is reported and the delete goes on: b, then a, in one bucket.
    tovi_hash_node_s a{nullptr, nullptr, 1, 0}, b{nullptr, nullptr, uint64_t{1} << 32 | 1, 0};
    ASSERT_EQ(tovi_hash_insert(t, &a), 0);
    ASSERT_EQ(tovi_hash_insert(t, &b), 0);
    tovi_hash_list_s stray{}, *head = bucket_of(t, 0, 1);
    a.prev = &stray;
    LogCapture cap;
    EXPECT_EQ(tovi_hash_delete(t, 0, 1, nullptr), 0);
    char text[160];  // a was last in the bucket: its next is the head
    std::snprintf(text, sizeof text, "Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)",
                  static_cast<void *>(&stray), nullptr, nullptr, static_cast<void *>(&a), static_cast<void *>(head),
                  static_cast<void *>(&stray));
    EXPECT_EQ(cap.texts(3), (std::vector<std::string>{text}));
    EXPECT_TRUE(points_to_itself(&a));
    head->next = head->prev = head;  // beyond repair (b still points at a): empty it by hand
    EXPECT_EQ(tovi_hash_destory(t, nullptr), 0);
}
