// File, section and item nodes of the configuration files, and the name
// indexes that keep searches in big files from scanning.
//
// Two kinds of open-addressing tables with linear probing: a node's
// sections by name (CfgFileNode::pIndex), and a section's items by name (in
// the section's private tail, after the public record). Each is built by a
// writer the first time a linear search of its list runs long, is kept exact
// by every change made here, and is dropped (searches scan again) when it
// cannot grow. Deletion shifts later entries back: no tombstones. Per-section
// tables stay small, so inserting and looking up touch little memory even in
// very large files.
#include <atomic>
#include <cstring>

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include "tovi_cfg.hpp"
#define TOVI_LOG_SOURCE "tovi_cfg"
#include "tovi_log.hpp"
#include "tovi_lock.h"
#include "tovi_lock.hpp"
#include "tovi_mem.h"

namespace tovi::cfg {

namespace {

// A linear search that looks at more nodes than this builds the table.
constexpr uint32_t kScanLimit = 16;
constexpr uint32_t kMinSlots = 32;
constexpr uint32_t kMaxSlots = uint32_t{1} << 26;

std::atomic<uint32_t> g_fail_countdown{0};

struct Slot {
    void *entry;    // CfgSectionNode or CfgItemNode; NULL: free
    uint32_t hash;  // of the entry's name: probes and moves never touch the entry
};

struct Table {
    uint32_t mask;
    uint32_t used;
    Slot slots[];
};

// What the module keeps after every section's public record.
struct SectionBox {
    CfgSectionNode pub;
    Table *items;
};

SectionBox *box_of(CfgSectionNode *sec)
{
    return reinterpret_cast<SectionBox *>(sec);
}

Table *&sections_of(CfgFileNode *node)
{
    return reinterpret_cast<Table *&>(node->pIndex);
}

struct NameChars {
    bool ok[256];
    constexpr NameChars() : ok{}
    {
        for (int c = 0; c < 256; ++c)
            ok[c] = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    }
};

constexpr NameChars kNameChars;

// A loaded item carries its value in the same block, just after itself.
char *inline_value(CfgItemNode *item)
{
    return reinterpret_cast<char *>(item + 1);
}

uint32_t hash_name(const char *s)
{
    size_t n = std::strlen(s);
    uint64_t h = 0x9E3779B97F4A7C15ULL * (n + 1);
    while (n >= 8) {
        uint64_t w;
        std::memcpy(&w, s, 8);
        h = (h ^ w) * 0x100000001B3ULL;
        h = (h << 29) | (h >> 35);
        s += 8;
        n -= 8;
    }
    uint64_t w = 0;
    for (size_t i = 0; i < n; ++i)
        w |= uint64_t{static_cast<unsigned char>(s[i])} << (8 * i);
    h ^= w;
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    return static_cast<uint32_t>(h);
}

const char *name_of(const Slot &slot, bool items)
{
    return items ? static_cast<CfgItemNode *>(slot.entry)->acItemName
                 : static_cast<CfgSectionNode *>(slot.entry)->acSectionName;
}

// The slot holding that name, or the free slot where it would go.
uint32_t probe(const Table *t, const char *name, uint32_t hash, bool items)
{
    for (uint32_t i = hash & t->mask;; i = (i + 1) & t->mask) {
        const Slot &slot = t->slots[i];
        if (slot.entry == nullptr || (slot.hash == hash && std::strcmp(name_of(slot, items), name) == 0))
            return i;
    }
}

// A table of `slots` entries holding those of `old`, which is freed; NULL
// (and `old` untouched) when there is no memory.
Table *resized(Table *old, uint32_t slots)
{
    auto *t = static_cast<Table *>(CFG_MALLOC(static_cast<uint32_t>(sizeof(Table) + slots * sizeof(Slot))));
    if (t == nullptr)
        return nullptr;
    std::memset(t, 0, sizeof(Table) + slots * sizeof(Slot));
    t->mask = slots - 1;
    if (old != nullptr) {
        for (uint32_t i = 0; i <= old->mask; ++i) {
            if (old->slots[i].entry == nullptr)
                continue;
            uint32_t j = old->slots[i].hash & t->mask;
            while (t->slots[j].entry != nullptr)
                j = (j + 1) & t->mask;
            t->slots[j] = old->slots[i];
        }
        t->used = old->used;
        TOVI_FREE(old);
    }
    return t;
}

// Room for one more entry; false (table untouched) when it cannot grow.
bool reserve(Table *&t)
{
    if ((t->used + 1) * 4 <= (t->mask + 1) * 3)
        return true;
    if (t->mask + 1 >= kMaxSlots)
        return false;
    Table *bigger = resized(t, (t->mask + 1) * 2);
    if (bigger == nullptr)
        return false;
    t = bigger;
    return true;
}

// Whether an entry whose probe starts at `home` passes `hole` before it
// reaches `slot` (so it may not move back into the hole).
bool between(uint32_t hole, uint32_t home, uint32_t slot)
{
    return hole <= slot ? (hole < home && home <= slot) : (hole < home || home <= slot);
}

void erase(Table *t, const void *entry, const char *name, bool items)
{
    uint32_t hole = probe(t, name, hash_name(name), items);
    if (t->slots[hole].entry != entry)
        return;
    for (uint32_t j = (hole + 1) & t->mask; t->slots[j].entry != nullptr; j = (j + 1) & t->mask) {
        if (!between(hole, t->slots[j].hash & t->mask, j)) {
            t->slots[hole] = t->slots[j];
            hole = j;
        }
    }
    t->slots[hole] = Slot{nullptr, 0};
    --t->used;
}

void drop(Table *&t)
{
    if (t != nullptr)
        TOVI_FREE(t);
    t = nullptr;
}

// Adds an entry not yet in the table; drops the table when it cannot grow.
void insert(Table *&t, void *entry, const char *name, bool items)
{
    if (t == nullptr)
        return;
    if (!reserve(t)) {
        drop(t);
        return;
    }
    uint32_t hash = hash_name(name);
    uint32_t i = probe(t, name, hash, items);
    if (t->slots[i].entry == nullptr)
        ++t->used;
    t->slots[i] = Slot{entry, hash};
}

uint32_t slots_for(uint32_t count)
{
    uint32_t slots = kMinSlots;
    while (slots < count * 2 && slots < kMaxSlots)
        slots <<= 1;
    return slots;
}

// Builds a table of the list's entries; none on failure.
Table *build(list::Node *head, bool items)
{
    uint32_t count = 0;
    for (list::Node *n = head->next; n != head; n = n->next)
        ++count;
    Table *t = resized(nullptr, slots_for(count));
    if (t == nullptr)
        return nullptr;
    for (list::Node *n = head->next; n != head; n = n->next) {
        void *entry = items ? static_cast<void *>(item_of(n)) : static_cast<void *>(section_of(n));
        Slot slot{entry, 0};
        slot.hash = hash_name(name_of(slot, items));
        uint32_t i = slot.hash & t->mask;
        while (t->slots[i].entry != nullptr)
            i = (i + 1) & t->mask;
        t->slots[i] = slot;
        ++t->used;
    }
    return t;
}

}  // namespace

void *alloc(uint32_t size, const char *func, uint32_t line)
{
    // Relaxed: a test sets the countdown before the operation it checks.
    if (g_fail_countdown.load(std::memory_order_relaxed) != 0 &&
        g_fail_countdown.fetch_sub(1, std::memory_order_relaxed) == 1)
        return nullptr;
    return tovi_mallocsubstandard(TOVI_MODULE_ID, size, 0, func, line);
}

void fail_allocation(uint32_t nth)
{
    g_fail_countdown.store(nth, std::memory_order_relaxed);
}

bool valid_name(const char *s, size_t len)
{
    for (size_t i = 0; i < len; ++i)
        if (!kNameChars.ok[static_cast<unsigned char>(s[i])])
            return false;
    return true;
}

void unlink_node(list::Node *n)
{
    list::check_links(n);
    list::del(n);
}

CfgFileNode *new_file_node(const char *path)
{
    auto *node = static_cast<CfgFileNode *>(CFG_MALLOC(sizeof(CfgFileNode)));
    if (node == nullptr) {
        TOVI_LOG(log::kError, "Alloc needed filenode memory fail, filenode size (%u).",
                 static_cast<unsigned>(sizeof(CfgFileNode)));
        return nullptr;
    }
    std::memset(node, 0, sizeof *node);
    list::init(&node->stList);
    list::init(&node->stSectionHead);
    if (strcpy_s(node->acFileName, sizeof node->acFileName, path) != 0) {
        TOVI_LOG(log::kError, "Copy file name (%s) fail in new filenode.", path);
        TOVI_FREE(node);
        return nullptr;
    }
    return node;
}

CfgItemNode *new_loaded_item(const char *name, size_t name_len, const char *value, size_t value_len)
{
    auto size = static_cast<uint32_t>(sizeof(CfgItemNode) + value_len + 1);
    auto *item = static_cast<CfgItemNode *>(CFG_MALLOC(size));
    if (item == nullptr) {
        TOVI_LOG(log::kError, "Alloc needed item memory fail, item node size (%u).", size);
        return nullptr;
    }
    std::memset(item, 0, sizeof *item);
    list::init(&item->stList);
    std::memcpy(item->acItemName, name, name_len);  // name_len < 64, the rest is zero
    item->pItemValue = inline_value(item);
    std::memcpy(item->pItemValue, value, value_len);
    item->pItemValue[value_len] = '\0';
    return item;
}

CfgSectionNode *new_section(const char *name)
{
    auto *box = static_cast<SectionBox *>(CFG_MALLOC(sizeof(SectionBox)));
    if (box == nullptr) {
        TOVI_LOG(log::kError, "Alloc needed section memory fail, section node size (%u).",
                 static_cast<unsigned>(sizeof(CfgSectionNode)));
        return nullptr;
    }
    std::memset(box, 0, sizeof *box);
    CfgSectionNode *sec = &box->pub;
    list::init(&sec->stList);
    list::init(&sec->stItemHead);
    if (strcpy_s(sec->acSectionName, sizeof sec->acSectionName, name) != 0) {
        TOVI_LOG(log::kError, "Copy section name (%s) fail in new section node.", name);
        TOVI_FREE(box);
        return nullptr;
    }
    return sec;
}

void free_item(CfgItemNode *item)
{
    if (item->pItemValue != nullptr && item->pItemValue != inline_value(item))
        TOVI_FREE(item->pItemValue);
    TOVI_FREE(item);
}

void free_section(CfgSectionNode *sec)
{
    list::Node *head = &sec->stItemHead;
    for (list::Node *n = head->next, *next; n != head; n = next) {
        next = n->next;
        free_item(item_of(n));
    }
    drop(box_of(sec)->items);
    TOVI_FREE(box_of(sec));
}

void free_file_node(CfgFileNode *node)
{
    drop(sections_of(node));
    list::Node *head = &node->stSectionHead;
    for (list::Node *n = head->next, *next; n != head; n = next) {
        next = n->next;
        free_section(section_of(n));
    }
    TOVI_FREE(node);
}

void free_file_node_locked(CfgFileNode *node)
{
    tovi_rwlock_write_lock_mayblock(&node->llRwlock);
    // Unreachable from the list by now: the lock only waits out the holders
    // that found the node before it was unlinked. It is freed held.
    free_file_node(node);
}

CfgSectionNode *find_section(CfgFileNode *node, const char *name, bool may_build)
{
    if (const Table *t = sections_of(node))
        return static_cast<CfgSectionNode *>(t->slots[probe(t, name, hash_name(name), false)].entry);
    uint32_t scanned = 0;
    CfgSectionNode *found = nullptr;
    list::Node *head = &node->stSectionHead;
    for (list::Node *n = head->next; n != head; n = n->next) {
        ++scanned;
        if (std::strcmp(section_of(n)->acSectionName, name) == 0) {
            found = section_of(n);
            break;
        }
    }
    if (scanned > kScanLimit && may_build)
        sections_of(node) = build(head, false);
    return found;
}

CfgItemNode *find_item(CfgFileNode *, CfgSectionNode *sec, const char *name, bool may_build)
{
    Table *&t = box_of(sec)->items;
    if (t != nullptr)
        return static_cast<CfgItemNode *>(t->slots[probe(t, name, hash_name(name), true)].entry);
    uint32_t scanned = 0;
    CfgItemNode *found = nullptr;
    list::Node *head = &sec->stItemHead;
    for (list::Node *n = head->next; n != head; n = n->next) {
        ++scanned;
        if (std::strcmp(item_of(n)->acItemName, name) == 0) {
            found = item_of(n);
            break;
        }
    }
    if (scanned > kScanLimit && may_build)
        t = build(head, true);
    return found;
}

CfgItemNode *put_item(CfgFileNode *node, CfgSectionNode *sec, CfgItemNode *item)
{
    const char *name = item->acItemName;
    Table *&t = box_of(sec)->items;
    CfgItemNode *old = nullptr;
    if (t == nullptr)
        old = find_item(node, sec, name, true);  // a long scan builds the table
    if (t != nullptr && !reserve(t)) {
        drop(t);  // cannot grow: back to scanning
        old = find_item(node, sec, name, false);
    }
    if (t != nullptr) {
        // One probe finds the old item's slot or the free one.
        uint32_t hash = hash_name(name);
        uint32_t i = probe(t, name, hash, true);
        old = static_cast<CfgItemNode *>(t->slots[i].entry);
        if (old == nullptr)
            ++t->used;
        t->slots[i] = Slot{item, hash};
    }
    if (old != nullptr)
        unlink_node(&old->stList);
    list::add_tail(&item->stList, &sec->stItemHead);
    return old;
}

void append_section(CfgFileNode *node, CfgSectionNode *sec)
{
    list::add_tail(&sec->stList, &node->stSectionHead);
    insert(sections_of(node), sec, sec->acSectionName, false);
}

void append_item(CfgFileNode *, CfgSectionNode *sec, CfgItemNode *item)
{
    list::add_tail(&item->stList, &sec->stItemHead);
    insert(box_of(sec)->items, item, item->acItemName, true);
}

void remove_item(CfgFileNode *, CfgSectionNode *sec, CfgItemNode *item)
{
    if (Table *t = box_of(sec)->items)
        erase(t, item, item->acItemName, true);
    unlink_node(&item->stList);
}

void remove_section(CfgFileNode *node, CfgSectionNode *sec)
{
    if (Table *t = sections_of(node))
        erase(t, sec, sec->acSectionName, false);
    unlink_node(&sec->stList);
}

int32_t replace_value(CfgItemNode *item, const char *value)
{
    size_t len = std::strlen(value);
    if (len >= TOVI_CFG_VALUE_MAX) {
        TOVI_LOG(log::kError, "Item value length too long.");
        return -1;
    }
    auto size = static_cast<uint32_t>(len + 1);
    auto *copy = static_cast<char *>(CFG_MALLOC(size));
    if (copy == nullptr) {
        TOVI_LOG(log::kError, "Set item failed,malloc size:%d memory fail.", static_cast<int>(size));
        return -1;
    }
    if (memcpy_s(copy, size, value, size) != 0) {
        TOVI_LOG(log::kError, "Strcpy pItemValue fail.");
        TOVI_FREE(copy);
        return -1;
    }
    char *old = item->pItemValue;
    item->pItemValue = copy;
    if (old != nullptr && old != inline_value(item))
        TOVI_FREE(old);
    return 0;
}

size_t rendered_size(const CfgFileNode *node)
{
    size_t total = 0;
    const list::Node *head = &node->stSectionHead;
    for (const list::Node *s = head->next; s != head; s = s->next) {
        const CfgSectionNode *sec = section_of(const_cast<list::Node *>(s));
        total += std::strlen(sec->acSectionName) + 3;
        const list::Node *ihead = &sec->stItemHead;
        for (const list::Node *i = ihead->next; i != ihead; i = i->next) {
            const CfgItemNode *item = item_of(const_cast<list::Node *>(i));
            total += std::strlen(item->acItemName) + std::strlen(item->pItemValue) + 2;
        }
    }
    return total;
}

}  // namespace tovi::cfg
