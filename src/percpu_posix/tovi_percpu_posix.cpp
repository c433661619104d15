// Thread-specific keys and once-initialisation.
#define TOVI_LOG_SOURCE "tovi_percpu_posix"
#include "tovi_log.hpp"
#include "tovi_percpu_posix.h"

namespace {

using tovi::log::kError;

}  // namespace

extern "C" {

uint32_t tovi_pthread_init_once(pthread_once_t *once, void (*routine)(void))
{
    if (once == nullptr || routine == nullptr) {
        TOVI_LOG(kError, "param(once or routine) is null !\n");
        return TOVI_ERR;
    }
    int ret = pthread_once(once, routine);
    if (ret != 0)
        TOVI_LOG(kError, "pthread_once failed!\n");
    return static_cast<uint32_t>(ret);
}

uint32_t tovi_key_create(pthread_key_t *key, void (*destructor)(void *))
{
    if (key == nullptr) {
        TOVI_LOG(kError, "param(key) is null !\n");
        return TOVI_ERR;
    }
    int ret = pthread_key_create(key, destructor);
    if (ret != 0)
        TOVI_LOG(kError, "pthread_key_create failed!\n");
    return static_cast<uint32_t>(ret);
}

uint32_t tovi_key_delete(pthread_key_t key)
{
    int ret = pthread_key_delete(key);
    if (ret != 0)
        TOVI_LOG(kError, "pthread_key_delete failed!\n");
    return static_cast<uint32_t>(ret);
}

uint32_t tovi_key_setspecific(pthread_key_t key, const void *value)
{
    if (value == nullptr) {
        TOVI_LOG(kError, "param(value) is null !\n");
        return TOVI_ERR;
    }
    int ret = pthread_setspecific(key, value);
    if (ret != 0)
        TOVI_LOG(kError, "pthread_setspecific failed!\n");
    return static_cast<uint32_t>(ret);
}

void *tovi_key_getspecific(pthread_key_t key)
{
    void *value = pthread_getspecific(key);
    if (value == nullptr)
        TOVI_LOG(kError, "pthread_getspecific failed!\n");
    return value;
}

}  // extern "C"
