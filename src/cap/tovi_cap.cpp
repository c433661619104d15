// Capabilities through libcap. Sets travel as 64-bit masks; libcap's cap_t
// is built and freed inside each call.
#include "tovi_cap.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <grp.h>
#include <sys/capability.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "tovi_scope.hpp"

#define TOVI_LOG_SOURCE "tovi_cap"
#include "tovi_log.hpp"

namespace {

constexpr cap_value_t kBits = 64;

int last_cap()
{
    const int n = static_cast<int>(cap_max_bits());
    return n > kBits ? kBits : n;
}

int read_sets(tovi_cap_set_s *set)
{
    cap_t caps = cap_get_proc();
    if (caps == nullptr)
        return -errno;
    *set = {};
    for (cap_value_t c = 0; c < last_cap(); ++c) {
        cap_flag_value_t v;
        const uint64_t bit = 1ull << c;
        if (cap_get_flag(caps, c, CAP_EFFECTIVE, &v) == 0 && v == CAP_SET)
            set->effective |= bit;
        if (cap_get_flag(caps, c, CAP_PERMITTED, &v) == 0 && v == CAP_SET)
            set->permitted |= bit;
        if (cap_get_flag(caps, c, CAP_INHERITABLE, &v) == 0 && v == CAP_SET)
            set->inheritable |= bit;
    }
    cap_free(caps);
    return 0;
}

// Effective and permitted become `mask`, inheritable empty.
int set_exactly(uint64_t mask)
{
    cap_t caps = cap_init();
    if (caps == nullptr)
        return -ENOMEM;
    tovi::ScopeExit free_caps([&] { cap_free(caps); });
    for (cap_value_t c = 0; c < last_cap(); ++c) {
        if ((mask & (1ull << c)) != 0 &&
            (cap_set_flag(caps, CAP_EFFECTIVE, 1, &c, CAP_SET) != 0 || cap_set_flag(caps, CAP_PERMITTED, 1, &c, CAP_SET) != 0))
            return -EINVAL;
    }
    if (cap_set_proc(caps) != 0) {
        const int err = errno;
        TOVI_LOG(tovi::log::kError, "cap: setting the capabilities failed (%s).", std::strerror(err));
        return -err;
    }
    return 0;
}

// Parses `names` and checks them against the permitted set.
int permitted_mask(const char *names, uint64_t *mask)
{
    if (int rc = tovi_cap_parse(names, mask); rc != 0)
        return rc;
    tovi_cap_set_s now;
    if (int rc = read_sets(&now); rc != 0)
        return rc;
    if ((*mask & ~now.permitted) != 0) {
        char missing[512];
        tovi_cap_format(*mask & ~now.permitted, missing, sizeof missing);
        TOVI_LOG(tovi::log::kError, "cap: %s not permitted.", missing);
        return -EPERM;
    }
    return 0;
}

}  // namespace

extern "C" {

TOVI_API int tovi_cap_get(tovi_cap_set_s *set)
{
    return set == nullptr ? -EINVAL : read_sets(set);
}

TOVI_API int tovi_cap_parse(const char *names, uint64_t *mask)
{
    if (names == nullptr || mask == nullptr)
        return -EINVAL;
    uint64_t m = 0;
    const char *p = names;
    while (*p != '\0') {
        const char *end = std::strchr(p, ',');
        const size_t len = end != nullptr ? static_cast<size_t>(end - p) : std::strlen(p);
        char name[64];
        cap_value_t c = -1;
        if (len > 0 && len < sizeof name) {
            std::memcpy(name, p, len);
            name[len] = '\0';
            if (cap_from_name(name, &c) != 0 || c < 0 || c >= kBits)
                c = -1;
        }
        if (c < 0 || (end != nullptr && end[1] == '\0')) {
            TOVI_LOG(tovi::log::kError, "cap: unknown capability in '%s'.", names);
            return -EINVAL;
        }
        m |= 1ull << c;
        p += len + (end != nullptr ? 1 : 0);
    }
    *mask = m;
    return 0;
}

TOVI_API size_t tovi_cap_format(uint64_t mask, char *buf, size_t len)
{
    std::string text;
    size_t fitted = 0;
    try {
        for (cap_value_t c = 0; c < kBits; ++c) {
            if ((mask & (1ull << c)) == 0)
                continue;
            char *name = cap_to_name(c);
            if (!text.empty())
                text += ',';
            text += name != nullptr ? name : "?";
            cap_free(name);
            if (text.size() < len)
                fitted = text.size();
        }
    } catch (...) {
        text.clear();
        fitted = 0;
    }
    if (buf != nullptr && len > 0) {
        std::memcpy(buf, text.data(), fitted);
        buf[fitted] = '\0';
    }
    return text.size();
}

TOVI_API int tovi_cap_drop_to(const char *names)
{
    uint64_t mask = 0;
    if (int rc = permitted_mask(names, &mask); rc != 0)
        return rc;
    return set_exactly(mask);
}

TOVI_API int tovi_cap_setuid_keep(uint32_t uid, uint32_t gid, const char *names)
{
    uint64_t mask = 0;
    if (int rc = permitted_mask(names, &mask); rc != 0)
        return rc;
    // Keep the permitted set through the change of user id, for this change only.
    if (prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0) {
        const int err = errno;
        TOVI_LOG(tovi::log::kError, "cap: keeping capabilities across the change of ids refused (%s).", std::strerror(err));
        return -err;
    }
    tovi::ScopeExit no_keep([] { prctl(PR_SET_KEEPCAPS, 0, 0, 0, 0); });
    const char *step = nullptr;
    if (setgroups(0, nullptr) != 0)
        step = "setgroups";
    else if (setresgid(gid, gid, gid) != 0)
        step = "setresgid";
    else if (setresuid(uid, uid, uid) != 0)
        step = "setresuid";
    if (step != nullptr) {
        const int err = errno;
        TOVI_LOG(tovi::log::kError, "cap: %s to uid %u gid %u failed (%s).", step, uid, gid, std::strerror(err));
        return -err;
    }
    return set_exactly(mask);
}

TOVI_API int tovi_cap_run_without_root(uint32_t uid, uint32_t gid, const char *keep)
{
    uint64_t mask = 0;
    if (uid == 0 || tovi_cap_parse(keep, &mask) != 0) {
        TOVI_LOG(tovi::log::kError, "cap: cannot run as uid %u keeping '%s'.", uid, keep != nullptr ? keep : "(null)");
        return -EINVAL;
    }
    // Refused before anything changes: the bounding set cannot be refilled.
    if (int rc = permitted_mask(keep, &mask); rc != 0)
        return rc;
    // Out of the bounding set, no later program can bring a capability back.
    for (cap_value_t c = 0; c < last_cap(); ++c) {
        if ((mask & (1ull << c)) == 0 && cap_drop_bound(c) != 0 && errno != EINVAL) {
            const int err = errno;
            TOVI_LOG(tovi::log::kError, "cap: dropping capability %d from the bounding set failed (%s).", c,
                     std::strerror(err));
            return -err;
        }
    }
    if (int rc = tovi_cap_setuid_keep(uid, gid, keep); rc != 0)
        return rc;
    if ((mask & (1ull << CAP_SETUID)) == 0 && setuid(0) == 0) {
        TOVI_LOG(tovi::log::kError, "cap: root could be taken back after leaving it.");
        return -EPERM;
    }
    TOVI_LOG(tovi::log::kInfo, "cap: running as uid %u gid %u keeping %s.", uid, gid, keep[0] != '\0' ? keep : "nothing");
    return 0;
}

}  // extern "C"
