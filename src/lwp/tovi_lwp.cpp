// Light-weight process instances: one block per instance (header, variable
// offsets, data, variables), filed by (type, context) for look-ups and by
// sequence number for the listing and the reverse tear-down.
#include "tovi_lwp.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#define TOVI_LOG_SOURCE "tovi_lwp"
#include "tovi_log.hpp"

struct tovi_lwp_inst_s {
    tovi_lwp_type_s *type;
    uint32_t ctx;
    uint32_t nvars;
    uint64_t sequence;
    uint64_t bytes;
    unsigned char *data;
    uint32_t offsets[];  // of each variable from `data`
};

namespace {

constexpr uint32_t kVarMaxSize = 1u << 20;
constexpr size_t kAlign = 16;

size_t align_up(size_t n)
{
    return (n + kAlign - 1) & ~(kAlign - 1);
}

struct TypeState {
    std::vector<uint32_t> offsets;  // from the start of the instance's data
    std::vector<std::string> names;
    size_t total;                   // data and variables
    uint32_t instances = 0;
};

using Key = std::pair<const tovi_lwp_type_s *, uint32_t>;

// g_create serialises every change (constructors and destructors run under
// it); g_map guards the tables and is held only briefly, so look-ups never
// wait for a constructor.
std::mutex g_create;
std::shared_mutex g_map;
std::map<const tovi_lwp_type_s *, TypeState> g_types;
std::map<Key, tovi_lwp_inst_s *> g_by_key;
std::map<uint64_t, tovi_lwp_inst_s *> g_by_seq;
uint64_t g_next_seq = 1;

bool valid_name(const char *name)
{
    return name != nullptr && name[0] != '\0' && strnlen(name, TOVI_LWP_NAME_LEN) < TOVI_LWP_NAME_LEN;
}

void run_dtor(tovi_lwp_inst_s *inst)
{
    if (inst->type->dtor != nullptr)
        inst->type->dtor(inst, inst->data, inst->ctx);
    {
        std::unique_lock lock(g_map);
        --g_types[inst->type].instances;
    }
    std::free(inst);
}

// An unregistered record's name may be anything: printed up to its size at most.
void not_registered(const tovi_lwp_type_s *type)
{
    TOVI_LOG(tovi::log::kError, "lwp: type %.*s is not registered.", type != nullptr ? TOVI_LWP_NAME_LEN - 1 : 6,
             type != nullptr ? type->name : "(none)");
}

// Unfiles the instance; the caller holds g_create and then runs run_dtor.
void unfile(tovi_lwp_inst_s *inst)
{
    std::unique_lock lock(g_map);
    g_by_key.erase(Key{inst->type, inst->ctx});
    g_by_seq.erase(inst->sequence);
}

}  // namespace

extern "C" {

TOVI_API int tovi_lwp_type_register(tovi_lwp_type_s *type)
{
    if (type == nullptr || !valid_name(type->name) || type->data_size > kVarMaxSize) {
        TOVI_LOG(tovi::log::kError, "lwp: bad type %s.", type != nullptr && valid_name(type->name) ? type->name : "(none)");
        return -EINVAL;
    }
    try {
        std::lock_guard create(g_create);
        std::unique_lock lock(g_map);
        for (const auto &[t, state] : g_types) {
            if (t == type || std::strcmp(t->name, type->name) == 0) {
                TOVI_LOG(tovi::log::kError, "lwp: type %s already registered.", type->name);
                return -EEXIST;
            }
        }
        TypeState state;
        state.total = align_up(type->data_size);
        g_types.emplace(type, std::move(state));
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    return 0;
}

TOVI_API int tovi_lwp_type_unregister(tovi_lwp_type_s *type)
{
    std::lock_guard create(g_create);
    std::unique_lock lock(g_map);
    auto it = g_types.find(type);
    if (it == g_types.end()) {
        not_registered(type);
        return -ENOENT;
    }
    if (it->second.instances != 0) {
        TOVI_LOG(tovi::log::kError, "lwp: type %s still has %u instances.", type->name, it->second.instances);
        return -EBUSY;
    }
    g_types.erase(it);
    return 0;
}

TOVI_API int tovi_lwp_var_define(tovi_lwp_type_s *type, const char *name, uint32_t size, uint32_t *slot)
{
    if (type == nullptr || !valid_name(name) || size == 0 || size > kVarMaxSize || slot == nullptr) {
        TOVI_LOG(tovi::log::kError, "lwp: bad variable %s.", valid_name(name) ? name : "(none)");
        return -EINVAL;
    }
    try {
        std::lock_guard create(g_create);
        std::unique_lock lock(g_map);
        auto it = g_types.find(type);
        if (it == g_types.end()) {
            not_registered(type);
            return -ENOENT;
        }
        TypeState &state = it->second;
        if (state.instances != 0) {
            TOVI_LOG(tovi::log::kError, "lwp: variable %s defined while type %s has instances.", name, type->name);
            return -EBUSY;
        }
        if (state.offsets.size() >= TOVI_LWP_VAR_MAX) {
            TOVI_LOG(tovi::log::kError, "lwp: type %s has no room for variable %s.", type->name, name);
            return -ENOMEM;
        }
        state.names.emplace_back(name);
        state.offsets.push_back(static_cast<uint32_t>(state.total));
        state.total += align_up(size);
        *slot = static_cast<uint32_t>(state.offsets.size() - 1);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    return 0;
}

TOVI_API int tovi_lwp_create(tovi_lwp_type_s *type, uint32_t ctx, void *arg, tovi_lwp_inst_s **out)
{
    if (type == nullptr) {
        not_registered(type);
        return -EINVAL;
    }
    std::lock_guard create(g_create);
    tovi_lwp_inst_s *inst = nullptr;
    {
        std::unique_lock lock(g_map);
        auto it = g_types.find(type);
        if (it == g_types.end()) {
            not_registered(type);
            return -ENOENT;
        }
        if (g_by_key.count(Key{type, ctx}) != 0) {
            TOVI_LOG(tovi::log::kError, "lwp: %s instance of context %u exists.", type->name, ctx);
            return -EEXIST;
        }
        const TypeState &state = it->second;
        const size_t nvars = state.offsets.size();
        const size_t head = align_up(sizeof(tovi_lwp_inst_s) + nvars * sizeof(uint32_t));
        inst = static_cast<tovi_lwp_inst_s *>(std::calloc(1, head + state.total));
        if (inst == nullptr)
            return -ENOMEM;
        inst->type = type;
        inst->ctx = ctx;
        inst->nvars = static_cast<uint32_t>(nvars);
        inst->bytes = state.total;
        inst->data = reinterpret_cast<unsigned char *>(inst) + head;
        if (nvars != 0)  // an empty table has no data pointer to copy from
            std::memcpy(inst->offsets, state.offsets.data(), nvars * sizeof(uint32_t));
        ++it->second.instances;
    }
    int rc = type->ctor != nullptr ? type->ctor(inst, inst->data, ctx, arg) : 0;
    if (rc == 0) {
        try {
            std::unique_lock lock(g_map);
            inst->sequence = g_next_seq;
            g_by_key.emplace(Key{type, ctx}, inst);
            try {
                g_by_seq.emplace(inst->sequence, inst);
            } catch (...) {
                g_by_key.erase(Key{type, ctx});
                throw;
            }
            ++g_next_seq;
        } catch (const std::bad_alloc &) {
            rc = -ENOMEM;
        }
        if (rc != 0) {
            run_dtor(inst);  // built but cannot be filed
            return rc;
        }
    } else {
        TOVI_LOG(tovi::log::kError, "lwp: constructor of %s for context %u failed (%d).", type->name, ctx, rc);
        std::unique_lock lock(g_map);
        --g_types[type].instances;
        std::free(inst);
        return rc;
    }
    if (out != nullptr)
        *out = inst;
    return 0;
}

TOVI_API tovi_lwp_inst_s *tovi_lwp_find(const tovi_lwp_type_s *type, uint32_t ctx)
{
    std::shared_lock lock(g_map);
    auto it = g_by_key.find(Key{type, ctx});
    return it == g_by_key.end() ? nullptr : it->second;
}

TOVI_API void *tovi_lwp_var(const tovi_lwp_inst_s *inst, uint32_t slot)
{
    if (inst == nullptr || slot >= inst->nvars)
        return nullptr;
    return inst->data + inst->offsets[slot];
}

TOVI_API void *tovi_lwp_data(const tovi_lwp_inst_s *inst)
{
    return inst == nullptr ? nullptr : inst->data;
}

TOVI_API uint32_t tovi_lwp_ctx(const tovi_lwp_inst_s *inst)
{
    return inst == nullptr ? 0 : inst->ctx;
}

TOVI_API int tovi_lwp_destroy(tovi_lwp_inst_s *inst)
{
    if (inst == nullptr) {
        TOVI_LOG(tovi::log::kError, "lwp: %p is not a live instance.", static_cast<void *>(inst));
        return -EINVAL;
    }
    std::lock_guard create(g_create);
    {
        // Only a filed instance is touched: a stale pointer is refused, not freed twice.
        std::shared_lock lock(g_map);
        bool live = false;
        for (const auto &[key, p] : g_by_key)
            live = live || p == inst;
        if (!live) {
            TOVI_LOG(tovi::log::kError, "lwp: %p is not a live instance.", static_cast<void *>(inst));
            return -ENOENT;
        }
    }
    unfile(inst);
    run_dtor(inst);
    return 0;
}

TOVI_API uint32_t tovi_lwp_destroy_all(void)
{
    std::lock_guard create(g_create);
    uint32_t n = 0;
    for (;;) {
        tovi_lwp_inst_s *inst;
        {
            std::shared_lock lock(g_map);
            if (g_by_seq.empty())
                break;
            inst = g_by_seq.rbegin()->second;
        }
        unfile(inst);
        run_dtor(inst);
        ++n;
    }
    if (n != 0)
        TOVI_LOG(tovi::log::kInfo, "lwp: %u instances destroyed.", n);
    return n;
}

TOVI_API uint32_t tovi_lwp_list(tovi_lwp_info_s *out, uint32_t max)
{
    std::shared_lock lock(g_map);
    uint32_t i = 0;
    for (const auto &[seq, inst] : g_by_seq) {
        if (out == nullptr || i >= max)
            break;
        tovi_lwp_info_s &info = out[i++];
        std::memset(&info, 0, sizeof info);
        std::memcpy(info.type, inst->type->name, strnlen(inst->type->name, TOVI_LWP_NAME_LEN - 1));
        info.ctx = inst->ctx;
        info.vars = inst->nvars;
        info.bytes = inst->bytes;
        info.sequence = seq;
    }
    return static_cast<uint32_t>(g_by_seq.size());
}

}  // extern "C"
