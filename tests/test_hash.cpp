// The intrusive hash table.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "log_capture.hpp"
#include "tovi_hash.h"
#include "tovi_hash.hpp"

using tovi::hash::hash_func;
using tovi::hash::hash_get_pow;
using tovi::hash::hash_pow;
using tovi::test::LogCapture;

namespace {

tovi_hash_list_s *self_of(tovi_hash_node_s *n)
{
    return reinterpret_cast<tovi_hash_list_s *>(n);
}

bool points_to_itself(tovi_hash_node_s *n)
{
    return n->next == self_of(n) && n->prev == self_of(n);
}

uint32_t bucket_of(const tovi_hash_table_s *t, uint32_t key32, uint64_t key64)
{
    return hash_func(key32, key64, t->pow) & (t->bucketCount - 1);
}

// The nodes in visiting order.
std::vector<tovi_hash_node_s *> walk(tovi_hash_table_s *t)
{
    std::vector<tovi_hash_node_s *> seen;
    tovi_hash_for_each_ex(
        t,
        [](tovi_hash_node_s *n, void *arg) {
            static_cast<std::vector<tovi_hash_node_s *> *>(arg)->push_back(n);
            return int32_t{0};
        },
        &seen, 1);
    return seen;
}

// An allocator that records its calls and refuses on demand.
struct Recorder {
    std::vector<std::pair<char, size_t>> calls;  // ('m', size) or ('f', index of the block)
    std::vector<void *> blocks;
    int refuse_at = -1;  // malloc call number that fails
    int mallocs = 0;
};
Recorder *g_rec;

void *rec_malloc(size_t size)
{
    g_rec->calls.emplace_back('m', size);
    if (g_rec->mallocs++ == g_rec->refuse_at)
        return nullptr;
    void *p = std::malloc(size);
    g_rec->blocks.push_back(p);
    return p;
}

void rec_free(void *p)
{
    auto it = std::find(g_rec->blocks.begin(), g_rec->blocks.end(), p);
    g_rec->calls.emplace_back('f', static_cast<size_t>(it - g_rec->blocks.begin()));
    std::free(p);
}

std::string matched_message(void *m, void *f)
{
    char text[128];
    std::snprintf(text, sizeof text, "attr malloc(%p) and free(%p) must be matched", m, f);
    return text;
}

}  // namespace

TEST(HashCreate, SizesAndArgumentChecks)
{
    tovi_hash_table_s *t = nullptr;
    ASSERT_EQ(tovi_hash_create(1000, &t, 1023), 0);
    EXPECT_EQ(t->bucketCount, 512u);
    EXPECT_EQ(t->pow, 9);
    EXPECT_EQ(t->attr, nullptr);
    for (uint32_t b = 0; b < t->bucketCount; ++b)
        ASSERT_TRUE(t->buckets[b].next == &t->buckets[b] && t->buckets[b].prev == &t->buckets[b]) << b;
    EXPECT_EQ(tovi_hash_destory(t, nullptr), 0);

    tovi_hash_table_s *untouched = reinterpret_cast<tovi_hash_table_s *>(0x1);
    t = untouched;
    EXPECT_EQ(tovi_hash_create(0, &t, 0), -22);
    EXPECT_EQ(tovi_hash_create(16, nullptr, 0), -22);
    EXPECT_EQ(tovi_hash_create(16, &t, 1024), -22);
    EXPECT_EQ(tovi_hash_create(0x80000000u, &t, 0), -22) << "2^31 buckets";
    EXPECT_EQ(t, untouched) << "argument errors leave the output alone";
    EXPECT_EQ(tovi_hash_destory(nullptr, nullptr), -22);
}

TEST(HashCreate, AllocatorAttributeServesHeaderAndBuckets)
{
    tovi_hash_attr_s attr;
    attr.malloc = rec_malloc;
    attr.free = rec_free;
    EXPECT_EQ(tovi_hash_attr_init(&attr), 0);
    EXPECT_EQ(attr.malloc, nullptr);
    EXPECT_EQ(attr.free, nullptr);
    EXPECT_EQ(tovi_hash_attr_init(nullptr), -1);

    Recorder rec;
    g_rec = &rec;
    attr.malloc = rec_malloc;
    attr.free = rec_free;
    tovi_hash_table_s *t = nullptr;
    ASSERT_EQ(tovi_hash_create_ex(64, &t, 5, &attr), 0);
    EXPECT_EQ(t->attr, &attr);
    ASSERT_EQ(rec.blocks.size(), 2u);
    EXPECT_EQ(static_cast<void *>(t), rec.blocks[0]) << "the header first";
    EXPECT_EQ(static_cast<void *>(t->buckets), rec.blocks[1]);
    EXPECT_EQ(tovi_hash_destory(t, nullptr), 0);
    using Calls = std::vector<std::pair<char, size_t>>;
    EXPECT_EQ(rec.calls,
              (Calls{{'m', sizeof(tovi_hash_table_s)}, {'m', 64 * sizeof(tovi_hash_list_s)}, {'f', 1}, {'f', 0}}))
        << "buckets freed before the header";

    // The bucket array refused: the header goes back, the output is cleared.
    rec = Recorder{};
    rec.refuse_at = 1;
    t = reinterpret_cast<tovi_hash_table_s *>(0x1);
    EXPECT_EQ(tovi_hash_create_ex(0x7FFFFFFFu, &t, 0, &attr), -12);
    EXPECT_EQ(t, nullptr);
    EXPECT_EQ(rec.calls, (Calls{{'m', sizeof(tovi_hash_table_s)}, {'m', (size_t{1} << 30) * sizeof(tovi_hash_list_s)},
                                {'f', 0}}));
    // The header refused.
    rec = Recorder{};
    rec.refuse_at = 0;
    EXPECT_EQ(tovi_hash_create_ex(8, &t, 0, &attr), -12);
    EXPECT_EQ(t, nullptr);
    EXPECT_EQ(rec.calls, (Calls{{'m', sizeof(tovi_hash_table_s)}}));
    g_rec = nullptr;
}

// Random inserts, deletes and searches checked against std::unordered_map,
// and the visiting order against (bucket, newest first).
TEST(HashTable, RandomOperationsFollowAMapModel)
{
    tovi_hash_table_s *t = nullptr;
    ASSERT_EQ(tovi_hash_create(64, &t, 100), 0);
    constexpr size_t kPool = 400;
    std::vector<tovi_hash_node_s> nodes(kPool);
    std::mt19937_64 rng(4);
    for (size_t i = 0; i < kPool; ++i) {
        // Few distinct low halves and key32 values: many shared buckets and
        // keys that differ only in the high half of key64.
        nodes[i].key32 = static_cast<uint32_t>(rng() % 4);
        nodes[i].key64 = (rng() % 8) << 32 | (rng() % 50);
    }
    auto key_of = [](uint32_t k32, uint64_t k64) { return std::to_string(k32) + ":" + std::to_string(k64); };
    std::unordered_map<std::string, tovi_hash_node_s *> model;
    std::map<tovi_hash_node_s *, uint64_t> inserted_at;
    uint64_t clock = 0;

    for (int step = 0; step < 6000; ++step) {
        tovi_hash_node_s *n = &nodes[rng() % kPool];
        std::string key = key_of(n->key32, n->key64);
        auto it = model.find(key);
        switch (rng() % 3) {
        case 0:
            if (it != model.end() && it->second == n)
                break;  // already linked: inserting it again is a caller error
            ASSERT_EQ(tovi_hash_insert(t, n), it == model.end() ? 0 : -17) << key;
            if (it == model.end()) {
                model[key] = n;
                inserted_at[n] = ++clock;
            }
            break;
        case 1: {
            tovi_hash_node_s *out = reinterpret_cast<tovi_hash_node_s *>(0x1);
            int32_t ret = tovi_hash_delete(t, n->key32, n->key64, &out);
            ASSERT_EQ(ret, it == model.end() ? -1 : 0) << key;
            if (it != model.end()) {
                ASSERT_EQ(out, it->second);
                ASSERT_TRUE(points_to_itself(out));
                inserted_at.erase(out);
                model.erase(it);
            }
            break;
        }
        default: {
            tovi_hash_node_s *out = nullptr;
            ASSERT_EQ(tovi_hash_search(t, n->key32, n->key64, &out), it == model.end() ? -1 : 0) << key;
            ASSERT_EQ(out, it == model.end() ? nullptr : it->second) << key;
            break;
        }
        }
        if (step % 150 == 0) {
            std::vector<tovi_hash_node_s *> expected;
            for (auto &[k, node] : model)
                expected.push_back(node);
            std::sort(expected.begin(), expected.end(), [&](tovi_hash_node_s *x, tovi_hash_node_s *y) {
                uint32_t bx = bucket_of(t, x->key32, x->key64), by = bucket_of(t, y->key32, y->key64);
                return bx != by ? bx < by : inserted_at[x] > inserted_at[y];
            });
            ASSERT_EQ(walk(t), expected) << "step " << step;
        }
    }

    // Tear-down hands every node over in visiting order, unlinked.
    static std::vector<tovi_hash_node_s *> released;
    released.clear();
    auto order = walk(t);
    ASSERT_EQ(tovi_hash_destory(t, [](tovi_hash_node_s *n) {
                  EXPECT_TRUE(points_to_itself(n));
                  released.push_back(n);
              }),
              0);
    EXPECT_EQ(released, order);
}

TEST(HashForEach, StopFlagAndRemovalOfTheVisitedNode)
{
    tovi_hash_table_s *t = nullptr;
    ASSERT_EQ(tovi_hash_create(8, &t, 0), 0);
    std::vector<tovi_hash_node_s> nodes(30);
    for (uint32_t i = 0; i < nodes.size(); ++i) {
        nodes[i].key32 = 0;
        nodes[i].key64 = i % 10 + (uint64_t{i / 10} << 40);  // three to a low half
        ASSERT_EQ(tovi_hash_insert(t, &nodes[i]), 0);
    }
    auto order = walk(t);
    ASSERT_EQ(order.size(), nodes.size());

    struct Probe {
        int calls = 0;
        tovi_hash_node_s *stop_at;
    };
    auto stop_at_third = [](tovi_hash_node_s *n, void *arg) {
        auto *p = static_cast<Probe *>(arg);
        ++p->calls;
        return n == p->stop_at ? int32_t{-7} : int32_t{0};
    };
    Probe probe{0, order[2]};
    EXPECT_EQ(tovi_hash_for_each_ex(t, stop_at_third, &probe, 1), -7);
    EXPECT_EQ(probe.calls, 3);
    probe = Probe{0, order[2]};
    EXPECT_EQ(tovi_hash_for_each_ex(t, stop_at_third, &probe, 0), 0) << "without the stop flag the walk goes on";
    EXPECT_EQ(probe.calls, 30);

    static tovi_hash_table_s *table;
    static int visits;
    table = t;
    visits = 0;
    EXPECT_EQ(tovi_hash_for_each(
                  t,
                  [](tovi_hash_node_s *n) {
                      ++visits;
                      return tovi_hash_delete(table, n->key32, n->key64, nullptr);
                  },
                  1),
              0);
    EXPECT_EQ(visits, 30) << "each node visited once though each was removed during its visit";
    EXPECT_TRUE(walk(t).empty());
    for (auto &n : nodes)
        EXPECT_TRUE(points_to_itself(&n));

    EXPECT_EQ(tovi_hash_for_each(nullptr, [](tovi_hash_node_s *) { return int32_t{0}; }, 0), -22);
    EXPECT_EQ(tovi_hash_for_each(t, nullptr, 0), -22);
    EXPECT_EQ(tovi_hash_for_each_ex(nullptr, stop_at_third, &probe, 0), -22);
    EXPECT_EQ(tovi_hash_for_each_ex(t, nullptr, &probe, 0), -22);
    EXPECT_EQ(tovi_hash_destory(t, nullptr), 0);
}

TEST(HashTable, BrokenNeighbourIsReportedAndTheDeleteGoesOn)
{
    tovi_hash_table_s *t = nullptr;
    ASSERT_EQ(tovi_hash_create(2, &t, 0), 0);
    tovi_hash_node_s a{nullptr, nullptr, 1, 0}, b{nullptr, nullptr, 1, 1};
    ASSERT_EQ(bucket_of(t, 0, 1), bucket_of(t, 1, 1)) << "both in one bucket for this test";
    ASSERT_EQ(tovi_hash_insert(t, &a), 0);
    ASSERT_EQ(tovi_hash_insert(t, &b), 0);  // bucket: head, b, a
    tovi_hash_list_s stray{};
    a.prev = &stray;  // a's back link no longer points at b
    LogCapture cap;
    EXPECT_EQ(tovi_hash_delete(t, 0, 1, nullptr), 0);
    // a was last in the bucket: its next is the bucket head.
    char text[160];
    std::snprintf(text, sizeof text, "Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)",
                  static_cast<void *>(&stray), static_cast<void *>(nullptr), static_cast<void *>(nullptr),
                  static_cast<void *>(&a), static_cast<void *>(&t->buckets[bucket_of(t, 0, 1)]),
                  static_cast<void *>(&stray));
    EXPECT_EQ(cap.texts(3), (std::vector<std::string>{text}));
    EXPECT_TRUE(points_to_itself(&a));
    // The bucket is beyond repair (b still points at a): empty it by hand.
    tovi_hash_list_s *head = &t->buckets[bucket_of(t, 0, 1)];
    head->next = head->prev = head;
    EXPECT_EQ(tovi_hash_destory(t, nullptr), 0);
}

TEST(HashCreate, HalfAnAllocatorIsRefusedWithAMessage)
{
    LogCapture cap;
    tovi_hash_attr_s only_malloc{rec_malloc, nullptr};
    tovi_hash_table_s *t = reinterpret_cast<tovi_hash_table_s *>(0x1);
    EXPECT_EQ(tovi_hash_create_ex(8, &t, 0, &only_malloc), -12);
    EXPECT_EQ(t, nullptr);
    EXPECT_EQ(cap.texts(6), (std::vector<std::string>{matched_message(reinterpret_cast<void *>(rec_malloc), nullptr)}));
    ASSERT_EQ(cap.records().size(), 1u);
    EXPECT_EQ(cap.records()[0].module, 381u);
    EXPECT_EQ(cap.records()[0].file, "tovi_hash");

    cap.clear();
    tovi_hash_attr_s only_free{nullptr, rec_free};
    EXPECT_EQ(tovi_hash_malloc(&only_free, 16), nullptr);
    EXPECT_TRUE(cap.contains(matched_message(nullptr, reinterpret_cast<void *>(rec_free))));

    // Neither callback: the system allocator, silently.
    cap.clear();
    tovi_hash_attr_s none{nullptr, nullptr};
    void *p = tovi_hash_malloc(&none, 16);
    ASSERT_NE(p, nullptr);
    tovi_hash_free(&none, p);
    p = tovi_hash_malloc(nullptr, 16);
    ASSERT_NE(p, nullptr);
    tovi_hash_free(nullptr, p);
    EXPECT_TRUE(cap.texts().empty());
}
