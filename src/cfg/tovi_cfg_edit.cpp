// Editing configuration files on disk.
//
// The edit procedure never touches the real file's bytes: the edited node
// is written to "<path>.temp", flushed and renamed over the path, so a crash
// leaves either the old or the new file. Edits of one file are serialised
// between processes by an exclusive flock on the real file; since each edit
// replaces the path's inode, a waiter that wakes up holding the lock of a
// replaced inode reopens the path and locks again before it reads.
//
// tovi_cfg_write_item_to_file rewrites in place on purpose (same inode, no
// temporary file); it reserves the space it needs first so that a full disk
// refuses the edit before any byte is overwritten.
#include <cerrno>
#include <cstring>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include "tovi_cfg.h"
#include "tovi_cfg.hpp"
#include "tovi_fileops.hpp"
#include "tovi_lock.h"
#include "tovi_lock.hpp"
#define TOVI_LOG_SOURCE "tovi_cfg"
#include "tovi_log.hpp"
#include "tovi_mem.h"

namespace tovi::cfg {

namespace {

const char *errno_text(int err, char *buf, size_t size)
{
    return strerror_r(err, buf, size);
}

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

// Whether a name or value survives being written and parsed back: names the
// parser accepts (an item's not empty), a value without line breaks and
// without blanks at either end (the parser would trim them).
bool writable(const char *section, const char *item, const char *value)
{
    if (section != nullptr && !valid_name(section, std::strlen(section)))
        return false;
    if (item != nullptr && (item[0] == '\0' || !valid_name(item, std::strlen(item))))
        return false;
    if (value != nullptr) {
        size_t len = std::strlen(value);
        if (std::strpbrk(value, "\r\n") != nullptr || (len > 0 && (is_blank(value[0]) || is_blank(value[len - 1]))))
            return false;
    }
    return true;
}

// `names`: the names are checked too (else only shown).
bool check_writable(const char *section, const char *item, const char *value, bool names)
{
    if (names ? writable(section, item, value) : writable(nullptr, nullptr, value))
        return true;
    TOVI_LOG(log::kError, "Invalid name or value, section(%s) item(%s).", section != nullptr ? section : "",
             item != nullptr ? item : "");
    return false;
}

void unlock_file(int fd)
{
    if (flock(fd, LOCK_UN) != 0)
        TOVI_LOG(log::kInfo, "Down flock failed, errno = %d", errno);
}

// Makes a rename durable: flushes the directory that holds the path. False
// (logged) when the flush fails; a directory that cannot be opened is let be.
bool sync_parent(const char *path)
{
    char dir[PATH_MAX];
    const char *slash = std::strrchr(path, '/');
    if (slash == nullptr) {
        dir[0] = '.';
        dir[1] = '\0';
    } else {
        size_t n = slash == path ? 1 : static_cast<size_t>(slash - path);
        if (n >= sizeof dir)
            return true;
        std::memcpy(dir, path, n);
        dir[n] = '\0';
    }
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return true;
    bool ok = fsync(fd) == 0;
    if (!ok)
        TOVI_LOG(log::kError, "Fsync directory(%s) failed, errno(%d).", dir, errno);
    close(fd);
    return ok;
}

// After a rename whose directory flush failed: the file's former content
// (still readable through `orig`, the replaced inode) goes back in place the
// same way. False (logged) when that fails too.
bool put_back(int orig, const char *target)
{
    char *name = nullptr;
    int fd = tovi_cfg_create_tmpfile(target, orig, &name);
    if (fd < 0)
        return false;
    char block[16384];
    bool ok = true;
    for (off_t at = 0;;) {
        ssize_t n = pread(orig, block, sizeof block, at);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ok = n == 0;
            break;
        }
        if (!fileops::write_all(fd, block, static_cast<size_t>(n))) {
            ok = false;
            break;
        }
        at += n;
    }
    ok = ok && fsync(fd) == 0 && rename(name, target) == 0;
    if (!ok) {
        TOVI_LOG(log::kError, "Restore file(%s) failed, errno(%d).", target, errno);
        (void)unlink(name);
    } else {
        (void)sync_parent(target);
    }
    close(fd);
    TOVI_FREE(name);
    return ok;
}

char *render(CfgFileNode *node, char *w)
{
    list::Node *head = &node->stSectionHead;
    for (list::Node *s = head->next; s != head; s = s->next) {
        CfgSectionNode *sec = section_of(s);
        size_t n = std::strlen(sec->acSectionName);
        *w++ = '[';
        std::memcpy(w, sec->acSectionName, n);
        w += n;
        *w++ = ']';
        *w++ = '\n';
        list::Node *ihead = &sec->stItemHead;
        for (list::Node *i = ihead->next; i != ihead; i = i->next) {
            CfgItemNode *item = item_of(i);
            n = std::strlen(item->acItemName);
            std::memcpy(w, item->acItemName, n);
            w += n;
            *w++ = '=';
            n = std::strlen(item->pItemValue);
            std::memcpy(w, item->pItemValue, n);
            w += n;
            *w++ = '\n';
        }
    }
    return w;
}

enum class Edit { add, set, del_item, del_section };

// The common frame of the four editors: the file must exist; the caller's
// descriptor is closed in every case.
int32_t edit_file(const char *path, const char *section, const char *item, const char *value,
                  tovi_cfg_node_proc_f proc, Edit edit)
{
    int fd = open_regular(path, O_RDWR);
    if (fd < 0) {
        if (edit == Edit::set)
            TOVI_LOG(log::kError, "open file<%s> failed, errno<%d>", path, errno);
        else
            TOVI_LOG(log::kError, "Open file<%s> failed, errno<%d>", path, errno);
        return fd;
    }
    CfgEditParam request{path, section, item, value};
    int32_t ret = tovi_cfg_file_writeOperate(fd, &request, proc);
    if (ret != 0) {
        switch (edit) {
        case Edit::add:
            TOVI_LOG(log::kError, "Exec write operate failed.");
            break;
        case Edit::set:
            TOVI_LOG(log::kError, "exec write operate to set item value failed.");
            break;
        case Edit::del_item:
            TOVI_LOG(log::kError, "Exec write operate to del item failed.");
            break;
        case Edit::del_section:
            TOVI_LOG(log::kError, "Exec write operate to del section<%s> failed.", section);
            break;
        }
    }
    close(fd);
    return ret;
}

// Replaces the file's content with the rewrite buffer, in place.
int32_t rewrite_in_place(int fd, const CfgWriteParam *p)
{
    // Space first: a full disk refuses the edit before any byte is overwritten.
    if (p->bufIndex > 0 && fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, p->bufIndex) != 0 &&
        (errno == ENOSPC || errno == EDQUOT || errno == EFBIG)) {
        TOVI_LOG(log::kError, "Reserve size (%u) of file (%d) fail,errno %d", p->bufIndex, fd, errno);
        return -1;
    }
    if (lseek(fd, 0, SEEK_SET) != 0 || !fileops::write_all(fd, p->pBuffer, p->bufIndex)) {
        TOVI_LOG(log::kError, "Write error, iFd<%d> pFileParam->pBuffer<%p>, pFileParam->bufIndex<%u>", fd,
                 static_cast<void *>(p->pBuffer), p->bufIndex);
        return -1;
    }
    if (ftruncate(fd, static_cast<off_t>(p->bufIndex)) != 0) {
        TOVI_LOG(log::kError, "Truncate file (%d) fail,errno %d", fd, errno);
        return -1;
    }
    return 0;
}

}  // namespace

int lock_current(int fd, const char *path, int flags)
{
    int cur = fd;
    for (;;) {
        int r;
        do {
            r = flock(cur, LOCK_EX);
        } while (r != 0 && errno == EINTR);
        if (r != 0) {
            TOVI_LOG(log::kInfo, "Add flock failed, errno = %d", errno);
            return cur;
        }
        struct stat held {};
        struct stat named {};
        if (fstat(cur, &held) != 0)
            return cur;
        if (stat(path, &named) == 0) {
            if (held.st_dev == named.st_dev && held.st_ino == named.st_ino)
                return cur;
        } else if ((flags & O_CREAT) == 0) {
            return cur;  // gone: the caller's read of the path fails cleanly
        }
        // Renamed over (or removed) while we waited: lock the path's file.
        int next = open(path, O_RDWR | O_CLOEXEC | flags, 0600);
        if (next < 0)
            return cur;
        if (cur == fd)
            flock(cur, LOCK_UN);
        else
            close(cur);
        cur = next;
    }
}

}  // namespace tovi::cfg

using namespace tovi;

extern "C" {

CfgItemNode *tovi_cfg_new_item_node_ex(const char *pItemName, const char *pItemValue)
{
    if (pItemName == nullptr || pItemValue == nullptr)
        return nullptr;
    auto *item = static_cast<CfgItemNode *>(CFG_MALLOC(sizeof(CfgItemNode)));
    if (item == nullptr) {
        TOVI_LOG(log::kError, "Malloc item node failed.");
        return nullptr;
    }
    std::memset(item, 0, sizeof *item);
    list::init(&item->stList);
    if (strcpy_s(item->acItemName, sizeof item->acItemName, pItemName) != 0) {
        TOVI_LOG(log::kError, "Strcpy pItemName failed.");
        TOVI_FREE(item);
        return nullptr;
    }
    size_t len = std::strlen(pItemValue);
    if (len >= TOVI_CFG_VALUE_MAX) {
        TOVI_LOG(log::kError, "Strcpy_s pItemValue failed.");
        TOVI_FREE(item);
        return nullptr;
    }
    item->pItemValue = static_cast<char *>(CFG_MALLOC(static_cast<uint32_t>(len + 1)));
    if (item->pItemValue == nullptr) {
        TOVI_LOG(log::kError, "Malloc item memory failed.");
        TOVI_FREE(item);
        return nullptr;
    }
    if (memcpy_s(item->pItemValue, len + 1, pItemValue, len + 1) != 0) {
        TOVI_LOG(log::kError, "Strcpy_s pItemValue failed.");
        cfg::free_item(item);
        return nullptr;
    }
    return item;
}

int32_t tovi_cfg_add_item_func(CfgFileNode *pNode, const char *pSection, const char *pItemName,
                               const char *pItemValue)
{
    if (pNode == nullptr || pSection == nullptr || pItemName == nullptr || pItemValue == nullptr) {
        TOVI_LOG(log::kError, "Param is null.");
        return -1;
    }
    if (!cfg::check_writable(pSection, pItemName, pItemValue, true))
        return -1;
    tovi_rwlock_write_lock_mayblock(&pNode->llRwlock);
    int32_t ret = -1;
    CfgSectionNode *sec = cfg::find_section(pNode, pSection, true);
    if (sec != nullptr && cfg::find_item(pNode, sec, pItemName, true) != nullptr) {
        TOVI_LOG(log::kError, "add item fail, item(%s) is already exist", pItemName);
    } else if (CfgItemNode *item = tovi_cfg_new_item_node_ex(pItemName, pItemValue); item == nullptr) {
        TOVI_LOG(log::kError, "new item node(%s,%s) fail.", pItemName, pItemValue);
    } else {
        // The item exists before the section does: a failure leaves no empty section.
        if (sec == nullptr && (sec = cfg::new_section(pSection)) != nullptr)
            cfg::append_section(pNode, sec);
        if (sec == nullptr) {
            cfg::free_item(item);
        } else {
            cfg::append_item(pNode, sec, item);
            ret = 0;
        }
    }
    lock::rwlock_write_unlock(&pNode->llRwlock);
    return ret;
}

int32_t tovi_cfg_set_item_func(CfgFileNode *pNode, const char *pSection, const char *pItemName,
                               const char *pItemValue)
{
    if (pNode == nullptr || pSection == nullptr || pItemName == nullptr || pItemValue == nullptr) {
        TOVI_LOG(log::kError, "Param is null.");
        return -1;
    }
    if (!cfg::check_writable(pSection, pItemName, pItemValue, false))
        return -1;
    tovi_rwlock_write_lock_mayblock(&pNode->llRwlock);
    int32_t ret = -1;
    CfgSectionNode *sec = cfg::find_section(pNode, pSection, true);
    CfgItemNode *item = sec != nullptr ? cfg::find_item(pNode, sec, pItemName, true) : nullptr;
    if (item == nullptr)
        TOVI_LOG(log::kError, "Set item failed.item(%s) is not exist in file(%s).", pItemName, pNode->acFileName);
    else
        ret = cfg::replace_value(item, pItemValue);
    lock::rwlock_write_unlock(&pNode->llRwlock);
    return ret;
}

int32_t tovi_cfg_del_item_func(CfgFileNode *pNode, const char *pSection, const char *pItemName, const char *)
{
    if (pNode == nullptr || pSection == nullptr || pItemName == nullptr) {
        TOVI_LOG(log::kError, "Param is null.");
        return -1;
    }
    tovi_rwlock_write_lock_mayblock(&pNode->llRwlock);
    int32_t ret = -1;
    CfgSectionNode *sec = cfg::find_section(pNode, pSection, true);
    CfgItemNode *item = sec != nullptr ? cfg::find_item(pNode, sec, pItemName, true) : nullptr;
    if (sec == nullptr) {
        TOVI_LOG(log::kError, "Delete item failed.Section(%s) is not exist in file(%s).", pSection,
                 pNode->acFileName);
    } else if (item == nullptr) {
        TOVI_LOG(log::kError, "Delete item failed.item(%s) is not exist in file(%s).", pItemName,
                 pNode->acFileName);
    } else {
        cfg::remove_item(pNode, sec, item);
        cfg::free_item(item);
        if (list::empty(&sec->stItemHead)) {
            cfg::remove_section(pNode, sec);
            cfg::free_section(sec);
        }
        ret = 0;
    }
    lock::rwlock_write_unlock(&pNode->llRwlock);
    return ret;
}

int32_t tovi_cfg_del_section_func(CfgFileNode *pNode, const char *pSection, const char *, const char *)
{
    if (pNode == nullptr || pSection == nullptr) {
        TOVI_LOG(log::kError, "Param is null.");
        return -1;
    }
    tovi_rwlock_write_lock_mayblock(&pNode->llRwlock);
    int32_t ret = -1;
    if (CfgSectionNode *sec = cfg::find_section(pNode, pSection, true); sec == nullptr) {
        TOVI_LOG(log::kError, "Delete section(%s) is not exist in file(%s).", pSection, pNode->acFileName);
    } else {
        cfg::remove_section(pNode, sec);
        cfg::free_section(sec);
        ret = 0;
    }
    lock::rwlock_write_unlock(&pNode->llRwlock);
    return ret;
}

int32_t tovi_cfg_create_tmpfile(const char *pFile, int32_t iFd, char **ppTmpName)
{
    if (pFile == nullptr || ppTmpName == nullptr)
        return -1;
    char text[128];
    size_t size = std::strlen(pFile) + sizeof ".temp";
    auto *name = static_cast<char *>(CFG_MALLOC(static_cast<uint32_t>(size)));
    if (name == nullptr) {
        TOVI_LOG(log::kError, "Malloc memory for tempFile failed.errno(%d).", errno);
        return -1;
    }
    if (snprintf_s(name, size, "%s.temp", pFile) < 0) {
        TOVI_LOG(log::kError, "Sprintf_s failed.");
        TOVI_FREE(name);
        return -1;
    }
    (void)unlink(name);
    struct stat real {};
    if (fstat(iFd, &real) != 0) {
        TOVI_LOG(log::kError, "Stat file(%s) failed.errno(%d).", pFile, errno);
        TOVI_FREE(name);
        return -1;
    }
    // Created private, then given the real file's owner and mode: the
    // contents are never readable by anyone the real file would refuse.
    int fd = open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        TOVI_LOG(log::kError, "Open %s failed.errno(%s).", name, cfg::errno_text(errno, text, sizeof text));
        TOVI_FREE(name);
        return -1;
    }
    struct stat made {};
    bool ok = fstat(fd, &made) == 0;
    if (ok && (made.st_uid != real.st_uid || made.st_gid != real.st_gid) &&
        fchown(fd, real.st_uid, real.st_gid) != 0) {
        TOVI_LOG(log::kError, "Chown %s failed.errno(%s).", name, cfg::errno_text(errno, text, sizeof text));
        ok = false;
    }
    if (ok && fchmod(fd, real.st_mode & 07777) != 0) {
        TOVI_LOG(log::kError, "Chmod %s failed.errno(%s).", name, cfg::errno_text(errno, text, sizeof text));
        ok = false;
    }
    if (!ok) {
        close(fd);
        (void)unlink(name);
        TOVI_FREE(name);
        return -1;
    }
    *ppTmpName = name;
    return fd;
}

int32_t tovi_cfg_writeFnodeTofile(int32_t iFd, CfgFileNode *pNode)
{
    if (iFd < 0 || pNode == nullptr)
        return -1;
    tovi_rwlock_write_lock_mayblock(&pNode->llRwlock);
    size_t size = cfg::rendered_size(pNode);
    char *text = size < UINT32_MAX - 64 ? static_cast<char *>(CFG_MALLOC(static_cast<uint32_t>(size + 1)))
                                        : nullptr;
    if (text == nullptr) {
        int err = errno;
        lock::rwlock_write_unlock(&pNode->llRwlock);
        TOVI_LOG(log::kError, "Malloc size:%d memory failed,errno %d.", static_cast<int>(size + 1), err);
        return -1;
    }
    char *end = cfg::render(pNode, text);
    lock::rwlock_write_unlock(&pNode->llRwlock);
    size = static_cast<size_t>(end - text);
    int32_t ret = 0;
    if (ftruncate(iFd, static_cast<off_t>(size)) != 0) {
        TOVI_LOG(log::kError, "Truncate file (%d) fail,errno %d", iFd, errno);
        ret = -1;
    } else if (lseek(iFd, 0, SEEK_SET) != 0 || !fileops::write_all(iFd, text, size)) {
        TOVI_LOG(log::kError, "Wirte file (%d) fail,errno %d", iFd, errno);
        ret = -1;
    }
    TOVI_FREE(text);
    return ret;
}

int32_t tovi_cfg_file_writeOperate(int32_t iFd, const CfgEditParam *pParam, tovi_cfg_node_proc_f v_pfnProc)
{
    if (iFd < 0 || pParam == nullptr || pParam->pFile == nullptr || v_pfnProc == nullptr) {
        TOVI_LOG(log::kError, "Param is null.");
        return -1;
    }
    const char *path = pParam->pFile;
    if (cfg::check_regular(iFd, path) != 0)
        return -1;
    // A symbolic link stays a link: the file it points to is edited, and
    // resolved once so that every step below works on the same file.
    char *target = realpath(path, nullptr);
    if (target == nullptr) {
        TOVI_LOG(log::kError, "Resolve file(%s) failed, errno(%d).", path, errno);
        return -1;
    }
    int lock_fd = cfg::lock_current(iFd, target, 0);
    int32_t ret = -1;
    int tmp_fd = -1;
    char *tmp_name = nullptr;
    CfgFileNode *old = nullptr;  // the loaded node the edit replaced, kept until the file is durable
    cfg::LoadCache cache{};
    CfgFileNode *node = nullptr;
    if (lock_fd == iFd || cfg::check_regular(lock_fd, target) == 0)
        node = cfg::parse_fd_node(lock_fd, path, cfg::tovi_cfg_file_proc, &cache);
    if (node != nullptr && cache.dropped) {
        // An item the loader had to leave out would vanish from the file.
        cfg::free_file_node(node);
        node = nullptr;
    }
    if (node == nullptr) {
        TOVI_LOG(log::kError, "Parse config file %s failed.", path);
        goto out;
    }
    if (v_pfnProc(node, pParam->pSection, pParam->pItemName, pParam->pItemValue) != 0) {
        cfg::free_file_node(node);
        TOVI_LOG(log::kError, "Exec v_pfnProc(%s) failed.", path);
        goto out;
    }
    tmp_fd = tovi_cfg_create_tmpfile(target, lock_fd, &tmp_name);
    if (tmp_fd < 0) {
        cfg::free_file_node(node);
        goto out;
    }
    if (tovi_cfg_writeFnodeTofile(tmp_fd, node) != 0) {
        cfg::free_file_node(node);
        TOVI_LOG(log::kError, "Write node file(%s) failed.", path);
        goto drop_tmp;
    }
    // The cache is refreshed first (readers see the new value at once), then
    // the file is made durable and renamed; a failure from here on puts the
    // loaded node back, so that cache and disk agree.
    old = cfg::swap_file_node(node);
    if (old == nullptr)
        cfg::free_file_node(node);
    if (fsync(tmp_fd) != 0) {
        TOVI_LOG(log::kError, "Fsync file(%s) failed, errno(%d).", tmp_name, errno);
        goto restore;
    }
    if (rename(tmp_name, target) != 0) {
        TOVI_LOG(log::kError, "Rename file(%s) to (%s) failed, errno(%d).", tmp_name, target, errno);
        goto restore;
    }
    if (!cfg::sync_parent(target)) {
        (void)cfg::put_back(lock_fd, target);
        goto restore_cache;
    }
    if (old != nullptr)
        cfg::free_file_node_locked(old);
    ret = 0;
    goto close_tmp;

restore:
    (void)unlink(tmp_name);
restore_cache:
    if (old != nullptr) {
        CfgFileNode *edited = cfg::swap_file_node(old);
        cfg::free_file_node_locked(edited != nullptr ? edited : old);
    }
    goto close_tmp;
drop_tmp:
    (void)unlink(tmp_name);
close_tmp:
    close(tmp_fd);
    TOVI_FREE(tmp_name);
out:
    cfg::unlock_file(lock_fd);
    if (lock_fd != iFd)
        close(lock_fd);
    std::free(target);
    return ret;
}

int32_t tovi_cfg_file_addItem(const char *pFile, const char *pSection, const char *pItemName, const char *pItemValue)
{
    if (pFile == nullptr || pSection == nullptr || pItemName == nullptr || pItemValue == nullptr) {
        TOVI_LOG(log::kError, "Param is null.");
        return -1;
    }
    return cfg::edit_file(pFile, pSection, pItemName, pItemValue, tovi_cfg_add_item_func, cfg::Edit::add);
}

int32_t tovi_cfg_file_setItemValue(const char *pFile, const char *pSection, const char *pItemName,
                                   const char *pItemValue)
{
    if (pFile == nullptr || pSection == nullptr || pItemName == nullptr || pItemValue == nullptr) {
        TOVI_LOG(log::kError, "param is null.");
        return -1;
    }
    return cfg::edit_file(pFile, pSection, pItemName, pItemValue, tovi_cfg_set_item_func, cfg::Edit::set);
}

int32_t tovi_cfg_file_delItem(const char *pFile, const char *pSection, const char *pItemName)
{
    if (pFile == nullptr || pSection == nullptr || pItemName == nullptr) {
        TOVI_LOG(log::kError, "Param is null.");
        return -1;
    }
    return cfg::edit_file(pFile, pSection, pItemName, nullptr, tovi_cfg_del_item_func, cfg::Edit::del_item);
}

int32_t tovi_cfg_file_delSection(const char *pFile, const char *pSection)
{
    if (pFile == nullptr || pSection == nullptr) {
        TOVI_LOG(log::kError, "Param is null.");
        return -1;
    }
    return cfg::edit_file(pFile, pSection, nullptr, nullptr, tovi_cfg_del_section_func, cfg::Edit::del_section);
}

int32_t tovi_cfg_write_item_to_file(const char *pFile, const char *pSection, const char *pItemName,
                                    const char *pItemValue)
{
    if (pFile == nullptr || pSection == nullptr || pItemName == nullptr || pItemValue == nullptr) {
        TOVI_LOG(log::kError, "Null pointer found, pFile:%p, pSection:%p, pItemValue:%p.",
                 static_cast<const void *>(pFile), static_cast<const void *>(pSection),
                 static_cast<const void *>(pItemValue));
        return -1;
    }
    CfgWriteParam param{};
    size_t value_len = std::strlen(pItemValue);
    auto value_size = static_cast<uint32_t>(value_len < TOVI_CFG_VALUE_MAX ? value_len + 1 : TOVI_CFG_VALUE_MAX);
    param.pItemValue = static_cast<char *>(CFG_MALLOC(value_size));
    if (param.pItemValue == nullptr) {
        TOVI_LOG(log::kError, "Alloc memory failed, size(%u).", value_size);
        return -1;
    }
    int ret = strcpy_s(param.acSection, sizeof param.acSection, pSection);
    if (ret == 0)
        ret = strcpy_s(param.acItemName, sizeof param.acItemName, pItemName);
    if (ret == 0)
        ret = value_len < value_size ? memcpy_s(param.pItemValue, value_size, pItemValue, value_len + 1) : ESNOSPC;
    if (ret != 0) {
        TOVI_LOG(log::kError, "Strcpy_s failed pSection<%s>, pItemName<%s>, pItemValue<%s>, iRet = %d.", pSection,
                 pItemName, pItemValue, ret);
        TOVI_FREE(param.pItemValue);
        return -1;
    }
    if (!cfg::check_writable(pSection, pItemName, pItemValue, true)) {
        TOVI_FREE(param.pItemValue);
        return -1;
    }
    int fd = cfg::open_regular(pFile, O_RDWR | O_CREAT, 0600);
    if (fd < 0) {
        TOVI_LOG(log::kError, "Open file (%s) fail,errno %d", pFile, errno);
        TOVI_FREE(param.pItemValue);
        return -1;
    }
    int lock_fd = cfg::lock_current(fd, pFile, O_CREAT);
    int32_t result = -1;
    off_t size = lock_fd == fd || cfg::check_regular(lock_fd, pFile) == 0 ? lseek(lock_fd, 0, SEEK_END) : -1;
    if (size < 0 || lseek(lock_fd, 0, SEEK_SET) != 0) {
        TOVI_LOG(log::kInfo, "Can't get file size.");
    } else if (static_cast<uint64_t>(size) >= UINT32_MAX - cfg::kRenderSlack - 64 ||
               (param.pBuffer = static_cast<char *>(CFG_MALLOC(static_cast<uint32_t>(size) + cfg::kRenderSlack))) == nullptr) {
        TOVI_LOG(log::kInfo, "Alloc memory Size: (%d) failed.", static_cast<int>(size + cfg::kRenderSlack));
    } else {
        param.bufSize = static_cast<uint32_t>(size) + cfg::kRenderSlack;
        result = cfg::tovi_cfg_ini_fd_parse(lock_fd, nullptr, cfg::tovi_write_item_func, &param, pFile);
        if (result == 0 && param.uiWritten == 0) {
            // Never met: added at the end of its section, or in a new one at the end.
            if (param.bufIndex >= param.bufSize) {
                TOVI_LOG(log::kError, "Buffer size : (%d) is more than stantard size (%d).",
                         static_cast<int>(param.bufIndex), static_cast<int>(param.bufSize));
                result = -1;
            } else {
                result = cfg::append_target(&param);
            }
        }
        if (result == 0)
            result = cfg::rewrite_in_place(lock_fd, &param);
        if (result == 0 && fsync(lock_fd) != 0) {
            TOVI_LOG(log::kError, "Fsync file(%s) failed, errno(%d).", pFile, errno);
            result = -1;
        }
        TOVI_FREE(param.pBuffer);
    }
    cfg::unlock_file(lock_fd);
    if (lock_fd != fd)
        close(lock_fd);
    close(fd);
    TOVI_FREE(param.pItemValue);
    return result;
}

}  // extern "C"
