// The intrusive red-black tree: random operations against std::map with the rules and an
// augmented subtree maximum checked after every step; the nodes the augmentation hooks visit.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <ranges>
#include <vector>

#include "tovi_rbtree.h"

namespace {

// The tree keeps the largest value of each subtree in its root's subtreeMax.
struct Item { int key, value; tovi_rb_node node; int subtreeMax; };

Item *item_of(tovi_rb_node *n) { return n == nullptr ? nullptr : tovi_rb_entry(n, Item, node); }

void refresh_max(tovi_rb_node *n, void *calls)
{
    Item *it = item_of(n);
    it->subtreeMax = it->value;
    for (tovi_rb_node *c : {n->left, n->right})
        if (c != nullptr)
            it->subtreeMax = std::max(it->subtreeMax, item_of(c)->subtreeMax);
    if (calls != nullptr)
        static_cast<std::vector<int> *>(calls)->push_back(it->key);
}

class RbTest : public ::testing::Test {
protected:
    // The caller's own descent, then the augmentation walk.
    Item *add(int key, int value = 0, std::vector<int> *calls = nullptr)
    {
        Item *it = pool.emplace_back(std::make_unique<Item>(Item{key, value, {}, value})).get();
        tovi_rb_node **link = &root.node, *parent = nullptr;
        for (; *link != nullptr; link = key < item_of(*link)->key ? &(*link)->left : &(*link)->right)
            parent = *link;
        tovi_rb_link_node(&it->node, parent, link);
        tovi_rb_insert_color(&it->node, &root);
        tovi_rb_augment_insert(&it->node, refresh_max, calls);
        return it;
    }

    // Rules, links and augmented values; the keys walked with first/next, and last/prev.
    std::vector<int> check()
    {
        EXPECT_TRUE(root.node == nullptr || (tovi_rb_parent(root.node) == nullptr && tovi_rb_is_black(root.node)));
        black_height(root.node);
        std::vector<int> keys, back;
        for (tovi_rb_node *n = tovi_rb_first(&root); n != nullptr; n = tovi_rb_next(n))
            keys.push_back(item_of(n)->key);
        for (tovi_rb_node *n = tovi_rb_last(&root); n != nullptr; n = tovi_rb_prev(n))
            back.insert(back.begin(), item_of(n)->key);
        EXPECT_EQ(keys, back);
        return keys;
    }
    int black_height(tovi_rb_node *n)
    {
        if (n == nullptr)
            return 1;
        int key = item_of(n)->key, m = item_of(n)->value;
        EXPECT_EQ(n->parentColor & 2, 0u) << "bit 1 of the parent word stays clear";
        for (tovi_rb_node *c : {n->left, n->right}) {
            if (c == nullptr)
                continue;
            EXPECT_EQ(tovi_rb_parent(c), n) << "parent link below " << key;
            EXPECT_TRUE(tovi_rb_is_black(n) || tovi_rb_is_black(c)) << "red " << key << " has a red child";
            m = std::max(m, item_of(c)->subtreeMax);
        }
        EXPECT_EQ(item_of(n)->subtreeMax, m) << "augmented value of " << key;
        int left = black_height(n->left), right = black_height(n->right);
        EXPECT_EQ(left, right) << "black heights below " << key;
        return left + (tovi_rb_is_black(n) ? 1 : 0);
    }

    tovi_rb_root root = TOVI_RB_ROOT_INIT;
    std::vector<std::unique_ptr<Item>> pool;
};

}  // namespace

TEST_F(RbTest, RandomOperationsMatchAMapAndKeepTheRules)
{
    std::mt19937 rng(424242);
    std::map<int, Item *> model;
    for (int step = 0; step < 6000; ++step) {
        int key = static_cast<int>(rng() % 400);
        SCOPED_TRACE(testing::Message() << "step " << step << " key " << key);
        auto pos = model.find(key);
        if (rng() % 10 < ((step / 1500) % 2 == 0 ? 7u : 3u)) {  // phases: deep trees, erasure to empty
            if (pos == model.end())
                model[key] = add(key, static_cast<int>(rng() % 100000));
        } else if (pos != model.end()) {
            tovi_rb_node *deepest = tovi_rb_augment_erase_begin(&pos->second->node);
            tovi_rb_node before = pos->second->node;
            tovi_rb_erase(&pos->second->node, &root);
            EXPECT_EQ(std::memcmp(&before, &pos->second->node, sizeof before), 0) << "the erased node is left as it was";
            tovi_rb_augment_erase_end(deepest, refresh_max, nullptr);
            model.erase(pos);
        }
        auto keys = std::views::keys(model);
        ASSERT_EQ(check(), std::vector<int>(keys.begin(), keys.end()));
        ASSERT_FALSE(HasFailure());  // a broken tree would only crash the next step
    }
}

TEST_F(RbTest, HooksAndReplacementTouchExactlyTheNodesThatChange)
{
    // {keys, key added, calls}: 4 recolours 1 and 3, a sibling is refreshed before the
    // parent; 0 under 1 has no sibling; 7 rises over 5 and 10: the walk starts at 5.
    const struct { std::vector<int> keys; int added; std::vector<int> calls; } cases[] = {
        {{2, 1, 3}, 4, {4, 4, 3, 1, 2}}, {{2, 1, 3, 4}, 0, {0, 1, 3, 2}}, {{10, 5}, 7, {5, 10, 7}}};
    for (const auto &c : cases) {
        root.node = nullptr;
        for (int k : c.keys)
            add(k, k);
        std::vector<int> calls;
        add(c.added, c.added, &calls);
        EXPECT_EQ(calls, c.calls) << "adding " << c.added;
        check();
    }

    // {erased, deepest changed node} in 4 over 2 (red 1, 3) and red 6 (5, 7 over red 8).
    root.node = nullptr;
    std::map<int, Item *> n;
    for (int k : {4, 2, 6, 1, 3, 5, 7, 8})
        n[k] = add(k);
    const int deepest[][2] = {{1, 2} /* leaf: parent */, {4, 6} /* successor 5 has no right child: its parent */,
                              {2, 3} /* successor is the right child */, {6, 8} /* its right child */, {7, 8} /* one child */};
    for (auto [erased, changed] : deepest)
        EXPECT_EQ(tovi_rb_augment_erase_begin(&n[erased]->node), &n[changed]->node) << "erasing " << erased;

    root.node = nullptr;
    EXPECT_TRUE(check().empty() && tovi_rb_first(nullptr) == nullptr && tovi_rb_last(nullptr) == nullptr) << "empty, no tree";
    Item *one = add(1);
    EXPECT_EQ(tovi_rb_augment_erase_begin(&one->node), nullptr) << "the only node";

    // Replacement takes the victim's place, colour and links (2 over red 1, 3).
    Item *two = add(2), *three = add(3);
    Item other{2, 0, {}, 0}, red{3, 0, {}, 0};
    tovi_rb_replace_node(&two->node, &other.node, &root);
    EXPECT_EQ(root.node, &other.node) << "replacing the root updates the root";
    EXPECT_EQ(std::memcmp(&other.node, &two->node, sizeof two->node), 0);
    EXPECT_EQ(one->node.parentColor, reinterpret_cast<uintptr_t>(&other.node)) << "children keep their red colour";
    EXPECT_EQ(three->node.parentColor, reinterpret_cast<uintptr_t>(&other.node));
    tovi_rb_replace_node(&three->node, &red.node, &root);  // a leaf: its parent's link changes
    EXPECT_EQ(other.node.right, &red.node);
    EXPECT_EQ(red.node.parentColor, reinterpret_cast<uintptr_t>(&other.node));
    EXPECT_EQ(check(), (std::vector<int>{1, 2, 3}));
}
