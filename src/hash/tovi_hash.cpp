// The intrusive hash table. Buckets are the library's checked list: a bucket
// head and the first two fields of a node are list nodes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sys/mman.h>

// The exported functions themselves are defined here: no macro for them.
#define TOVI_HASH_NO_INLINE
#include "tovi_hash.h"
#include "tovi_hash.hpp"
#include "tovi_list.hpp"
#define TOVI_LOG_SOURCE "tovi_hash"
#include "tovi_log.hpp"

namespace {

using tovi::list::Node;

constexpr int32_t kOk = 0;
constexpr int32_t kInvalid = -22;
constexpr int32_t kNoMemory = -12;
constexpr int32_t kExists = -17;
constexpr int32_t kNotFound = -1;

// A creation limit is a small table class number; it is checked, not kept.
constexpr uint32_t kMaxLimit = 1023;
constexpr uint8_t kMaxPow = 30;

static_assert(sizeof(tovi_hash_list_s) == sizeof(Node) && offsetof(tovi_hash_list_s, next) == offsetof(Node, next) &&
              offsetof(tovi_hash_list_s, prev) == offsetof(Node, prev));
static_assert(offsetof(tovi_hash_node_s, next) == offsetof(Node, next) &&
              offsetof(tovi_hash_node_s, prev) == offsetof(Node, prev));

Node *as_list(tovi_hash_list_s *head)
{
    return reinterpret_cast<Node *>(head);
}

Node *as_list(tovi_hash_node_s *node)
{
    return reinterpret_cast<Node *>(node);
}

constexpr std::size_t kLinks = offsetof(tovi_hash_node_s, next);

tovi_hash_node_s *as_node(Node *n)
{
    return tovi::list::entry<tovi_hash_node_s>(n, kLinks);
}

Node *bucket_of(const tovi_hash_table_s *table, uint32_t key32, uint64_t key64)
{
    return as_list(tovi_hash_inl_bucket_(table, key32, key64));
}

// A lookup's first miss is its bucket head; in a bucket array of several
// MiB that miss would also walk the page tables, unless the array sits on
// huge pages. Asked for before the heads are written, so they fault in huge.
void advise_huge(void *mem, std::size_t size)
{
    constexpr std::uintptr_t kHuge = std::uintptr_t{1} << 21;
    const auto start = (reinterpret_cast<std::uintptr_t>(mem) + kHuge - 1) & ~(kHuge - 1);
    const auto end = (reinterpret_cast<std::uintptr_t>(mem) + size) & ~(kHuge - 1);
    if (end > start)
        madvise(reinterpret_cast<void *>(start), end - start, MADV_HUGEPAGE);
}

tovi_hash_node_s *find_in(Node *head, uint32_t key32, uint64_t key64)
{
    return tovi_hash_inl_find_(reinterpret_cast<tovi_hash_list_s *>(head), key32, key64);
}

// Unlinks a node (reporting broken neighbours, going on regardless) and
// leaves it pointing to itself.
void unlink(Node *n)
{
    tovi::list::check_links(n);
    tovi::list::del_init(n);
}

template <typename Visit>
int32_t walk(tovi_hash_table_s *table, uint8_t stop, Visit visit)
{
    for (uint32_t b = 0; b < table->bucketCount; ++b) {
        // The iteration reads the successor first: the callback may remove its node.
        for (tovi_hash_node_s *node : tovi::list::for_each_entry<tovi_hash_node_s>(as_list(&table->buckets[b]), kLinks)) {
            int32_t ret = visit(node);
            if (ret != 0 && stop != 0)
                return ret;
        }
    }
    return kOk;
}

}  // namespace

extern "C" {

int32_t tovi_hash_attr_init(tovi_hash_attr_s *attr)
{
    if (attr == nullptr)
        return -1;
    attr->malloc = nullptr;
    attr->free = nullptr;
    return 0;
}

void *tovi_hash_malloc(tovi_hash_attr_s *attr, size_t size)
{
    if (attr == nullptr || (attr->malloc == nullptr && attr->free == nullptr))
        return std::malloc(size);
    if (attr->malloc == nullptr || attr->free == nullptr) {
        TOVI_LOG(tovi::log::kInfo, "attr malloc(%p) and free(%p) must be matched",
                 reinterpret_cast<void *>(attr->malloc), reinterpret_cast<void *>(attr->free));
        return nullptr;
    }
    return attr->malloc(size);
}

void tovi_hash_free(tovi_hash_attr_s *attr, void *mem)
{
    if (attr == nullptr || attr->free == nullptr)
        std::free(mem);
    else
        attr->free(mem);
}

int32_t tovi_hash_create_ex(uint32_t count, tovi_hash_table_s **table, uint32_t limit, tovi_hash_attr_s *attr)
{
    if (count == 0 || table == nullptr || limit > kMaxLimit)
        return kInvalid;
    uint8_t pow = tovi::hash::hash_get_pow(count);
    if (pow > kMaxPow)
        return kInvalid;
    uint32_t buckets = tovi::hash::hash_pow(pow);

    auto *t = static_cast<tovi_hash_table_s *>(tovi_hash_malloc(attr, sizeof(tovi_hash_table_s)));
    if (t == nullptr) {
        *table = nullptr;
        return kNoMemory;
    }
    t->buckets = static_cast<tovi_hash_list_s *>(tovi_hash_malloc(attr, sizeof(tovi_hash_list_s) * buckets));
    if (t->buckets == nullptr) {
        tovi_hash_free(attr, t);
        *table = nullptr;
        return kNoMemory;
    }
    if (attr == nullptr || attr->malloc == nullptr)
        advise_huge(t->buckets, sizeof(tovi_hash_list_s) * buckets);
    for (uint32_t b = 0; b < buckets; ++b)
        tovi::list::init(as_list(&t->buckets[b]));
    t->bucketCount = buckets;
    t->pow = pow;
    t->attr = attr;
    *table = t;
    return kOk;
}

int32_t tovi_hash_create(uint32_t count, tovi_hash_table_s **table, uint32_t limit)
{
    return tovi_hash_create_ex(count, table, limit, nullptr);
}

int32_t tovi_hash_destory(tovi_hash_table_s *table, tovi_hash_release_f release)
{
    if (table == nullptr)
        return kInvalid;
    for (uint32_t b = 0; b < table->bucketCount; ++b) {
        Node *head = as_list(&table->buckets[b]);
        while (!tovi::list::empty(head)) {
            Node *n = head->next;
            unlink(n);
            if (release != nullptr)
                release(as_node(n));
        }
    }
    tovi_hash_attr_s *attr = table->attr;
    tovi_hash_free(attr, table->buckets);
    tovi_hash_free(attr, table);
    return kOk;
}

int32_t tovi_hash_insert(tovi_hash_table_s *table, tovi_hash_node_s *node)
{
    if (table == nullptr || node == nullptr)
        return kInvalid;
    Node *head = bucket_of(table, node->key32, node->key64);
    if (find_in(head, node->key32, node->key64) != nullptr)
        return kExists;
    tovi::list::add(as_list(node), head);
    return kOk;
}

int32_t tovi_hash_delete(tovi_hash_table_s *table, uint32_t key32, uint64_t key64, tovi_hash_node_s **node)
{
    if (table == nullptr)
        return kInvalid;
    tovi_hash_node_s *found = find_in(bucket_of(table, key32, key64), key32, key64);
    if (found == nullptr)
        return kNotFound;
    unlink(as_list(found));
    if (node != nullptr)
        *node = found;
    return kOk;
}

int32_t tovi_hash_search(tovi_hash_table_s *table, uint32_t key32, uint64_t key64, tovi_hash_node_s **node)
{
    if (table == nullptr || node == nullptr)
        return kInvalid;
    *node = find_in(bucket_of(table, key32, key64), key32, key64);
    return *node != nullptr ? kOk : kNotFound;
}

int32_t tovi_hash_for_each(tovi_hash_table_s *table, tovi_hash_visit_f visit, uint8_t stop)
{
    if (table == nullptr || visit == nullptr)
        return kInvalid;
    return walk(table, stop, [visit](tovi_hash_node_s *n) { return visit(n); });
}

int32_t tovi_hash_for_each_ex(tovi_hash_table_s *table, tovi_hash_visit_ex_f visit, void *arg, uint8_t stop)
{
    if (table == nullptr || visit == nullptr)
        return kInvalid;
    return walk(table, stop, [visit, arg](tovi_hash_node_s *n) { return visit(n, arg); });
}

}  // extern "C"
