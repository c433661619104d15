// File-system commands run through the filtered shell runner. Every path is
// checked for length before a command is built, every command buffer is
// freed on every path, and only tovi_cmd_mkdir lets "&>" through the filter
// (for its own redirection, after checking the path itself).
#include <cstdlib>
#include <cstring>

#include <safe_str_lib.h>

#define TOVI_LOG_SOURCE "tovi_fileops"
#include "tovi_fileops.h"
#include "tovi_format.hpp"
#include "tovi_log.hpp"
#include "tovi_process.h"

namespace {

constexpr size_t kCmdSize = 4096;

bool too_long(const char *path)
{
    return std::strlen(path) >= TOVI_FILEOPS_PATH_MAX;
}

// Formats and runs one command. The message for a failed allocation
// differs between members, so the caller names it.
template <typename... Args>
int32_t run_command(const char *alloc_msg, const char *allow, const char *fmt, Args... args)
{
    char *cmd = static_cast<char *>(std::calloc(1, kCmdSize));
    if (cmd == nullptr) {
        TOVI_LOG(tovi::log::kError, "%s", alloc_msg);
        return -12;
    }
    if (!tovi::formatted(snprintf_s(cmd, kCmdSize, fmt, args...), kCmdSize)) {
        TOVI_LOG_RATELIMITED(tovi::log::kError, "sprintf_s secure function failed, destMax<%lu>.",
                             static_cast<unsigned long>(kCmdSize));
        std::free(cmd);
        return -22;
    }
    int32_t ret = tovi_system_s(cmd, allow);
    if (ret != 0)
        TOVI_LOG(tovi::log::kError, "Execute cmd(%s) Fail(%d)", cmd, ret);
    std::free(cmd);
    return ret;
}

}  // namespace

extern "C" {

int32_t tovi_cmd_cp(const char *pSrcFile, const char *pDestFile)
{
    if (pSrcFile == nullptr || pDestFile == nullptr) {
        TOVI_LOG(tovi::log::kError, "SrcFile or DestFile is NULL.");
        return -22;
    }
    if (too_long(pSrcFile) || too_long(pDestFile)) {
        TOVI_LOG(tovi::log::kError, "File Path is too Long, pSrcFile: (%s), pDestFile: (%s)", pSrcFile,
                 pDestFile);
        return -36;
    }
    return run_command("AllocCmd is NULL", nullptr, "cp -af %s %s", pSrcFile, pDestFile);
}

int32_t tovi_cmd_rm(const char *pFile)
{
    if (pFile == nullptr) {
        TOVI_LOG(tovi::log::kError, "File is NULL.");
        return -22;
    }
    if (too_long(pFile)) {
        TOVI_LOG(tovi::log::kError, "File path too long pSrcFile = %s", pFile);
        return -36;
    }
    return run_command("AllocCmd is NULL", nullptr, "rm -rf %s", pFile);
}

int32_t tovi_cmd_tar(const char *pSrcFile, const char *pDir, uint32_t direction)
{
    if (pSrcFile == nullptr || pDir == nullptr) {
        TOVI_LOG(tovi::log::kError, "Param is NULL.");
        return -22;
    }
    if (too_long(pSrcFile) || too_long(pDir)) {
        TOVI_LOG(tovi::log::kError, "File path too long pSrcFile = %s,pDir = %s", pSrcFile, pDir);
        return -36;
    }
    if (direction == TOVI_TAR_CREATE)
        return run_command("AllocCmd is NULL", nullptr, "tar -czf %s %s", pSrcFile, pDir);
    return run_command("AllocCmd is NULL", nullptr, "tar -xzf %s -C %s", pSrcFile, pDir);
}

int32_t tovi_cmd_touch(const char *pFile)
{
    if (pFile == nullptr) {
        TOVI_LOG(tovi::log::kError, "File is NULL.");
        return -22;
    }
    if (too_long(pFile)) {
        TOVI_LOG(tovi::log::kError, "File path:(%s) is too long.", pFile);
        return -36;
    }
    return run_command("allocCmd is NULL", nullptr, "touch %s", pFile);
}

int32_t tovi_cmd_mv(const char *pSrcFile, const char *pDestFile)
{
    if (pSrcFile == nullptr || pDestFile == nullptr) {
        TOVI_LOG(tovi::log::kError, "Param is NULL.");
        return -22;
    }
    if (too_long(pSrcFile) || too_long(pDestFile)) {
        TOVI_LOG(tovi::log::kError, "File path too long pSrcFile = %s, pDestFile = %s", pSrcFile,
                 pDestFile);
        return -36;
    }
    return run_command("allocCmd is NULL", nullptr, "mv %s %s", pSrcFile, pDestFile);
}

int32_t tovi_cmd_mkdir(const char *pFile)
{
    if (pFile == nullptr) {
        TOVI_LOG(tovi::log::kError, "File is NULL.");
        return -22;
    }
    if (too_long(pFile)) {
        TOVI_LOG(tovi::log::kError, "File path too long pFile = %s", pFile);
        return -36;
    }
    if (isDangerousCmd(pFile, nullptr) != 0) {
        TOVI_LOG(tovi::log::kError, "Param error: pFile(%s) is dangerous.", pFile);
        return -22;
    }
    return run_command("allocCmd is NULL", "&>", "mkdir -p %s &>/dev/null", pFile);
}

}  // extern "C"
