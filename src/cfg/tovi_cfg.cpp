// The loaded configuration files: the process-wide list, the lookups and the
// in-memory setters.
//
// Locking: g_stCfgRwlock guards the list's membership and is always taken
// before a node's own lock. The _ex functions take the node's lock and drop
// the list lock before working on the node; the all-files lookup and setter
// keep the list lock while they walk and take each node's lock in turn, so
// that they never meet a node changed under the other family's feet. A node
// leaving the list is unlinked under the list's write lock and freed after
// its own write lock has waited out every holder that found it earlier.
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include "tovi_cfg.h"
#include "tovi_cfg.hpp"
#include "tovi_lock.h"
#include "tovi_lock.hpp"
#define TOVI_LOG_SOURCE "tovi_cfg"
#include "tovi_log.hpp"
#include "tovi_mem.h"

int64_t g_stCfgRwlock = 0;

namespace tovi::cfg {

namespace {

list::Node g_file_list = {&g_file_list, &g_file_list};

void global_read_lock()
{
    tovi_rwlock_read_lock_mayblock(&g_stCfgRwlock);
}

void global_read_unlock()
{
    lock::rwlock_read_unlock(&g_stCfgRwlock);
}

void global_write_lock()
{
    tovi_rwlock_write_lock_mayblock(&g_stCfgRwlock);
}

void global_write_unlock()
{
    lock::rwlock_write_unlock(&g_stCfgRwlock);
}

// The item of that section and name in one node (its lock held).
CfgItemNode *lookup(CfgFileNode *node, const char *section, const char *name)
{
    CfgSectionNode *sec = find_section(node, section, false);
    return sec != nullptr ? find_item(node, sec, name, false) : nullptr;
}

// Copies a value with its NUL into the caller's buffer.
int32_t copy_out(const CfgItemNode *item, char *buf, uint32_t size)
{
    size_t len = std::strlen(item->pItemValue);
    if (static_cast<uint64_t>(size) < len + 1) {
        TOVI_LOG(log::kError, "Invalid Buffer size, inputSize(%u), actualSize(%u).", size,
                 static_cast<unsigned>(len + 1));
        return TOVI_CFG_ERR_BUFSIZE;
    }
    errno_t ret = memcpy_s(buf, size, item->pItemValue, len + 1);
    if (ret != 0) {
        TOVI_LOG(log::kError, "Copy fail:%d, item size:%u, item value:%s.", static_cast<int>(ret),
                 static_cast<unsigned>(len + 1), item->pItemValue);
        return -1;
    }
    return 0;
}

}  // namespace

list::Node *file_list()
{
    return &g_file_list;
}

CfgFileNode *find_file(const char *path)
{
    for (list::Node *n = g_file_list.next; n != &g_file_list; n = n->next)
        if (std::strcmp(file_of(n)->acFileName, path) == 0)
            return file_of(n);
    return nullptr;
}

CfgFileNode *swap_file_node(CfgFileNode *node)
{
    global_write_lock();
    CfgFileNode *old = find_file(node->acFileName);
    if (old != nullptr) {
        node->uiRefCnt = old->uiRefCnt;
        unlink_node(&old->stList);
        list::add(&node->stList, file_list());
    }
    global_write_unlock();
    return old;
}

const char *library_file()
{
    const char *path = getenv(TOVI_CFG_LIBRARY_FILE_ENV);
    return path != nullptr && path[0] != '\0' ? path : TOVI_CFG_LIBRARY_FILE;
}

int32_t library_setting(const char *item, char *buf, uint32_t size)
{
    static pthread_once_t loaded = PTHREAD_ONCE_INIT;
    pthread_once(&loaded, [] {
        const char *path = library_file();
        if (access(path, R_OK) == 0)
            tovi_cfg_init_ex(path);
    });
    return tovi_cfg_getItemValue(TOVI_CFG_LIBRARY_SECTION, item, buf, size);
}

}  // namespace tovi::cfg

using namespace tovi;
using tovi::cfg::file_of;

extern "C" {

int32_t tovi_cfg_init(const char *pFile)
{
    return tovi_cfg_init_ex(pFile);
}

int32_t tovi_cfg_init_ex(const char *pFile)
{
    if (pFile == nullptr) {
        TOVI_LOG(log::kInfo, "Input File is NULL pointer.");
        return -1;
    }
    cfg::LoadCache cache{};
    CfgFileNode *node = cfg::tovi_cfg_ini_file_parse(pFile, cfg::tovi_cfg_file_proc, &cache);
    if (node == nullptr) {
        TOVI_LOG(log::kDebug, "Parse config file %s failed.", pFile);
        return -1;
    }
    cfg::global_write_lock();
    CfgFileNode *old = cfg::find_file(node->acFileName);
    node->uiRefCnt = old != nullptr ? old->uiRefCnt + 1 : 1;
    if (old != nullptr)
        cfg::unlink_node(&old->stList);
    list::add(&node->stList, cfg::file_list());
    cfg::global_write_unlock();
    if (old != nullptr)
        cfg::free_file_node_locked(old);
    return 0;
}

int32_t tovi_cfg_destroy_ex(const char *pFile)
{
    if (pFile == nullptr)
        return -1;
    cfg::global_write_lock();
    CfgFileNode *node = cfg::find_file(pFile);
    if (node != nullptr && --node->uiRefCnt == 0)
        cfg::unlink_node(&node->stList);
    else
        node = nullptr;
    cfg::global_write_unlock();
    if (node != nullptr)
        cfg::free_file_node_locked(node);
    return 0;
}

int32_t tovi_cfg_destroy(void)
{
    list::Node gone;
    cfg::global_write_lock();
    list::splice_init(cfg::file_list(), &gone);
    cfg::global_write_unlock();
    for (list::Node *n = gone.next, *next; n != &gone; n = next) {
        next = n->next;
        cfg::free_file_node_locked(file_of(n));
    }
    return 0;
}

int32_t tovi_cfg_getItemValue(const char *pSection, const char *pItemName, char *pItemValue, uint32_t uiSize)
{
    if (pSection == nullptr || pItemName == nullptr || pItemValue == nullptr || uiSize == 0) {
        TOVI_LOG(log::kInfo, "Invalid SectionName or ItemName or ItemValuesize in getItemValue.");
        return -1;
    }
    int32_t ret = -1;
    bool found = false;
    cfg::global_read_lock();
    list::Node *head = cfg::file_list();
    for (list::Node *n = head->next; n != head && !found; n = n->next) {
        CfgFileNode *node = file_of(n);
        tovi_rwlock_read_lock_mayblock(&node->llRwlock);
        if (const CfgItemNode *item = cfg::lookup(node, pSection, pItemName)) {
            found = true;
            ret = cfg::copy_out(item, pItemValue, uiSize);
        }
        lock::rwlock_read_unlock(&node->llRwlock);
    }
    cfg::global_read_unlock();
    if (!found)
        TOVI_LOG_RATELIMITED(log::kInfo, "Get ItemValue by pSection %s and pItemName %s failed.", pSection,
                             pItemName);
    return ret;
}

int32_t tovi_cfg_getItemValue_ex(const char *pFile, const char *pSection, const char *pItemName, char *pItemValue,
                                 uint32_t uiSize)
{
    if (pFile == nullptr || pSection == nullptr || pItemName == nullptr || pItemValue == nullptr || uiSize == 0) {
        TOVI_LOG(log::kError, "Invalid SectionName or ItemName or ItemValuesize in getItemValue_ex.");
        return -1;
    }
    cfg::global_read_lock();
    CfgFileNode *node = cfg::find_file(pFile);
    if (node == nullptr) {
        cfg::global_read_unlock();
        TOVI_LOG(log::kError, "Can not find file %s.", pFile);
        return -1;
    }
    tovi_rwlock_read_lock_mayblock(&node->llRwlock);
    cfg::global_read_unlock();
    int32_t ret = -1;
    if (const CfgItemNode *item = cfg::lookup(node, pSection, pItemName))
        ret = cfg::copy_out(item, pItemValue, uiSize);
    lock::rwlock_read_unlock(&node->llRwlock);
    return ret;
}

int32_t tovi_cfg_setItemValue(const char *pSection, const char *pItemName, const char *pItemValue)
{
    if (pSection == nullptr || pItemName == nullptr || pItemValue == nullptr) {
        TOVI_LOG(log::kError, "Null pointer found, section:%p itemname:%p itemValue:%p",
                 static_cast<const void *>(pSection), static_cast<const void *>(pItemName),
                 static_cast<const void *>(pItemValue));
        return -1;
    }
    int32_t ret = -1;
    bool found = false;
    cfg::global_write_lock();
    list::Node *head = cfg::file_list();
    for (list::Node *n = head->next; n != head && !found; n = n->next) {
        CfgFileNode *node = file_of(n);
        tovi_rwlock_write_lock_mayblock(&node->llRwlock);
        if (CfgItemNode *item = cfg::lookup(node, pSection, pItemName)) {
            found = true;
            ret = cfg::replace_value(item, pItemValue);
        }
        lock::rwlock_write_unlock(&node->llRwlock);
    }
    cfg::global_write_unlock();
    return ret;
}

int32_t tovi_cfg_setItemValue_ex(const char *pFile, const char *pSection, const char *pItemName,
                                 const char *pItemValue)
{
    if (pFile == nullptr || pSection == nullptr || pItemName == nullptr || pItemValue == nullptr) {
        TOVI_LOG(log::kError, "Null pointer found, section:%p itemname:%p itemValue:%p",
                 static_cast<const void *>(pSection), static_cast<const void *>(pItemName),
                 static_cast<const void *>(pItemValue));
        return -1;
    }
    cfg::global_read_lock();
    CfgFileNode *node = cfg::find_file(pFile);
    if (node == nullptr) {
        cfg::global_read_unlock();
        TOVI_LOG(log::kError, "Config file (%s) is no exist.", pFile);
        return -1;
    }
    tovi_rwlock_write_lock(&node->llRwlock);
    cfg::global_read_unlock();
    int32_t ret = -1;
    if (CfgItemNode *item = cfg::lookup(node, pSection, pItemName))
        ret = cfg::replace_value(item, pItemValue);
    else
        TOVI_LOG(log::kError, "Can not find item (%s) in file (%s).", pItemName, pFile);
    lock::rwlock_write_unlock(&node->llRwlock);
    return ret;
}

int32_t tovi_cfg_walk(const char *pFile, tovi_cfg_visit_f pfnVisit, void *pArg)
{
    if (pFile == nullptr || pfnVisit == nullptr)
        return -1;
    cfg::global_read_lock();
    CfgFileNode *node = cfg::find_file(pFile);
    if (node == nullptr) {
        cfg::global_read_unlock();
        return -1;
    }
    tovi_rwlock_read_lock_mayblock(&node->llRwlock);
    cfg::global_read_unlock();
    int32_t ret = 0;
    list::Node *head = &node->stSectionHead;
    for (list::Node *s = head->next; s != head && ret == 0; s = s->next) {
        CfgSectionNode *sec = cfg::section_of(s);
        ret = pfnVisit(sec->acSectionName, nullptr, nullptr, pArg);
        list::Node *ihead = &sec->stItemHead;
        for (list::Node *i = ihead->next; i != ihead && ret == 0; i = i->next) {
            CfgItemNode *item = cfg::item_of(i);
            ret = pfnVisit(sec->acSectionName, item->acItemName, item->pItemValue, pArg);
        }
    }
    lock::rwlock_read_unlock(&node->llRwlock);
    return ret;
}

int32_t tovi_cfg_getItemFromFile(const char *pFile, const char *pSection, const char *pItemName,
                                 CfgItemResult *pResult)
{
    if (pFile == nullptr || pSection == nullptr || pItemName == nullptr || pResult == nullptr) {
        TOVI_LOG(log::kError, "Null pointer found, pFile:%p, pSection:%p, pItemName:%p, pItemValue:%p.",
                 static_cast<const void *>(pFile), static_cast<const void *>(pSection),
                 static_cast<const void *>(pItemName), static_cast<void *>(pResult));
        return -1;
    }
    CfgGetParam param{pSection, pItemName, -1, pResult};
    CfgFileNode *node = cfg::tovi_cfg_ini_file_parse(pFile, cfg::tovi_cfg_getFromFile_proc, &param);
    if (node == nullptr)
        return -1;
    TOVI_LOG(log::kDebug, "Parse config file %s sucess.", pFile);
    cfg::free_file_node(node);
    return param.iResult;
}

int32_t tovi_cfg_updateFileNode(CfgFileNode *pNode)
{
    if (pNode == nullptr)
        return -1;
    CfgFileNode *old = cfg::swap_file_node(pNode);
    if (old == nullptr)
        return -1;
    cfg::free_file_node_locked(old);
    return 0;
}

}  // extern "C"
