// The checked intrusive list.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tovi_list.hpp"

using namespace tovi::list;

namespace {

std::vector<int> values(const Node *head, const std::vector<Node> &nodes)
{
    std::vector<int> out;
    for (const Node *n = head->next; n != head; n = n->next)
        out.push_back(static_cast<int>(n - nodes.data()));
    return out;
}

std::string text(const char *fmt, const void *a, const void *b, const void *c, const void *d, const void *e,
                 const void *f)
{
    char buf[256];
    std::snprintf(buf, sizeof buf, fmt, a, b, c, d, e, f);
    return buf;
}

}  // namespace

TEST(List, KeepsStackAndQueueOrderAndPoisonsRemovals)
{
    Node head;
    init(&head);
    EXPECT_TRUE(empty(&head));
    std::vector<Node> nodes(4);
    add_tail(&nodes[1], &head);
    add_tail(&nodes[2], &head);
    add(&nodes[0], &head);
    add_tail(&nodes[3], &head);
    EXPECT_EQ(values(&head, nodes), (std::vector<int>{0, 1, 2, 3}));
    for (Node &n : nodes)
        EXPECT_TRUE(check_links(&n));

    del(&nodes[2]);
    EXPECT_TRUE(poisoned(&nodes[2]));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(nodes[2].next), 0x100100u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(nodes[2].prev), 0x200200u);
    EXPECT_EQ(values(&head, nodes), (std::vector<int>{0, 1, 3}));

    Node other;
    splice_init(&head, &other);
    EXPECT_TRUE(empty(&head));
    EXPECT_EQ(values(&other, nodes), (std::vector<int>{0, 1, 3}));
    EXPECT_TRUE(check_links(&other));
    splice_init(&head, &other);
    EXPECT_TRUE(empty(&other));
}

TEST(List, ReportsEachNeighbourThatDoesNotPointBack)
{
    tovi::test::LogCapture cap;
    Node head;
    init(&head);
    Node a, b, stray;
    add_tail(&a, &head);
    add_tail(&b, &head);
    init(&stray);

    a.next = &stray;  // a's forward link is broken: b no longer seen from a
    EXPECT_FALSE(check_links(&b));
    EXPECT_FALSE(check_links(&a));
    std::vector<std::string> expected = {
        text("Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)", &a, a.next, a.prev, &b, b.next,
             b.prev),
        text("Abnormal list node next:%p(%p,%p) is not point to cur:%p(%p,%p)", &stray, stray.next, stray.prev, &a,
             a.next, a.prev),
    };
    EXPECT_EQ(cap.texts(3), expected);
}

// ---- records, atomic-store lists and the other checks ----

namespace {

struct Rec {
    int value;
    Node link;
};

std::vector<Node *> shown;
void show(Node *n)
{
    shown.push_back(n);
}

}  // namespace

TEST(List, WalksRecordsWhileTheBodyUnlinksItsOwn)
{
    Node head;
    Release::init(&head);
    Rec recs[4] = {{0, {}}, {1, {}}, {2, {}}, {3, {}}};
    for (Rec &r : recs)
        Relaxed::add_tail(&r.link, &head);
    std::vector<int> seen;
    for (Rec *r : for_each_entry<Rec>(&head, offsetof(Rec, link))) {
        seen.push_back(r->value);
        if (r->value % 2 == 0)
            Release::del_init(&r->link);
    }
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(recs[0].link.next, &recs[0].link);  // self-linked, not poisoned
    Node moved;
    Relaxed::splice_init(&head, &moved);
    EXPECT_TRUE(empty(&head));
    EXPECT_EQ(entry<Rec>(moved.next, offsetof(Rec, link))->value, 1);
    EXPECT_EQ(entry<Rec>(moved.prev, offsetof(Rec, link))->value, 3);
    EXPECT_TRUE(check_links(&moved));
}

TEST(List, UnlinkAndWalkChecksReportAndShowTheNodes)
{
    tovi::test::LogCapture cap;
    Node head, a, b, stray;
    init(&head);
    add_tail(&a, &head);
    add_tail(&b, &head);
    init(&stray);
    shown.clear();
    b.prev = &stray;  // b claims the wrong predecessor
    EXPECT_FALSE(check_unlink(&b, show));
    EXPECT_EQ(shown, (std::vector<Node *>{&stray, &b}));
    const std::string bad_prev = text("Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)", &stray,
                                      stray.next, stray.prev, &b, b.next, b.prev);
    EXPECT_FALSE(check_step(&b, &a));
    poison(&stray);
    EXPECT_FALSE(check_unlink(&stray, show));  // prev leads nowhere; next is not followed
    char walk[128], unlinked[128];
    std::snprintf(walk, sizeof walk, "Abnormal list node cur:%p(%p,%p), is not point to last:%p",
                  static_cast<void *>(&b), static_cast<void *>(b.next), static_cast<void *>(b.prev),
                  static_cast<void *>(&a));
    std::snprintf(unlinked, sizeof unlinked, "List node prev:(%p), cur:(%p)", static_cast<void *>(stray.prev),
                  static_cast<void *>(&stray));
    EXPECT_EQ(cap.texts(3), (std::vector<std::string>{bad_prev, walk}));
    EXPECT_EQ(cap.texts(6), (std::vector<std::string>{unlinked}));
    EXPECT_EQ(shown.size(), 2u);
}
