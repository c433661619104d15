/**
 * @file
 * Definitions shared by every public header of the library.
 *
 * Results. 0 is success everywhere. Failures come in the families the
 * callers were built against, one per function, never mixed:
 *
 *   family          on failure                 functions (examples by module)
 *   --------------  -------------------------  ------------------------------------------
 *   all ones        TOVI_ERR (0xFFFFFFFF)      uint32_t status results: tovi_Init,
 *                                              jiffies_usr_main, thread creation, pools,
 *                                              names and stack lookups,
 *                                              tovi_thread_watch_del/_get, tovi_symbol_init,
 *                                              tovi_sched_init, tovi_sched_setaffinity,
 *                                              tovi_set_process_name
 *   minus one       -1                         int/int32_t results: tovi_cfg_* (and -10000
 *                                              for a buffer too small), tovi_timer_*,
 *                                              tovi_thread_watch_add, AVL trees,
 *                                              tovi_symbol_find/_addr_to_string,
 *                                              tovi_cpum_parse_cpumask, the logging wrappers
 *   negated errno   -EINVAL, -EEXIST, ...      hash tables, semaphores (TOVI_SEM_EINTR,
 *                                              TOVI_SEM_ETIME), rings (TOVI_RING_ENOBUFS,
 *                                              TOVI_RING_EDQUOT, TOVI_RING_ENOENT)
 *   error number    the positive errno value   tovi_key_*, tovi_pthread_init_once,
 *                                              tovi_mtx_init, tovi_wake_up_process
 *   count           how many, never negative   ring bursts and counts, bit weights,
 *                                              tovi_get_avl_node_num; tovi_timer_list_pending
 *                                              (-1 when it cannot count)
 *   pointer         NULL                       look-ups and constructors returning records
 *
 * Inside the library a failure is carried as a negated errno (or false /
 * NULL) and turned into the function's family at the exported boundary
 * (tovi::to_all_ones, tovi::to_minus_one in tovi_scope.hpp).
 */
#ifndef TOVI_BASE_H
#define TOVI_BASE_H

#include <stdint.h>

#ifdef __cplusplus
#define TOVI_EXTERN_C_BEGIN extern "C" {
#define TOVI_EXTERN_C_END }
#else
#define TOVI_EXTERN_C_BEGIN  /**< opens the C linkage of a public header's declarations */
#define TOVI_EXTERN_C_END  /**< closes it */
#endif

/** Marks a function or object as part of the library's interface. */
#define TOVI_API __attribute__((visibility("default")))

#define TOVI_OK 0u  /**< success of every status result */
#define TOVI_ERR 0xFFFFFFFFu  /**< failure of the all-ones status results */

/** The library's own module number, for logging and the private system call. */
#define TOVI_MODULE_ID 381u

/** Node of the library's intrusive doubly linked lists; a list head is a
 * node whose links point at itself when the list is empty. */
typedef struct tovi_list_head_s {
    struct tovi_list_head_s *next;  /**< next node; the head itself at the end */
    struct tovi_list_head_s *prev;  /**< previous node; the head itself at the start */
} tovi_list_head_s;

/** Jiffies per second. */
#define TOVI_HZ 250u

#endif
