// Thread names (the record's copy and the kernel's) and the process's names.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <sys/prctl.h>
#include <unistd.h>

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#define TOVI_LOG_SOURCE "tovi_thrd"
#include "tovi_log.hpp"
#include "tovi_scope.hpp"
#include "tovi_thread.hpp"

namespace {

using tovi::log::kError;

}  // namespace

namespace tovi::thrd {

void write_name(tovi_thread_s *rec, const char (&name)[TOVI_THREAD_NAME_LEN])
{
    // Byte by byte, relaxed: a listing may read the name while it changes
    // and at worst shows a mix of the two.
    for (uint32_t i = 0; i < TOVI_THREAD_NAME_LEN; ++i)
        __atomic_store_n(&rec->name[i], name[i], __ATOMIC_RELAXED);
}

bool set_names(tovi_thread_s *rec, const char *name)
{
    char buf[TOVI_THREAD_NAME_LEN] = {};
    for (uint32_t i = 0; i + 1 < TOVI_THREAD_NAME_LEN && name[i] != '\0'; ++i)
        buf[i] = name[i];
    write_name(rec, buf);
    return prctl(PR_SET_NAME, buf) == 0;
}

void read_name(const tovi_thread_s *rec, char out[TOVI_THREAD_NAME_LEN])
{
    for (uint32_t i = 0; i < TOVI_THREAD_NAME_LEN; ++i)
        out[i] = __atomic_load_n(&rec->name[i], __ATOMIC_RELAXED);
    out[TOVI_THREAD_NAME_LEN - 1] = '\0';
}

void current_name(char (&out)[TOVI_THREAD_NAME_LEN])
{
    memset_s(out, sizeof out, 0, sizeof out);
    if (const tovi_thread_s *rec = m_current_thread)
        read_name(rec, out);
    else
        prctl(PR_GET_NAME, out);
    out[TOVI_THREAD_NAME_LEN - 1] = '\0';
}

}  // namespace tovi::thrd

extern "C" {

uint32_t tovi_thrd_setname(const char *fmt, ...)
{
    if (fmt == nullptr) {
        TOVI_LOG(kError, "Tovi set thrd name(NULL) fail.");
        return TOVI_ERR;
    }
    tovi_thread_s *rec = m_current_thread;
    if (rec == nullptr) {
        TOVI_LOG(kError, "Tovi set thrd name(%s) fail, please use tovi or Nubo create thrd.", fmt);
        return TOVI_ERR;
    }
    // The bounded formatter refuses rather than truncates: format into room
    // to spare, then keep the first 15 characters.
    char text[256] = {};
    va_list ap;
    va_start(ap, fmt);
    int ret = vsnprintf_s(text, sizeof text, fmt, ap);
    va_end(ap);
    if (ret < 0 && text[0] == '\0') {
        TOVI_LOG(kError, "vsnprintf_s failed, name(%s).", fmt);
        return TOVI_ERR;
    }
    text[TOVI_THREAD_NAME_LEN - 1] = '\0';
    if (!tovi::thrd::set_names(rec, text)) {
        TOVI_LOG(kError, "Tovi set thrd name fail, errno:%d.", errno);
        return TOVI_ERR;
    }
    return 0;
}

const char *tovi_thrd_getname(void)
{
    tovi_thread_s *rec = m_current_thread;
    return rec != nullptr ? rec->name : nullptr;
}

uint32_t tovi_get_process_name(char *buf)
{
    if (buf == nullptr)
        return TOVI_ERR;
    char path[64];
    snprintf_s(path, sizeof path, "/proc/%d/status", tovi_thrd_getpid_accl());
    FILE *status = std::fopen(path, "re");
    if (status == nullptr)
        return TOVI_ERR;
    tovi::ScopeExit close_status([status] { std::fclose(status); });
    char line[256];
    uint32_t ret = TOVI_ERR;
    while (std::fgets(line, sizeof line, status) != nullptr) {
        char name[TOVI_THREAD_NAME_LEN] = {};
        if (sscanf_s(line, "Name:\t%15[^\n]", name) == 1) {
            strcpy_s(buf, TOVI_THREAD_NAME_LEN, name);
            ret = 0;
            break;
        }
    }
    return ret;
}

uint32_t tovi_get_process_exe_name(char *buf)
{
    if (buf == nullptr)
        return TOVI_ERR;
    char path[64];
    snprintf_s(path, sizeof path, "/proc/%d/exe", tovi_thrd_getpid_accl());
    char target[4096];
    ssize_t n = readlink(path, target, sizeof target - 1);
    if (n < 0)
        return TOVI_ERR;
    target[n] = '\0';
    size_t keep = std::min<size_t>(static_cast<size_t>(n), TOVI_PROCESS_EXE_LEN - 1);
    memcpy_s(buf, TOVI_PROCESS_EXE_LEN, target, keep);
    buf[keep] = '\0';
    return 0;
}

}  // extern "C"
