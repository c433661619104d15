// The intrusive AVL tree: random operation sequences against std::map with
// the tree's invariants checked after every step, then the handle encoding,
// nearest search, placed insertion and the messages.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "log_capture.hpp"
#include "tovi_avl.h"

namespace {

// The node sits behind other fields so that a wrong offset shows.
struct Item {
    int key;
    uint64_t pad[3];
    tovi_avl_node_s node;
};

int cmp_key(int a, int b)
{
    return a < b ? -1 : a > b ? 1 : 0;
}

// compar: the searched value is another Item.
int compar_items(const void *value, const void *object)
{
    return cmp_key(static_cast<const Item *>(value)->key, static_cast<const Item *>(object)->key);
}

// comparFind: the searched value is an int key.
int compar_key(const void *value, const void *object)
{
    return cmp_key(*static_cast<const int *>(value), static_cast<const Item *>(object)->key);
}

// Out of range at the object with key 20 only, so that the search has
// already passed a node when it meets the bad result.
int compar_broken_at_20(const void *value, const void *object)
{
    if (static_cast<const Item *>(object)->key == 20)
        return 2;
    return compar_key(value, object);
}

int compar_items_broken_at_20(const void *value, const void *object)
{
    return compar_broken_at_20(&static_cast<const Item *>(value)->key, object);
}

Item *item_of(tovi_avl_node_s *n)
{
    return n == nullptr ? nullptr
                        : reinterpret_cast<Item *>(reinterpret_cast<char *>(n) - offsetof(Item, node));
}

class AvlTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(tovi_create_avl_new(&tree, compar_items, compar_key, sizeof(Item),
                                      offsetof(Item, node)),
                  0);
    }

    Item *make(int key)
    {
        pool.push_back(std::make_unique<Item>());
        pool.back()->key = key;
        return pool.back().get();
    }

    Item *add(int key)
    {
        Item *it = make(key);
        tovi_add_avl_node(&tree, it);
        return it;
    }

    Item *find(int key, uint64_t *where = nullptr)
    {
        return static_cast<Item *>(tovi_find_avl_node(&tree, &key, where));
    }

    Item *root() { return item_of(tree.root); }

    // Checks links, sides, balances and order of the whole tree; returns
    // the objects in order.
    std::vector<Item *> check()
    {
        std::vector<Item *> order;
        if (tree.root != nullptr) {
            EXPECT_EQ(tree.root->parent, nullptr);
        }
        height(tree.root, order);
        EXPECT_EQ(order.size(), tree.numNodes);
        for (size_t i = 1; i < order.size(); ++i)
            EXPECT_LT(order[i - 1]->key, order[i]->key) << "in-order position " << i;
        return order;
    }

    int height(tovi_avl_node_s *n, std::vector<Item *> &order)
    {
        if (n == nullptr)
            return 0;
        for (unsigned side = 0; side < 2; ++side) {
            if (n->child[side] != nullptr) {
                EXPECT_EQ(n->child[side]->parent, n);
                EXPECT_EQ(n->child[side]->childIndex, side);
            }
        }
        int left = height(n->child[0], order);
        order.push_back(item_of(n));
        int right = height(n->child[1], order);
        EXPECT_EQ(n->balance, right - left) << "key " << item_of(n)->key;
        EXPECT_LE(std::abs(right - left), 1) << "key " << item_of(n)->key;
        return 1 + std::max(left, right);
    }

    tovi_avl_tree_s tree{};
    std::vector<std::unique_ptr<Item>> pool;
};

// The objects as walked from the first forwards (direction 1) or from the
// last backwards (0).
std::vector<Item *> walk(tovi_avl_tree_s *tree, int direction)
{
    std::vector<Item *> objs;
    void *obj = direction == 1 ? tovi_get_avl_first_node(tree) : tovi_get_avl_last_node(tree);
    for (; obj != nullptr; obj = tovi_walk_avl_node(tree, obj, direction))
        objs.push_back(static_cast<Item *>(obj));
    return objs;
}

}  // namespace

TEST_F(AvlTest, RandomOperationsMatchAMapAndKeepTheInvariants)
{
    tovi::test::LogCapture cap;
    cap.set_threshold(6);  // leave out the per-insertion debug message
    std::mt19937 rng(20240611);
    std::map<int, Item *> model;
    constexpr int kKeys = 400;

    for (int step = 0; step < 6000; ++step) {
        // Phases of growth and shrinkage so that both deep trees and
        // removals down to empty occur.
        bool grow = (step / 1500) % 2 == 0;
        int key = static_cast<int>(rng() % kKeys);
        unsigned op = rng() % 10;
        SCOPED_TRACE(testing::Message() << "step " << step << " key " << key << " op " << op);

        if (op < (grow ? 5u : 2u)) {
            // Search, then insert at the handle the search left.
            uint64_t where = 0xdead;
            Item *found = find(key, &where);
            if (model.count(key) != 0) {
                EXPECT_EQ(found, model[key]);
                EXPECT_EQ(where, 0xdeadu) << "a hit leaves the handle alone";
                continue;
            }
            ASSERT_EQ(found, nullptr);
            // The nearest objects on both sides of the missing key.
            auto after = model.upper_bound(key);
            Item *next = after == model.end() ? nullptr : after->second;
            Item *prev = after == model.begin() ? nullptr : std::prev(after)->second;
            EXPECT_EQ(tovi_find_avl_nearest_node(&tree, where, 1), next);
            EXPECT_EQ(tovi_find_avl_nearest_node(&tree, where, 0), prev);
            Item *it = make(key);
            ASSERT_EQ(tovi_insert_avl_node(&tree, it, where), 0);
            model[key] = it;
        } else if (op < (grow ? 7u : 4u)) {
            Item *it = make(key);
            tovi_add_avl_node(&tree, it);
            model.emplace(key, it);  // a duplicate keeps the first object
            EXPECT_EQ(find(key), model[key]);
        } else if (op < 9) {
            auto pos = model.find(key);
            if (pos == model.end())
                continue;
            tovi_remove_avl_node(&tree, pos->second);
            model.erase(pos);
            EXPECT_EQ(find(key), nullptr);
        } else {
            auto pos = model.find(key);
            EXPECT_EQ(find(key), pos == model.end() ? nullptr : pos->second);
        }

        std::vector<Item *> order = check();
        ASSERT_EQ(order.size(), model.size());
        auto m = model.begin();
        for (size_t i = 0; i < order.size(); ++i, ++m)
            ASSERT_EQ(order[i], m->second) << "objects keep their identity";
        std::vector<Item *> forward = walk(&tree, 1);
        std::vector<Item *> backward = walk(&tree, 0);
        std::reverse(backward.begin(), backward.end());
        EXPECT_EQ(forward, order);
        EXPECT_EQ(backward, order);
        EXPECT_EQ(tovi_get_avl_node_num(&tree), model.size());
        EXPECT_EQ(tovi_get_avl_first_node(&tree), model.empty() ? nullptr : model.begin()->second);
        EXPECT_EQ(tovi_get_avl_last_node(&tree), model.empty() ? nullptr : model.rbegin()->second);
        if (HasFailure())
            return;  // a broken tree would only crash the next step
    }
    EXPECT_TRUE(cap.texts().empty());
}

TEST_F(AvlTest, ComparatorOutsideMinusOneToOneEndsTheSearch)
{
    add(10);
    add(20);
    tovi_avl_tree_s broken = tree;
    broken.comparFind = compar_broken_at_20;
    broken.compar = compar_items_broken_at_20;
    int key = 30;
    uint64_t where = 1234;
    EXPECT_EQ(tovi_find_avl_node(&broken, &key, &where), nullptr);
    EXPECT_EQ(where, 0u);

    // Adding through such a comparator must not replace the root.
    tovi::test::LogCapture cap;
    tovi_add_avl_node(&broken, make(30));
    EXPECT_EQ(cap.texts(3), std::vector<std::string>{"InsertAvlNode fail."});
    EXPECT_EQ(broken.root, tree.root);
    EXPECT_EQ(broken.numNodes, 2u);
}

TEST_F(AvlTest, NearestSearchAtEveryGapAndBeyondBothEnds)
{
    std::vector<Item *> items;
    for (int k = 10; k <= 100; k += 10)
        items.push_back(add(k));
    for (int probe = 5; probe <= 105; probe += 10) {
        uint64_t where = 0;
        ASSERT_EQ(find(probe, &where), nullptr);
        size_t above = static_cast<size_t>(probe / 10);  // index of the first larger key
        Item *next = above < items.size() ? items[above] : nullptr;
        Item *prev = above > 0 ? items[above - 1] : nullptr;
        EXPECT_EQ(tovi_find_avl_nearest_node(&tree, where, 1), next) << "probe " << probe;
        EXPECT_EQ(tovi_find_avl_nearest_node(&tree, where, 0), prev) << "probe " << probe;
    }
    tovi::test::LogCapture cap;
    uint64_t where = 0;
    find(55, &where);
    EXPECT_EQ(tovi_find_avl_nearest_node(&tree, where, 2), nullptr);
    EXPECT_EQ(cap.texts(3), std::vector<std::string>{"Invalid Param"});
}

TEST_F(AvlTest, RandomPlacedInsertionsMatchAList)
{
    tovi::test::LogCapture cap;
    cap.set_threshold(6);
    std::mt19937 rng(7);
    std::vector<Item *> model;
    tovi_insert_avl_node(&tree, make(0), 0);
    model.push_back(static_cast<Item *>(tovi_get_avl_first_node(&tree)));
    for (int i = 1; i < 400; ++i) {
        size_t at = rng() % model.size();
        int direction = static_cast<int>(rng() % 2);
        Item *it = make(i);
        ASSERT_EQ(tovi_insert_avl_node_specified(&tree, it, model[at], direction), 0);
        model.insert(model.begin() + static_cast<std::ptrdiff_t>(at) + direction, it);
        // Random removals now and then, to mix both paths.
        if (i % 7 == 0) {
            size_t gone = rng() % model.size();
            tovi_remove_avl_node(&tree, model[gone]);
            model.erase(model.begin() + static_cast<std::ptrdiff_t>(gone));
        }
        ASSERT_EQ(walk(&tree, 1), model) << "after insertion " << i;
        // Keys are not in order here: check the links and balances only.
        std::vector<Item *> unused;
        height(tree.root, unused);
        if (HasFailure())
            return;
    }
}

TEST_F(AvlTest, RemovalSwapsWithTheNeighbourOnTheHeavierSide)
{
    // Root 2 with balance +1: its successor 3 takes its place.
    Item *two = add(2);
    add(1);
    Item *three = add(3);
    add(4);
    ASSERT_EQ(tree.root->balance, 1);
    tovi_remove_avl_node(&tree, two);
    EXPECT_EQ(root(), three);
    check();

    // Balanced root: its predecessor takes its place.
    tovi_destroy_avl(&tree);
    Item *b = add(2);
    Item *a = add(1);
    add(3);
    ASSERT_EQ(tree.root->balance, 0);
    tovi_remove_avl_node(&tree, b);
    EXPECT_EQ(root(), a);
    EXPECT_EQ(tree.root->balance, 1);
    check();

    // A neighbour deep in the subtree with a child of its own: the root 60
    // leans left, its predecessor 40 has the left child 35, which moves up
    // into 40's old place.
    tovi_destroy_avl(&tree);
    for (int k : {60, 30, 80, 20, 40, 70, 90, 10, 35})
        add(k);
    check();
    Item *sixty = find(60);
    Item *forty = find(40);
    ASSERT_EQ(tree.root, &sixty->node);
    ASSERT_EQ(tree.root->balance, -1);
    tovi_remove_avl_node(&tree, sixty);
    EXPECT_EQ(root(), forty);
    EXPECT_EQ(find(35)->node.parent, &find(30)->node);
    EXPECT_EQ(find(35)->node.childIndex, 1u);
    EXPECT_EQ(find(60), nullptr);
    check();
}

TEST_F(AvlTest, NullArgumentsAreReportedAndFail)
{
    tovi::test::LogCapture cap;
    Item *a = add(1);
    cap.clear();
    int key = 1;
    uint64_t where = 0;
    EXPECT_EQ(tovi_create_avl(nullptr, compar_items, 0, 0), -1);
    EXPECT_EQ(tovi_create_avl(&tree, nullptr, 0, 0), -1);
    EXPECT_EQ(tovi_create_avl_new(&tree, compar_items, nullptr, 0, 0), -1);
    EXPECT_EQ(tovi_destroy_avl(nullptr), -1);
    EXPECT_EQ(tovi_find_avl_node(nullptr, &key, &where), nullptr);
    EXPECT_EQ(tovi_find_avl_node(&tree, nullptr, &where), nullptr);
    EXPECT_EQ(tovi_insert_avl_node(nullptr, a, 0), -1);
    EXPECT_EQ(tovi_insert_avl_node(&tree, nullptr, 0), -1);
    tovi_add_avl_node(nullptr, a);
    tovi_add_avl_node(&tree, nullptr);
    EXPECT_EQ(tovi_insert_avl_node_specified(&tree, nullptr, a, 0), -1);
    EXPECT_EQ(tovi_insert_avl_node_specified(&tree, make(2), nullptr, 0), -1);
    EXPECT_EQ(tovi_find_avl_nearest_node(nullptr, 8, 0), nullptr);
    EXPECT_EQ(tovi_walk_avl_node(&tree, nullptr, 0), nullptr);
    EXPECT_EQ(tovi_get_avl_first_node(nullptr), nullptr);
    EXPECT_EQ(tovi_get_avl_last_node(nullptr), nullptr);
    EXPECT_EQ(tovi_get_avl_node_num(nullptr), 0u);
    tovi_remove_avl_node(&tree, nullptr);
    EXPECT_EQ(cap.texts(3), std::vector<std::string>(18, "NULL POINTER"));
    EXPECT_EQ(cap.texts().size(), 18u);
    EXPECT_EQ(tree.root, &a->node) << "the failed calls left the tree alone";
    EXPECT_EQ(tree.numNodes, 1u);
    EXPECT_EQ(tree.compar, compar_items);
}
