// Helpers shared by the configuration fuzz targets: parsing bytes through a
// memory file, rendering a node, and checking what the parser promises.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tovi_cfg.h"
#include "tovi_cfg.hpp"
#include "tovi_lock.h"
#include "tovi_lock.hpp"
#include "vrlog.h"

namespace fuzz {

using Items = std::vector<std::pair<std::string, std::string>>;
using Model = std::vector<std::pair<std::string, Items>>;

inline void quiet()
{
    // Rejected lines and edits are logged; the fuzzer needs none of it.
    vrlog_loglevel_set(VRLOG_ALL_MODULES, 0);
}

// A descriptor holding the bytes, at offset 0.
inline int memory_file(const void *data, size_t size)
{
    int fd = memfd_create("cfg", MFD_CLOEXEC);
    if (fd < 0)
        abort();
    const char *p = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t w = write(fd, p, size);
        if (w <= 0)
            abort();
        p += w;
        size -= static_cast<size_t>(w);
    }
    lseek(fd, 0, SEEK_SET);
    return fd;
}

// Parses the bytes into a fresh node with the loader (its lock held as
// the file parser holds it).
inline CfgFileNode *parse(const std::string &text)
{
    CfgFileNode *node = tovi::cfg::new_file_node("fuzz.ini");
    if (node == nullptr)
        abort();
    int fd = memory_file(text.data(), text.size());
    tovi::cfg::LoadCache cache{};
    tovi_rwlock_write_lock_mayblock(&node->llRwlock);
    int32_t ret = tovi::cfg::tovi_cfg_ini_fd_parse(fd, node, tovi::cfg::tovi_cfg_file_proc, &cache);
    tovi::lock::rwlock_write_unlock(&node->llRwlock);
    close(fd);
    if (ret != 0 || cache.dropped)
        abort();  // only memory exhaustion may fail a load
    return node;
}

inline Model model_of(CfgFileNode *node)
{
    Model m;
    tovi::list::Node *head = &node->stSectionHead;
    for (tovi::list::Node *s = head->next; s != head; s = s->next) {
        CfgSectionNode *sec = tovi::cfg::section_of(s);
        m.push_back({sec->acSectionName, {}});
        tovi::list::Node *ihead = &sec->stItemHead;
        for (tovi::list::Node *i = ihead->next; i != ihead; i = i->next) {
            CfgItemNode *item = tovi::cfg::item_of(i);
            m.back().second.emplace_back(item->acItemName, item->pItemValue);
        }
    }
    return m;
}

inline std::string render(const Model &m)
{
    std::string out;
    for (const auto &[sec, items] : m) {
        out += "[" + sec + "]\n";
        for (const auto &[k, v] : items)
            out += k + "=" + v + "\n";
    }
    return out;
}

// What every loaded node satisfies, whatever the input.
inline void check_node(CfgFileNode *node)
{
    Model m = model_of(node);
    for (size_t s = 0; s < m.size(); ++s) {
        const auto &[sec, items] = m[s];
        if (sec.size() >= TOVI_CFG_NAME_MAX || !tovi::cfg::valid_name(sec.data(), sec.size()))
            abort();
        if (items.empty())
            abort();  // the parser never makes an empty section
        for (size_t t = s + 1; t < m.size(); ++t)
            if (m[t].first == sec)
                abort();  // headers of one name merge
        CfgSectionNode *found = tovi::cfg::find_section(node, sec.c_str(), false);
        if (found == nullptr || found->acSectionName != sec)
            abort();
        for (size_t i = 0; i < items.size(); ++i) {
            const auto &[k, v] = items[i];
            if (k.empty() || k.size() >= TOVI_CFG_NAME_MAX || !tovi::cfg::valid_name(k.data(), k.size()))
                abort();
            if (v.size() >= TOVI_CFG_VALUE_MAX || v.find_first_of("\r\n") != std::string::npos)
                abort();
            if (!v.empty() && (v.front() == ' ' || v.front() == '\t' || v.back() == ' ' || v.back() == '\t'))
                abort();
            for (size_t j = i + 1; j < items.size(); ++j)
                if (items[j].first == k)
                    abort();  // a later duplicate replaces the earlier one
            CfgItemNode *item = tovi::cfg::find_item(node, found, k.c_str(), false);
            if (item == nullptr || v != item->pItemValue)
                abort();
        }
    }
}

// The written form of a node parses back to the same node.
inline void check_round_trip(CfgFileNode *node)
{
    std::string text = render(model_of(node));
    if (text.size() != tovi::cfg::rendered_size(node))
        abort();
    CfgFileNode *again = parse(text);
    if (render(model_of(again)) != text)
        abort();
    tovi::cfg::free_file_node(again);
}

}  // namespace fuzz
