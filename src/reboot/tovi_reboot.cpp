// printk, panic and the platform's reset, reboot and reboot-count requests.
#include "tovi_reboot.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include <safe_str_lib.h>

#include "tovi_companion.hpp"
#define TOVI_LOG_SOURCE "tovi_reboot"
#include "tovi_log.hpp"

namespace {

using tovi::log::kError;
namespace companion = tovi::companion;

constexpr size_t kPanicTextLen = 256;

}  // namespace

extern "C" {

int printk(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int ret = TOVI_LOG_VRAW(fmt, ap);
    va_end(ap);
    return ret;
}

int panic(const char *fmt, ...)
{
    char text[kPanicTextLen] = {};
    va_list ap;
    va_list again;
    va_start(ap, fmt);
    va_copy(again, ap);
    int ret = vsnprintf_s(text, sizeof text, fmt, ap);
    va_end(ap);
    if (ret < 0) {
        TOVI_LOG(kError, "Print panic info error, ret(%d) errno(%d).", ret, errno);
        // The bounded formatter leaves nothing of a text that is too long;
        // a panic keeps its first 255 characters.
        if (ret == -ESNOSPC)
            std::vsnprintf(text, sizeof text, fmt, again);
    }
    va_end(again);
    printk("Panic info = %s\n", text);
    if (companion::syscall(companion::kCmdPanic, reinterpret_cast<long>(text)) < 0)
        TOVI_LOG(kError, "Syscall for tovi_Reboot failed.errno %d", errno);
    return 0;
}

int32_t tovi_Reboot(uint64_t reason, uint32_t mid, const char *text)
{
    if (text != nullptr)
        TOVI_LOG_RAW("Usrspace reboot: reason:%lu, mid:%d, %s.", static_cast<unsigned long>(reason),
                     static_cast<int>(mid), text);
    else
        TOVI_LOG_RAW("Usrspace reboot: reason:%lu, mid:%d.", static_cast<unsigned long>(reason),
                     static_cast<int>(mid));
    // The platform takes one byte of the text.
    long first = text != nullptr ? static_cast<long>(static_cast<unsigned char>(text[0])) : -1;
    long ret = companion::syscall4(companion::kCmdReboot, static_cast<long>(reason), static_cast<long>(mid), first,
                                   -1);
    if (ret < 0) {
        TOVI_LOG(kError, "Syscall for tovi_Reboot failed.");
        return -1;
    }
    return static_cast<int32_t>(ret);
}

uint32_t tovi_ResetLocalBoard(void)
{
    if (companion::syscall4(companion::kCmdResetBoard, -1, -1, -1, -1) < 0) {
        TOVI_LOG(kError, "Syscall for tovi_ResetLocalBoard failed.");
        return TOVI_ERR;
    }
    return 0;
}

uint32_t tovi_get_reboot_count(uint64_t arg)
{
    uint32_t count = 0;
    if (companion::syscall(companion::kCmdRebootCount, static_cast<long>(arg), reinterpret_cast<long>(&count)) < 0) {
        TOVI_LOG(kError, "Syscall for tovi_get_reboot_count failed.");
        return TOVI_ERR;
    }
    return count;
}

}  // extern "C"
