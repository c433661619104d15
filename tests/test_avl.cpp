// The intrusive AVL tree: random operations against std::map checked after every step; the messages.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <ranges>
#include <vector>

#include "log_capture.hpp"
#include "tovi_avl.h"

namespace {

// The node sits behind other fields so that a wrong offset shows.
struct Item { int key; uint64_t pad[3]; tovi_avl_node_s node; };

int cmp(int a, int b) { return a < b ? -1 : a > b ? 1 : 0; }
int key_of(const void *object) { return static_cast<const Item *>(object)->key; }
int compar_items(const void *v, const void *o) { return cmp(key_of(v), key_of(o)); }
int compar_key(const void *v, const void *o) { return cmp(*static_cast<const int *>(v), key_of(o)); }
// Out of range at key 20 only: the search has passed a node when it meets it.
int broken_key(const void *v, const void *o) { return key_of(o) == 20 ? 2 : compar_key(v, o); }
int broken_items(const void *v, const void *o) { return key_of(o) == 20 ? 2 : compar_items(v, o); }


Item *item_of(tovi_avl_node_s *n) { return reinterpret_cast<Item *>(reinterpret_cast<char *>(n) - offsetof(Item, node)); }

class AvlTest : public ::testing::Test {
protected:
    AvlTest() { EXPECT_EQ(tovi_create_avl_new(&tree, compar_items, compar_key, sizeof(Item), offsetof(Item, node)), 0); }
    Item *make(int key, bool add = false)
    {
        Item *it = pool.emplace_back(std::make_unique<Item>(Item{key, {}, {}})).get();
        if (add)
            tovi_add_avl_node(&tree, it);
        return it;
    }
    Item *find(int key, uint64_t *where = nullptr) { return static_cast<Item *>(tovi_find_avl_node(&tree, &key, where)); }

    int height(tovi_avl_node_s *n, std::vector<Item *> &order)  // checks links, sides and balances
    {
        if (n == nullptr)
            return 0;
        for (unsigned side = 0; side < 2; ++side)
            EXPECT_TRUE(n->child[side] == nullptr || (n->child[side]->parent == n && n->child[side]->childIndex == side));
        int left = height(n->child[0], order);
        order.push_back(item_of(n));
        int right = height(n->child[1], order);
        EXPECT_TRUE(n->balance == right - left && n->balance * n->balance <= 1) << "key " << item_of(n)->key;
        return 1 + std::max(left, right);
    }
    // The whole tree, and the objects in it in order and as both walks see them.
    void check(const std::vector<Item *> &expected)
    {
        std::vector<Item *> order, forward, backward;
        EXPECT_TRUE(tree.root == nullptr || tree.root->parent == nullptr);
        height(tree.root, order);
        for (void *o = tovi_get_avl_first_node(&tree); o != nullptr; o = tovi_walk_avl_node(&tree, o, 1))
            forward.push_back(static_cast<Item *>(o));
        for (void *o = tovi_get_avl_last_node(&tree); o != nullptr; o = tovi_walk_avl_node(&tree, o, 0))
            backward.insert(backward.begin(), static_cast<Item *>(o));
        EXPECT_EQ((std::vector{order, forward, backward}), std::vector(3, expected)) << "in order, forwards, backwards";
        EXPECT_EQ(tovi_get_avl_node_num(&tree), expected.size());
    }
    void check(const std::map<int, Item *> &m) { auto v = std::views::values(m); check(std::vector<Item *>(v.begin(), v.end())); }

    tovi_avl_tree_s tree{};
    std::vector<std::unique_ptr<Item>> pool;
};

}  // namespace

TEST_F(AvlTest, RandomOperationsMatchAMapAndKeepTheInvariants)
{
    tovi::test::LogCapture cap;
    cap.set_threshold(6);  // leave out the per-insertion debug message
    std::mt19937 rng(20240611);
    std::map<int, Item *> model;
    for (int step = 0; step < 6000; ++step) {
        bool grow = (step / 1500) % 2 == 0;  // phases: deep trees and removal down to empty
        int key = static_cast<int>(rng() % 400);
        unsigned op = rng() % 8;
        SCOPED_TRACE(testing::Message() << "step " << step << " key " << key << " op " << op);
        auto pos = model.find(key);
        if (op < (grow ? 5u : 2u)) {  // search, then insert at the handle the search left
            uint64_t where = 0xdead;
            ASSERT_EQ(find(key, &where), pos == model.end() ? nullptr : pos->second);
            if (pos != model.end()) {
                EXPECT_EQ(where, 0xdeadu) << "a hit leaves the handle alone";
                continue;
            }
            auto after = model.upper_bound(key);
            EXPECT_EQ(tovi_find_avl_nearest_node(&tree, where, 1), after == model.end() ? nullptr : after->second);
            EXPECT_EQ(tovi_find_avl_nearest_node(&tree, where, 0), after == model.begin() ? nullptr : std::prev(after)->second);
            ASSERT_EQ(tovi_insert_avl_node(&tree, model[key] = make(key), where), 0);
        } else if (op < (grow ? 7u : 4u)) {
            model.emplace(key, make(key, true));  // a duplicate keeps the first object
            EXPECT_EQ(find(key), model[key]);
        } else if (pos != model.end()) {
            tovi_remove_avl_node(&tree, pos->second);
            model.erase(pos);
            EXPECT_EQ(find(key), nullptr);
        }
        check(model);
        ASSERT_FALSE(HasFailure());  // a broken tree would only crash the next step
    }
    EXPECT_TRUE(cap.texts().empty());
}

TEST_F(AvlTest, PlacedInsertionsAndRemovalByTheHeavierSide)
{
    std::mt19937 rng(7);
    std::vector<Item *> model{make(0)};
    tovi_insert_avl_node(&tree, model[0], 0);
    for (int i = 1; i < 400; ++i) {
        size_t at = rng() % model.size();
        int direction = static_cast<int>(rng() % 2);
        Item *it = make(i);
        ASSERT_EQ(tovi_insert_avl_node_specified(&tree, it, model[at], direction), 0);
        model.insert(model.begin() + static_cast<std::ptrdiff_t>(at) + direction, it);
        if (i % 7 == 0) {
            size_t gone = rng() % model.size();
            tovi_remove_avl_node(&tree, model[gone]);
            model.erase(model.begin() + static_cast<std::ptrdiff_t>(gone));
        }
        check(model);  // keys are not in order here: the walks and links are
        ASSERT_FALSE(HasFailure());
    }
    // Two children: the successor takes the place at balance +1, else the predecessor (40; its child 35 moves up).
    const struct { std::vector<int> keys; int gone, root; } cases[] = {
        {{2, 1, 3, 4}, 2, 3}, {{2, 1, 3}, 2, 1}, {{60, 30, 80, 20, 40, 70, 90, 10, 35}, 60, 40}};
    for (const auto &c : cases) {
        tovi_destroy_avl(&tree);
        std::map<int, Item *> items;
        for (int k : c.keys)
            items[k] = make(k, true);
        tovi_remove_avl_node(&tree, items[c.gone]);
        items.erase(c.gone);
        EXPECT_EQ(item_of(tree.root)->key, c.root) << "removing " << c.gone;
        check(items);
    }
}

TEST_F(AvlTest, BadComparatorsAndNullArgumentsAreReported)
{
    Item *a = make(10, true);
    make(20, true);
    // A comparator result outside -1..1 ends the search and must not replace the root.
    tovi_avl_tree_s broken = tree;
    broken.comparFind = broken_key;
    broken.compar = broken_items;
    int key = 30;
    uint64_t where = 1234;
    EXPECT_EQ(tovi_find_avl_node(&broken, &key, &where), nullptr);
    EXPECT_EQ(where, 0u);
    tovi::test::LogCapture cap;
    tovi_add_avl_node(&broken, make(30));
    EXPECT_EQ(broken.root, tree.root);
    EXPECT_EQ(broken.numNodes, 2u);
    find(15, &where);
    EXPECT_EQ(tovi_find_avl_nearest_node(&tree, where, 2), nullptr);
    EXPECT_EQ(cap.texts(3), (std::vector<std::string>{"InsertAvlNode fail.", "Invalid Param"}));

    cap.clear();
    EXPECT_EQ((std::vector<int32_t>{tovi_create_avl(nullptr, compar_items, 0, 0), tovi_create_avl(&tree, nullptr, 0, 0),
                                    tovi_create_avl_new(&tree, compar_items, nullptr, 0, 0), tovi_destroy_avl(nullptr),
                                    tovi_insert_avl_node(nullptr, a, 0), tovi_insert_avl_node(&tree, nullptr, 0),
                                    tovi_insert_avl_node_specified(&tree, nullptr, a, 0),
                                    tovi_insert_avl_node_specified(&tree, make(2), nullptr, 0)}),
              std::vector<int32_t>(8, -1));
    EXPECT_EQ((std::vector<void *>{tovi_find_avl_node(nullptr, &key, &where), tovi_find_avl_node(&tree, nullptr, &where),
                                   tovi_find_avl_nearest_node(nullptr, 8, 0), tovi_walk_avl_node(&tree, nullptr, 0),
                                   tovi_get_avl_first_node(nullptr), tovi_get_avl_last_node(nullptr)}),
              std::vector<void *>(6, nullptr));
    EXPECT_EQ(tovi_get_avl_node_num(nullptr), 0u);
    tovi_add_avl_node(nullptr, a);
    tovi_add_avl_node(&tree, nullptr);
    tovi_remove_avl_node(&tree, nullptr);
    EXPECT_EQ(cap.texts(), std::vector<std::string>(18, "NULL POINTER"));
    EXPECT_TRUE(tree.root == broken.root && tree.numNodes == 2 && tree.compar == compar_items) << "the tree is left alone";
}
