// The intrusive red-black tree: random operation sequences against std::set
// with colours, black heights and parent links checked after every step, an
// augmented subtree maximum kept through rotations, and the exact nodes the
// augmentation hooks visit.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "tovi_rbtree.h"

namespace {

struct Item {
    int key;
    int value;       // augmented tree: the value whose subtree maximum is kept
    tovi_rb_node node;
    int subtreeMax;
};

Item *item_of(tovi_rb_node *n)
{
    return n == nullptr ? nullptr : tovi_rb_entry(n, Item, node);
}

int key_of(tovi_rb_node *n)
{
    return item_of(n)->key;
}

void refresh_max(tovi_rb_node *n, void *calls)
{
    Item *it = item_of(n);
    int m = it->value;
    if (n->left != nullptr)
        m = std::max(m, item_of(n->left)->subtreeMax);
    if (n->right != nullptr)
        m = std::max(m, item_of(n->right)->subtreeMax);
    it->subtreeMax = m;
    if (calls != nullptr)
        static_cast<std::vector<int> *>(calls)->push_back(it->key);
}

class RbTest : public ::testing::Test {
protected:
    Item *make(int key, int value = 0)
    {
        pool.push_back(std::make_unique<Item>());
        Item *it = pool.back().get();
        it->key = key;
        it->value = value;
        it->subtreeMax = value;
        return it;
    }

    // The caller's own descent; false for a duplicate key.
    bool insert(Item *it)
    {
        tovi_rb_node **link = &root.node;
        tovi_rb_node *parent = nullptr;
        while (*link != nullptr) {
            parent = *link;
            if (it->key < key_of(parent))
                link = &parent->left;
            else if (it->key > key_of(parent))
                link = &parent->right;
            else
                return false;
        }
        tovi_rb_link_node(&it->node, parent, link);
        tovi_rb_insert_color(&it->node, &root);
        return true;
    }

    Item *find(int key)
    {
        tovi_rb_node *n = root.node;
        while (n != nullptr) {
            if (key < key_of(n))
                n = n->left;
            else if (key > key_of(n))
                n = n->right;
            else
                return item_of(n);
        }
        return nullptr;
    }

    Item *add(int key, int value = 0)
    {
        Item *it = make(key, value);
        EXPECT_TRUE(insert(it));
        return it;
    }

    void add_augmented(Item *it, std::vector<int> *calls = nullptr)
    {
        ASSERT_TRUE(insert(it));
        tovi_rb_augment_insert(&it->node, refresh_max, calls);
    }

    void erase_augmented(Item *it, std::vector<int> *calls = nullptr)
    {
        tovi_rb_node *deepest = tovi_rb_augment_erase_begin(&it->node);
        tovi_rb_erase(&it->node, &root);
        tovi_rb_augment_erase_end(deepest, refresh_max, calls);
    }

    // Checks the red-black rules and the links; returns the keys in order
    // as walked with first/next (and checks last/prev agree).
    std::vector<int> check(bool augmented = false)
    {
        if (root.node != nullptr) {
            EXPECT_EQ(tovi_rb_parent(root.node), nullptr);
            EXPECT_TRUE(tovi_rb_is_black(root.node)) << "the root is black";
        }
        black_height(root.node, augmented);

        std::vector<int> keys;
        for (tovi_rb_node *n = tovi_rb_first(&root); n != nullptr; n = tovi_rb_next(n))
            keys.push_back(key_of(n));
        std::vector<int> back;
        for (tovi_rb_node *n = tovi_rb_last(&root); n != nullptr; n = tovi_rb_prev(n))
            back.push_back(key_of(n));
        std::reverse(back.begin(), back.end());
        EXPECT_EQ(keys, back);
        EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
        return keys;
    }

    int black_height(tovi_rb_node *n, bool augmented)
    {
        if (n == nullptr)
            return 1;
        EXPECT_EQ(n->parentColor & 2, 0u) << "bit 1 of the parent word stays clear";
        int m = item_of(n)->value;
        for (tovi_rb_node *c : {n->left, n->right}) {
            if (c == nullptr)
                continue;
            EXPECT_EQ(tovi_rb_parent(c), n) << "parent link of " << key_of(c);
            if (!tovi_rb_is_black(n)) {
                EXPECT_TRUE(tovi_rb_is_black(c)) << "red " << key_of(n) << " has a red child";
            }
            m = std::max(m, item_of(c)->subtreeMax);
        }
        if (augmented) {
            EXPECT_EQ(item_of(n)->subtreeMax, m) << "augmented value of " << key_of(n);
        }
        int left = black_height(n->left, augmented);
        int right = black_height(n->right, augmented);
        EXPECT_EQ(left, right) << "black heights below " << key_of(n);
        return left + (tovi_rb_is_black(n) ? 1 : 0);
    }

    tovi_rb_root root = TOVI_RB_ROOT_INIT;
    std::vector<std::unique_ptr<Item>> pool;
};

}  // namespace

TEST_F(RbTest, RandomOperationsMatchASetAndKeepTheRules)
{
    std::mt19937 rng(424242);
    std::set<int> model;
    for (int step = 0; step < 6000; ++step) {
        bool grow = (step / 1500) % 2 == 0;
        int key = static_cast<int>(rng() % 400);
        SCOPED_TRACE(testing::Message() << "step " << step << " key " << key);
        if (rng() % 10 < (grow ? 7u : 3u)) {
            bool fresh = model.insert(key).second;
            Item *it = make(key);
            EXPECT_EQ(insert(it), fresh);
        } else if (Item *it = find(key); it != nullptr) {
            ASSERT_EQ(model.erase(key), 1u);
            tovi_rb_node before = it->node;
            tovi_rb_erase(&it->node, &root);
            EXPECT_EQ(std::memcmp(&before, &it->node, sizeof before), 0)
                << "the erased node's fields are left as they were";
            EXPECT_EQ(find(key), nullptr);
        } else {
            EXPECT_EQ(model.count(key), 0u);
        }
        std::vector<int> keys = check();
        ASSERT_EQ(keys, std::vector<int>(model.begin(), model.end()));
        if (HasFailure())
            return;  // a broken tree would only crash the next step
    }
}

TEST_F(RbTest, AugmentedSubtreeMaximumSurvivesRotations)
{
    std::mt19937 rng(99);
    std::vector<Item *> live;
    for (int step = 0; step < 4000; ++step) {
        bool grow = (step / 1000) % 2 == 0;
        if (live.empty() || rng() % 10 < (grow ? 7u : 3u)) {
            int key = static_cast<int>(rng() % 100000);
            if (find(key) != nullptr)
                continue;
            Item *it = make(key, static_cast<int>(rng() % 1000000));
            add_augmented(it);
            live.push_back(it);
        } else {
            size_t at = rng() % live.size();
            erase_augmented(live[at]);
            live.erase(live.begin() + static_cast<std::ptrdiff_t>(at));
        }
        SCOPED_TRACE(testing::Message() << "step " << step);
        check(true);
        if (HasFailure())
            return;
    }
}

TEST_F(RbTest, AugmentWalkVisitsSiblingsChildrenFirst)
{
    // 2 black over red 1 and 3, then 4 recolours: 2 black over black 1 and 3.
    for (int k : {2, 1, 3})
        add_augmented(make(k, k));
    std::vector<int> calls;
    add_augmented(make(4, 4), &calls);
    // From the new leaf 4, a right child whose parent 3 has no left child:
    // 4 again; then 3; then 3's sibling 1; then 2.
    EXPECT_EQ(calls, (std::vector<int>{4, 4, 3, 1, 2}));

    // 0 under 1, a left child whose parent has no right child: nothing for
    // the sibling; at 1, the sibling 3 is refreshed before 2.
    calls.clear();
    add_augmented(make(0, 0), &calls);
    EXPECT_EQ(calls, (std::vector<int>{0, 1, 3, 2}));
    check(true);

    // After a rotation the walk starts at the new node's left child.
    root.node = nullptr;
    for (int k : {10, 5})
        add_augmented(make(k, k));
    calls.clear();
    add_augmented(make(7, 7), &calls);  // 7 rises over 5 and 10
    EXPECT_EQ(calls, (std::vector<int>{5, 10, 7}));
    check(true);
}

TEST_F(RbTest, EraseBeginNamesTheDeepestChangedNode)
{
    // 4 black; 2 black over red 1, 3; 6 black over red 5, 7.
    std::vector<Item *> n(9);
    for (int k : {4, 2, 6, 1, 3, 5, 7})
        n[k] = add(k);
    check();
    ASSERT_EQ(root.node, &n[4]->node);
    EXPECT_EQ(tovi_rb_augment_erase_begin(&n[1]->node), &n[2]->node) << "leaf: its parent";
    EXPECT_EQ(tovi_rb_augment_erase_begin(&n[4]->node), &n[6]->node)
        << "successor 5 without a right child: its parent";
    EXPECT_EQ(tovi_rb_augment_erase_begin(&n[2]->node), &n[3]->node)
        << "successor 3 is the erased node's own child: 3 itself";

    n[8] = add(8);  // 5, 7 black, 6 red; 8 red under 7
    EXPECT_EQ(tovi_rb_augment_erase_begin(&n[6]->node), &n[8]->node)
        << "successor 7 with a right child: that child";
    EXPECT_EQ(tovi_rb_augment_erase_begin(&n[7]->node), &n[8]->node) << "one child: that child";

    root.node = nullptr;
    Item *only = add(1);
    EXPECT_EQ(tovi_rb_augment_erase_begin(&only->node), nullptr);
    tovi_rb_erase(&only->node, &root);
    EXPECT_EQ(root.node, nullptr);
    tovi_rb_augment_erase_end(nullptr, refresh_max, nullptr);  // does nothing
}

TEST_F(RbTest, ReplaceNodeTakesPlaceColourAndLinks)
{
    Item *two = add(2);
    Item *one = add(1);
    Item *three = add(3);
    Item *other = make(2);
    std::memset(&other->node, 0x5a, sizeof other->node);
    tovi_rb_replace_node(&two->node, &other->node, &root);
    EXPECT_EQ(root.node, &other->node) << "replacing the root updates the root";
    EXPECT_EQ(std::memcmp(&other->node, &two->node, sizeof two->node), 0);
    EXPECT_EQ(tovi_rb_parent(&one->node), &other->node);
    EXPECT_EQ(tovi_rb_parent(&three->node), &other->node);
    EXPECT_FALSE(tovi_rb_is_black(&one->node)) << "children keep their colours";
    EXPECT_FALSE(tovi_rb_is_black(&three->node));
    check();

    // A red leaf deeper down: its parent's link changes.
    Item *red = make(3);
    tovi_rb_replace_node(&three->node, &red->node, &root);
    EXPECT_EQ(other->node.right, &red->node);
    EXPECT_FALSE(tovi_rb_is_black(&red->node));
    EXPECT_EQ(tovi_rb_parent(&red->node), &other->node);
    check();
}
