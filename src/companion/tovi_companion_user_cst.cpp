// User-space backend: the custom setting items (ioctls 256-258 on
// "/proc/kar/syscall") kept in an ini file of their own, TOVI_CST_FILE or
// the file $TOVI_CST_FILE names, through the configuration module. A get
// reads the file, a set edits it in place under the module's file lock, and
// reload succeeds: nothing is cached, so there is nothing to reread.
//
// Failures: EINVAL for a malformed header or record, or a name the ini
// format cannot hold (letters, digits and '_' only) or a value with a line
// break; ENOENT for a missing file or item; EIO when the file cannot be
// parsed or edited.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <safe_str_lib.h>

#include "tovi_cfg.h"
#include "tovi_companion.hpp"

namespace tovi::companion::user {
namespace {

const char *cst_file()
{
    const char *path = std::getenv(TOVI_CST_FILE_ENV);
    return path != nullptr && path[0] != '\0' ? path : TOVI_CST_FILE;
}

bool ini_name(const char *name)
{
    if (name[0] == '\0')
        return false;
    for (const char *p = name; *p != '\0'; ++p)
        if (!(*p == '_' || (*p >= '0' && *p <= '9') || (*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z')))
            return false;
    return true;
}

// The request of a header, its strings checked to end inside their fields.
const CstItemRequest *request_of(const void *arg, uint32_t out_len)
{
    const auto *h = static_cast<const CstMsgHeader *>(arg);
    if (h == nullptr || h->uiInLen != sizeof(CstItemRequest) || h->pIn == nullptr || h->uiOutLen < out_len ||
        (out_len != 0 && h->pOut == nullptr))
        return nullptr;
    const auto *req = static_cast<const CstItemRequest *>(h->pIn);
    if (strnlen_s(req->acSection, sizeof req->acSection) == sizeof req->acSection ||
        strnlen_s(req->acItemName, sizeof req->acItemName) == sizeof req->acItemName ||
        !ini_name(req->acSection) || !ini_name(req->acItemName))
        return nullptr;
    return req;
}

long fail(int err)
{
    errno = err;
    return -1;
}

}  // namespace

long cst_get(void *arg)
{
    const CstItemRequest *req = request_of(arg, sizeof(CstItemReply));
    if (req == nullptr)
        return fail(EINVAL);
    const char *path = cst_file();
    if (access(path, F_OK) != 0)
        return fail(ENOENT);
    if (tovi_cfg_init_ex(path) != 0)
        return fail(EIO);
    auto *reply = static_cast<CstItemReply *>(static_cast<CstMsgHeader *>(arg)->pOut);
    char value[TOVI_CST_VALUE_LEN];
    int32_t found = tovi_cfg_getItemValue_ex(path, req->acSection, req->acItemName, value, sizeof value);
    tovi_cfg_destroy_ex(path);
    if (found != 0)
        return fail(found == TOVI_CFG_ERR_BUFSIZE ? EIO : ENOENT);
    strcpy_s(reply->acItemName, sizeof reply->acItemName, req->acItemName);
    strcpy_s(reply->acItemValue, sizeof reply->acItemValue, value);
    return 0;
}

long cst_set(void *arg)
{
    const CstItemRequest *req = request_of(arg, 0);
    if (req == nullptr || strnlen_s(req->acItemValue, sizeof req->acItemValue) == sizeof req->acItemValue ||
        std::strpbrk(req->acItemValue, "\r\n") != nullptr)
        return fail(EINVAL);
    const char *path = cst_file();
    // Non-blocking: a FIFO left at the path would wait for a reader for ever.
    int fd = open(path, O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0)
        return -1;  // errno from open
    close(fd);
    // Set when the item is there, add when not; a process adding the same
    // item at the same moment turns the add into a set.
    CfgItemResult old;
    bool exists = tovi_cfg_getItemFromFile(path, req->acSection, req->acItemName, &old) == 0;
    for (int attempt = 0; attempt < 2; ++attempt, exists = !exists) {
        int32_t ret = exists ? tovi_cfg_file_setItemValue(path, req->acSection, req->acItemName, req->acItemValue)
                             : tovi_cfg_file_addItem(path, req->acSection, req->acItemName, req->acItemValue);
        if (ret == 0)
            return 0;
    }
    return fail(EIO);
}

long cst_reload(void *)
{
    return 0;
}

}  // namespace tovi::companion::user
