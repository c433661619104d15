// Clean-up on every way out of a scope, and the conversions of an internal
// result (0 or a negated errno) to the families of the exported functions
// (the table in tovi_base.h).
#pragma once

#include <cstdint>
#include <utility>

#include "tovi_base.h"

namespace tovi {

// Runs `fn` when the scope ends (return, exception or forced unwinding by
// pthread_exit), unless released first:
//     ScopeExit close_dir([&] { closedir(dir); });
template <class Fn>
class ScopeExit {
public:
    explicit ScopeExit(Fn fn) : fn_(std::move(fn)) {}
    ScopeExit(const ScopeExit &) = delete;
    ScopeExit &operator=(const ScopeExit &) = delete;
    ~ScopeExit()
    {
        if (armed_)
            fn_();
    }
    // Keeps what the scope built: the clean-up will not run.
    void release() { armed_ = false; }

private:
    Fn fn_;
    bool armed_ = true;
};

inline uint32_t to_all_ones(int err)
{
    return err == 0 ? TOVI_OK : TOVI_ERR;
}

inline int to_minus_one(int err)
{
    return err == 0 ? 0 : -1;
}

}  // namespace tovi
