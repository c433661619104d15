// Custom setting items: one ioctl request on the platform's control file per
// call, with fixed-size records whose layout the platform reads byte for
// byte.
#include <cerrno>
#include <cstddef>
#include <cstring>

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include "tovi_cfg.h"
#include "tovi_companion.hpp"
#define TOVI_LOG_SOURCE "tovi_cst"
#include "tovi_log.hpp"

namespace {

namespace companion = tovi::companion;
using tovi::log::kError;

static_assert(sizeof(CstItemRequest) == 325 && offsetof(CstItemRequest, acItemName) == 35 &&
              offsetof(CstItemRequest, acItemValue) == 68);
static_assert(sizeof(CstItemReply) == 290 && offsetof(CstItemReply, acItemValue) == 33);
static_assert(offsetof(CstMsgHeader, ullReserved) == 8 && offsetof(CstMsgHeader, pIn) == 16);

constexpr const char *kControlFile = "/proc/kar/syscall";

// Sends one request: the ioctl's result, -1 when the file cannot be opened.
long tovi_cst_syscall(unsigned long request, CstMsgHeader *header)
{
    companion::ControlFile file;
    if (companion::control_open(kControlFile, &file) != 0) {
        TOVI_LOG(kError, "Open file failed, errno %d", errno);
        return -1;
    }
    long ret = companion::control_ioctl(file, request, header);
    // The platform refuses some callers on purpose; that is not worth a line.
    if (ret != 0 && errno != EPERM)
        TOVI_LOG(kError, "Ioctl failed, errno %d", errno);
    companion::control_close(&file);
    return ret;
}

// The two names into a request; false (logged) when one does not fit.
bool fill_names(CstItemRequest *req, const char *section, const char *itemName)
{
    if (strcpy_s(req->acSection, sizeof req->acSection, section) != 0) {
        TOVI_LOG(kError, "Copy section name fail, %s", section);
        return false;
    }
    if (strcpy_s(req->acItemName, sizeof req->acItemName, itemName) != 0) {
        TOVI_LOG(kError, "Copy item name fail, %s", itemName);
        return false;
    }
    return true;
}

}  // namespace

extern "C" {

int32_t tovi_cst_getItem(const char *section, const char *itemName, char *value, uint32_t size)
{
    if (section == nullptr || itemName == nullptr || value == nullptr) {
        TOVI_LOG(kError, "Null pointer found, section = %p, itemname = %p, item = %p.", section, itemName, value);
        return -1;
    }
    CstItemRequest req{};
    CstItemReply reply{};
    if (!fill_names(&req, section, itemName))
        return -1;
    CstMsgHeader header{sizeof req, sizeof reply, 0, &req, &reply};
    if (tovi_cst_syscall(companion::kIoctlCstGet, &header) != 0) {
        TOVI_LOG(kError, "Get item failed, section(%s) item name(%s), cmd(%d).", section, itemName,
                 static_cast<int>(companion::kIoctlCstGet));
        return -1;
    }
    // At most the field: a reply without its NUL still ends there.
    size_t len = strnlen_s(reply.acItemValue, sizeof reply.acItemValue - 1);
    if (len + 1 > size)
        return -1;
    std::memcpy(value, reply.acItemValue, len);  // len + 1 <= size: checked above
    value[len] = '\0';
    return 0;
}

int32_t tovi_cst_setItem(const char *section, const char *itemName, const char *value)
{
    if (section == nullptr || itemName == nullptr || value == nullptr) {
        TOVI_LOG(kError, "Null pointer found, section = %p, item name = %p, value = %p.", section, itemName, value);
        return -1;
    }
    CstItemRequest req{};
    if (!fill_names(&req, section, itemName))
        return -1;
    if (strcpy_s(req.acItemValue, sizeof req.acItemValue, value) != 0) {
        TOVI_LOG(kError, "Copy item value fail, %s", value);
        return -1;
    }
    CstMsgHeader header{sizeof req, 0, 0, &req, nullptr};
    if (tovi_cst_syscall(companion::kIoctlCstSet, &header) != 0) {
        TOVI_LOG(kError, "Set item failed, section(%s) itemName(%s) itemValue(%s)", section, itemName, value);
        return -1;
    }
    return 0;
}

int32_t tovi_cst_reloadConfig(void)
{
    if (tovi_cst_syscall(companion::kIoctlCstReload, nullptr) != 0) {
        TOVI_LOG(kError, "Reload config fail");
        return -1;
    }
    return 0;
}

}  // extern "C"
