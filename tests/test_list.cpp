// The checked intrusive list.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tovi_list.hpp"

using namespace tovi::list;
using Texts = std::vector<std::string>;

namespace {

struct Rec {
    int value;
    Node link;
};

std::vector<int> values(Node *head)
{
    std::vector<int> out;
    for (Node *n = head->next; n != head; n = n->next)
        out.push_back(entry<Rec>(n, offsetof(Rec, link))->value);
    return out;
}

std::string text(const char *fmt, const Node *a, const Node *b)
{
    char buf[256];
    std::snprintf(buf, sizeof buf, fmt, a, a->next, a->prev, b, b->next, b->prev);
    return buf;
}

const char kBadPrev[] = "Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)";

std::vector<Node *> shown;
void show(Node *n)
{
    shown.push_back(n);
}

}  // namespace

TEST(List, KeepsOrderPoisonsRemovalsAndWalksWhileTheBodyUnlinks)
{
    Node head, other;
    init(&head);
    Rec r[4] = {{0, {}}, {1, {}}, {2, {}}, {3, {}}};
    add_tail(&r[1].link, &head);
    add_tail(&r[2].link, &head);
    add(&r[0].link, &head);
    add_tail(&r[3].link, &head);
    EXPECT_EQ(values(&head), (std::vector<int>{0, 1, 2, 3}));
    del(&r[2].link);
    EXPECT_TRUE(poisoned(&r[2].link));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(r[2].link.next) << 32 | reinterpret_cast<uintptr_t>(r[2].link.prev),
              0x0010010000200200u);
    Relaxed::add_tail(&r[2].link, &head);
    std::vector<int> seen;
    for (Rec *p : for_each_entry<Rec>(&head, offsetof(Rec, link))) {
        seen.push_back(p->value);
        if (p->value % 2 == 0)
            Release::del_init(&p->link);
    }
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 3, 2}));
    EXPECT_EQ(r[0].link.next, &r[0].link) << "self-linked, not poisoned";
    Relaxed::splice_init(&head, &other);
    EXPECT_TRUE(empty(&head) && check_links(&other) && values(&other) == (std::vector<int>{1, 3}));
    splice_init(&head, &other);
    EXPECT_TRUE(empty(&other)) << "the target takes the source's contents, none";
}

TEST(List, ChecksReportEachBrokenLinkWordForWord)
{
    tovi::test::LogCapture cap;
    Node head, a, b, stray;
    init(&head);
    add_tail(&a, &head);
    add_tail(&b, &head);
    init(&stray);
    a.next = &stray;  // b is no longer seen from a
    EXPECT_FALSE(check_links(&b) || check_links(&a));
    Texts want = {text(kBadPrev, &a, &b),
                  text("Abnormal list node next:%p(%p,%p) is not point to cur:%p(%p,%p)", &stray, &a)};
    a.next = &b;
    b.prev = &stray;  // b claims the wrong predecessor
    EXPECT_FALSE(check_unlink(&b, show));
    want.push_back(text(kBadPrev, &stray, &b));
    EXPECT_FALSE(check_step(&b, &a));
    want.push_back(text("Abnormal list node cur:%p(%p,%p), is not point to last:%p", &b, &a));
    poison(&stray);
    EXPECT_FALSE(check_unlink(&stray, show));  // prev leads nowhere; next is not followed
    EXPECT_EQ(cap.texts(3), want);
    char unlinked[64];
    std::snprintf(unlinked, sizeof unlinked, "List node prev:(%p), cur:(%p)", static_cast<void *>(stray.prev),
                  static_cast<void *>(&stray));
    EXPECT_EQ(cap.texts(6), Texts{unlinked});
    EXPECT_EQ(shown, (std::vector<Node *>{&stray, &b})) << "only the first failure shows its nodes";
}
